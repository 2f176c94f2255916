#include "qx_wnet.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <strings.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "qx_config.h"
#include "qx_util.h"

namespace {

std::string shortName(const std::string& name) { return name.substr(0, name.find('.')); }

// Equal ignoring case; a short name also matches its fully qualified form.
bool sameHost(const std::string& a, const std::string& b) {
  if (a.empty() || b.empty()) return false;
  if (strcasecmp(a.c_str(), b.c_str()) == 0) return true;
  bool aShort = a.find('.') == std::string::npos;
  bool bShort = b.find('.') == std::string::npos;
  if (aShort == bShort) return false;
  return strcasecmp(shortName(a).c_str(), shortName(b).c_str()) == 0;
}

std::string hostName() {
  char buf[256] = {0};
  if (gethostname(buf, sizeof buf - 1) != 0) return std::string();
  return buf;
}

bool isLocalAddress(const std::string& text) {
  unsigned char want[sizeof(struct in6_addr)];
  int family = AF_UNSPEC;
  if (inet_pton(AF_INET, text.c_str(), want) == 1)
    family = AF_INET;
  else if (inet_pton(AF_INET6, text.c_str(), want) == 1)
    family = AF_INET6;
  else
    return false;
  if (family == AF_INET && want[0] == 127) return true;
  if (family == AF_INET6 && std::memcmp(want, &in6addr_loopback, sizeof in6addr_loopback) == 0)
    return true;

  struct ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return false;
  bool found = false;
  for (struct ifaddrs* i = list; i != nullptr && !found; i = i->ifa_next) {
    if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != family) continue;
    const void* a = family == AF_INET
                        ? static_cast<const void*>(
                              &reinterpret_cast<struct sockaddr_in*>(i->ifa_addr)->sin_addr)
                        : static_cast<const void*>(
                              &reinterpret_cast<struct sockaddr_in6*>(i->ifa_addr)->sin6_addr);
    found = std::memcmp(a, want, family == AF_INET ? 4 : 16) == 0;
  }
  freeifaddrs(list);
  return found;
}

}  // namespace

bool wnet_is_server(const char* host) {
  if (host == nullptr) return false;
  std::string h = trim(host);
  if (h.size() > 2 && h.front() == '[' && h.back() == ']') h = h.substr(1, h.size() - 2);
  if (h.empty()) return false;
  std::string me = hostName();
  bool thisMachine =
      strcasecmp(h.c_str(), "localhost") == 0 || sameHost(h, me) || isLocalAddress(h);
  if (!thisMachine) return false;

  std::shared_ptr<const QXMasterConfig> cfg = qxLoadMasterConfig(nullptr);
  bool isServer = false;
  if (bpconfGetKeyValPairAsBool(cfg.get(), "IS_SERVER", &isServer) == 0 && isServer) return true;
  std::vector<std::string> servers = bpconfGetKeyValues(cfg.get(), "SERVER");
  return !servers.empty() && sameHost(servers.front(), me);
}
