// What the connector would do for each address of a server, tried one by one.
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

#include "platform/qx_config.h"
#include "platform/qx_wnet.h"
#include "prefnet/qxclnt_prefnet.h"
#include "qxcurl/qxcurl_route.h"

namespace {

std::string localAddress(int fd) {
  struct sockaddr_storage sa;
  socklen_t len = sizeof sa;
  char text[INET6_ADDRSTRLEN] = "";
  if (getsockname(fd, reinterpret_cast<struct sockaddr*>(&sa), &len) == 0)
    wnet_sockAddrNtoPWithLength(reinterpret_cast<struct sockaddr*>(&sa), len, text, sizeof text);
  return text;
}

}  // namespace

int qxcurlRoute(const std::string& server, int port, long timeoutSeconds, QXRoute& out) {
  out = QXRoute();
  std::string host = server;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']')
    host = host.substr(1, host.size() - 2);
  if (host.empty() || port < 1 || port > 65535) return WN_STATUS_BAD_PARAM;

  std::shared_ptr<const QXMasterConfig> cfg = qxLoadMasterConfig(nullptr);
  bool disabled = false;
  out.preferredNetworksDisabled =
      bpconfGetKeyValPairAsBool(cfg.get(), "DISABLE_QXCURL_PREFERRED_NETWORKS", &disabled) == 0 &&
      disabled;

  char service[16];
  (void)std::snprintf(service, sizeof service, "%d", port);
  struct addrinfo hints = wnet_get_default_hints(wnet_adjusted_family(0));
  struct addrinfo* list = nullptr;
  int rc = wnet_cached_getaddrinfo(host.c_str(), service, &hints, &list, &out.gaiError);
  if (rc != WN_STATUS_SUCCESS) return rc;
  wnet_sortaddrs(&list);
  std::shared_ptr<const WnetRuleSet> rules = wnet_current_pref_rules();

  for (struct addrinfo* p = list; p != nullptr; p = p->ai_next) {
    QXRouteAddress a;
    char text[INET6_ADDRSTRLEN] = "";
    wnet_sockAddrNtoPWithLength(p->ai_addr, p->ai_addrlen, text, sizeof text);
    a.address = text;
    wnet_pref_netconnection answer;
    if (wnet_get_pref_netconnection(p->ai_addr, p->ai_addrlen, &answer) == WN_STATUS_SUCCESS) {
      a.prohibited = answer.prohibited != 0;
      a.rule = answer.rule;
      for (const WnetRule& r : rules->rules) {
        if (r.position == a.rule) a.ruleText = r.text;
      }
      if (answer.local != nullptr) {
        wnet_sockAddrNtoPWithLength(answer.local->ai_addr, answer.local->ai_addrlen, text,
                                    sizeof text);
        a.source = text;
      }
      wnet_freeaddrinfo(answer.local);
    }
    if (!a.prohibited) {
      // The numeric address alone: the connector applies the same rules to it.
      qxclnt_curl_prefnet conn(a.address, static_cast<unsigned int>(port), timeoutSeconds);
      auto start = std::chrono::steady_clock::now();
      a.status =
          conn.connect(QXCLNT_CMODE_BLOCKING, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
      a.statusName = wnet_status_name(a.status);
      a.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      int fd = static_cast<int>(conn);
      if (a.status == WN_STATUS_SUCCESS && fd >= 0) {
        a.localUsed = localAddress(fd);
        close(fd);
      }
      conn.reset();
    }
    out.addresses.push_back(a);
  }
  wnet_freeaddrinfo(list);
  return WN_STATUS_SUCCESS;
}
