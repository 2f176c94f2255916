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
  std::string key, value, m = "m";
  parse_cache_line(std::string(reinterpret_cast<const char*>(data), size), key, value);
  fuzzWriteScratch("arvion/websvctunnels.cache", data, size);
  QXWebsvcTunnelRouter router;
  std::list<std::string> tunnels;
  if (router.getTunnelsFromCache(m, tunnels) != 0) abort();
  for (std::string& t : tunnels) router.isTunnelServerCached(m, t);
  if (router.resetWebsvcTunnelServersCache(m) != 0) abort();
  return 0;
}
