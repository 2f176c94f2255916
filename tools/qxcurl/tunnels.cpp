// Tunnels in qxcurl: the request options, the line that names the tunnel
// used, and the tunnels command over the host's tunnel cache.
#include <cstdio>
#include <list>
#include <string>

#include "qxcurl/qx_status.h"
#include "qxcurl/qxclnt_curl.h"
#include "qxcurl/websvc_tunnel_router.h"
#include "qxcurl_tool.h"

namespace qxtool {

void applyTunnelOptions(const Options& o, QXClientCURL& client) {
  if (o.noTunnel) client.disableHttpTunnelUse();
  if (!o.tunnels.empty()) {
    std::list<std::string> servers(o.tunnels.begin(), o.tunnels.end());
    client.setAdditionalTunnelServers(servers);
  }
}

void reportTunnel(const Options& o, const QXClientCURL& client) {
  const std::string& tunnel = client.getTunnelUsed();
  if (o.verbose) {
    if (tunnel.empty()) {
      std::fprintf(stderr, "qxcurl: no tunnel (direct connection)\n");
    } else {
      std::fprintf(stderr, "qxcurl: tunnel %s:1556\n", tunnel.c_str());
    }
  }
  if (o.include && !tunnel.empty()) std::printf("Tunnel: %s:1556\r\n", tunnel.c_str());
}

int runTunnels(const Options& o) {
  if (o.server.empty()) {
    std::fprintf(stderr, "qxcurl: --server is required\n");
    return reportStatus(QX_ERR_BAD_ARGUMENT, nullptr);
  }
  QXWebsvcTunnelRouter router;
  // The caller's own servers let the cache fall back to /tmp, as they do for
  // requests.
  router.setAdditionalTunnelServers(std::list<std::string>(o.tunnels.begin(), o.tunnels.end()));
  std::string master = o.server;
  if (o.resetTunnels) {
    int rc = router.resetWebsvcTunnelServersCache(master);
    return rc == 0 ? EXIT_OK : reportStatus(rc, nullptr);
  }
  std::list<std::string> tunnels;
  int rc = router.getTunnelsFromCache(master, tunnels);
  if (rc != 0) return reportStatus(rc, nullptr);
  for (const std::string& t : tunnels) std::printf("%s\n", t.c_str());
  return EXIT_OK;
}

}  // namespace qxtool
