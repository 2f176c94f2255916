// How the preferred-network rules route connections to a server, address by
// address: for administrators checking PREFERRED_NETWORK (qxcurl route).
//
//   QXRoute r;
//   if (qxcurlRoute("master1", 1556, 5, r) == 0)
//     for (const QXRouteAddress& a : r.addresses) print(a.address, a.ruleText, a.status);
#ifndef QXCURL_QXCURL_ROUTE_H
#define QXCURL_QXCURL_ROUTE_H
// How the preferred-network rules route connections to a server: for
// administrators checking their PREFERRED_NETWORK rules.
#include <string>
#include <vector>

#include "qxcurl/qxcurl_export.h"

struct QXRouteAddress {
  std::string address;      // remote address, in the order connections are tried
  int rule = 0;             // position of the deciding PREFERRED_NETWORK entry; 0: none
  std::string ruleText;     // that entry as written
  bool prohibited = false;  // never dialled
  std::string source;       // local address the rule binds to; empty: the system's choice
  int status = -1;          // result of the connect (a WN_STATUS_* value); -1 when not tried
  std::string statusName;   // "WN_STATUS_CONNECT_REFUSED", ...; empty when not tried
  double seconds = 0;       // how long the connect took
  std::string localUsed;    // local address the connection had
};

struct QXRoute {
  bool preferredNetworksDisabled = false;  // DISABLE_QXCURL_PREFERRED_NETWORKS is set
  int gaiError = 0;                        // getaddrinfo's code when resolution failed
  std::vector<QXRouteAddress> addresses;
};

// Resolves server as the connector does and, address by address, applies the
// rules and tries a connection with `timeoutSeconds` for each, closing it at
// once. 0, or the WN_STATUS_* of a failed resolution (an empty server:
// WN_STATUS_BAD_PARAM).
QX_API int qxcurlRoute(const std::string& server, int port, long timeoutSeconds, QXRoute& out);
#endif  // QXCURL_QXCURL_ROUTE_H
