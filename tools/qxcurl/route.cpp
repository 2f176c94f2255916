// qxcurl route: how the preferred-network rules route connections to a server,
// address by address, for administrators checking their rules.
#include <netdb.h>

#include <cstdio>

#include "qxcurl/qxcurl_route.h"
#include "qxcurl_tool.h"

namespace qxtool {

namespace {
constexpr long kDefaultBudget = 10;  // seconds per address
}

int runRoute(const Options& o) {
  if (o.server.empty()) throw UsageError("route needs --server");
  QXRoute route;
  int rc = qxcurlRoute(o.server, o.port, o.timeout > 0 ? o.timeout : kDefaultBudget, route);
  if (rc != 0) {
    std::fprintf(stderr, "qxcurl: cannot resolve %s: %s\n", o.server.c_str(),
                 route.gaiError != 0 ? gai_strerror(route.gaiError) : "bad server or port");
    return EXIT_STATUS;
  }
  std::printf("route to %s port %d: %zu address%s, in the order connections are tried\n",
              o.server.c_str(), o.port, route.addresses.size(),
              route.addresses.size() == 1 ? "" : "es");
  if (route.preferredNetworksDisabled) {
    std::printf("note: DISABLE_QXCURL_PREFERRED_NETWORKS is set: requests ignore these rules\n");
  }
  bool connected = false;
  int n = 0;
  for (const QXRouteAddress& a : route.addresses) {
    std::printf("%d. %s\n", ++n, a.address.c_str());
    if (a.rule != 0) {
      std::printf("   rule:    [%d] %s\n", a.rule, a.ruleText.c_str());
    } else {
      std::printf("   rule:    none (permitted, no binding)\n");
    }
    if (a.prohibited) {
      std::printf("   PROHIBITED: never dialled\n");
      continue;
    }
    std::printf("   source:  %s\n", a.source.empty() ? "chosen by the system" : a.source.c_str());
    if (a.status == 0) {
      connected = true;
      std::printf("   connect: connected in %.3f s from %s\n", a.seconds, a.localUsed.c_str());
    } else {
      std::printf("   connect: failed after %.3f s (%s)\n", a.seconds, a.statusName.c_str());
    }
  }
  // Tunnel candidates, in the order the tunnel router offers them, are listed
  // here once the router can answer them.
  return connected ? EXIT_OK : EXIT_STATUS;
}

}  // namespace qxtool
