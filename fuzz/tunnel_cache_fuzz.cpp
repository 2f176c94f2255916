// The tunnel cache file reader, its line parser and its rewrite over
// arbitrary file contents.
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <string>

#include "websvc_tunnel_router.h"

namespace {
std::string scratchRoot() {
  static std::string dir;
  if (dir.empty()) {
    char tmpl[] = "/tmp/qxtunnelfuzz-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) abort();
    dir = tmpl;
    if (mkdir((dir + "/arvion").c_str(), 0700) != 0) abort();
    setenv("ARVION_ROOT", dir.c_str(), 1);
  }
  return dir;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = scratchRoot() + "/arvion/websvctunnels.cache";
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::string key, value;
  parse_cache_line(text, key, value);

  unlink(path.c_str());
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) abort();
  if (size != 0 && fwrite(data, 1, size, f) != size) abort();
  fclose(f);
  chmod(path.c_str(), 0600);

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
