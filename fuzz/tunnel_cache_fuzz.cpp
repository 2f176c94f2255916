// The tunnel cache file reader, its line parser and its rewrite over
// arbitrary file contents.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <list>
#include <string>

#include "fuzz/fuzz_scratch.h"
#include "qxcurl/websvc_tunnel_router.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::string key, value;
  parse_cache_line(text, key, value);
  fuzzWriteScratch("arvion/websvctunnels.cache", data, size);

  QXWebsvcTunnelRouter router;
  std::string m = "m", o = "o";
  std::list<std::string> mine, others;
  if (router.getTunnelsFromCache(m, mine) != 0) abort();
  if (router.getTunnelsFromCache(o, others) != 0) abort();
  for (std::string& t : mine) {
    if (!router.isTunnelServerCached(m, t)) abort();
  }
  // Forgetting one master keeps every entry of the others, in order.
  if (router.resetWebsvcTunnelServersCache(m) != 0) abort();
  std::list<std::string> mineAfter, othersAfter;
  if (router.getTunnelsFromCache(m, mineAfter) != 0 || !mineAfter.empty()) abort();
  if (router.getTunnelsFromCache(o, othersAfter) != 0 || othersAfter != others) abort();
  return 0;
}
