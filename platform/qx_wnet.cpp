#include "platform/qx_wnet.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <strings.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "platform/qx_config.h"
#include "platform/qx_log.h"
#include "platform/qx_util.h"

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

using Clock = std::chrono::steady_clock;

// ---- address lists ----
// Every list this library hands out is one allocation: the nodes, each
// followed by its socket address. The first node is the block, so a list is
// freed through its head; wnet_sortaddrs never moves the head.
struct Item {
  int family;
  int socktype;
  int protocol;
  socklen_t len;
  struct sockaddr_storage addr;
};

struct Node {
  struct addrinfo ai;
  struct sockaddr_storage addr;
};

struct addrinfo* makeList(const std::vector<Item>& items) {
  if (items.empty()) return nullptr;
  Node* nodes = static_cast<Node*>(std::calloc(items.size(), sizeof(Node)));
  if (nodes == nullptr) return nullptr;
  for (size_t i = 0; i < items.size(); ++i) {
    Node& n = nodes[i];
    std::memcpy(&n.addr, &items[i].addr, items[i].len);
    n.ai.ai_family = items[i].family;
    n.ai.ai_socktype = items[i].socktype;
    n.ai.ai_protocol = items[i].protocol;
    n.ai.ai_addrlen = items[i].len;
    n.ai.ai_addr = reinterpret_cast<struct sockaddr*>(&n.addr);
    n.ai.ai_next = i + 1 < items.size() ? &nodes[i + 1].ai : nullptr;
  }
  return &nodes[0].ai;
}

bool itemFor(const WnetAddr& a, unsigned short port, const struct addrinfo* hints, Item& out) {
  std::memset(&out, 0, sizeof out);
  out.family = a.family;
  out.socktype = hints != nullptr && hints->ai_socktype != 0 ? hints->ai_socktype : SOCK_STREAM;
  out.protocol = hints != nullptr ? hints->ai_protocol : 0;
  if (a.family == AF_INET) {
    auto* sin = reinterpret_cast<struct sockaddr_in*>(&out.addr);
    sin->sin_family = AF_INET;
    sin->sin_port = htons(port);
    std::memcpy(&sin->sin_addr, a.bytes, 4);
    out.len = sizeof(struct sockaddr_in);
    return true;
  }
  if (a.family == AF_INET6) {
    auto* sin6 = reinterpret_cast<struct sockaddr_in6*>(&out.addr);
    sin6->sin6_family = AF_INET6;
    sin6->sin6_port = htons(port);
    std::memcpy(&sin6->sin6_addr, a.bytes, 16);
    out.len = sizeof(struct sockaddr_in6);
    return true;
  }
  return false;
}

// ---- the resolver cache ----
constexpr auto kCacheLifetime = std::chrono::seconds(30);
constexpr size_t kCacheEntries = 32;

struct CacheEntry {
  std::string host, service;
  int family, socktype, protocol, flags;
  std::vector<Item> items;
  Clock::time_point expires;
};

std::mutex g_resolverMutex;
std::vector<CacheEntry> g_cache;
std::map<std::string, std::vector<std::string>> g_testHosts;

bool sameQuery(const CacheEntry& e, const char* host, const char* service, const addrinfo& h) {
  return e.family == h.ai_family && e.socktype == h.ai_socktype && e.protocol == h.ai_protocol &&
         e.flags == h.ai_flags && e.host == host && e.service == service;
}

void remember(CacheEntry entry) {
  Clock::time_point now = Clock::now();
  std::lock_guard<std::mutex> guard(g_resolverMutex);
  for (CacheEntry& e : g_cache) {
    if (e.family == entry.family && e.socktype == entry.socktype && e.protocol == entry.protocol &&
        e.flags == entry.flags && e.host == entry.host && e.service == entry.service) {
      e = std::move(entry);
      return;
    }
  }
  if (g_cache.size() >= kCacheEntries) {
    size_t victim = 0;
    for (size_t i = 0; i < g_cache.size(); ++i) {
      if (g_cache[i].expires <= now) {
        victim = i;
        break;
      }
      if (g_cache[i].expires < g_cache[victim].expires) victim = i;
    }
    g_cache[victim] = std::move(entry);
    return;
  }
  g_cache.push_back(std::move(entry));
}

// The seam's table, when it names host: true with the items.
bool fromTestTable(const char* host, const char* service, const addrinfo& hints,
                   std::vector<Item>& items) {
  std::vector<std::string> addresses;
  {
    std::lock_guard<std::mutex> guard(g_resolverMutex);
    if (g_testHosts.empty()) return false;
    auto it = g_testHosts.find(host);
    if (it == g_testHosts.end()) return false;
    addresses = it->second;
  }
  unsigned short port = service != nullptr ? static_cast<unsigned short>(std::atoi(service)) : 0;
  for (const std::string& text : addresses) {
    WnetAddr a;
    Item item;
    if (!wnet_parse_addr(text, a)) continue;
    if (hints.ai_family != AF_UNSPEC && hints.ai_family != a.family) continue;
    if (itemFor(a, port, &hints, item)) items.push_back(item);
  }
  return true;
}

// ---- rules ----
const char kRuleTag[] = "wnet_get_pref_netconnection";

int fullBits(int family) { return family == AF_INET ? 32 : 128; }

bool inNetwork(const WnetAddr& a, const WnetAddr& net, int prefix) {
  if (a.family != net.family || a.family == 0) return false;
  int whole = prefix / 8;
  if (std::memcmp(a.bytes, net.bytes, static_cast<size_t>(whole)) != 0) return false;
  int rest = prefix % 8;
  if (rest == 0) return true;
  unsigned char mask = static_cast<unsigned char>(0xFF << (8 - rest));
  return (a.bytes[whole] & mask) == (net.bytes[whole] & mask);
}

void clearHostBits(WnetAddr& a, int prefix) {
  int n = a.family == AF_INET ? 4 : 16;
  for (int i = 0; i < n; ++i) {
    int bits = prefix - i * 8;
    if (bits >= 8) continue;
    a.bytes[i] &= bits <= 0 ? 0 : static_cast<unsigned char>(0xFF << (8 - bits));
  }
}

bool isMappedV4(const WnetAddr& a) {
  static const unsigned char prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
  return a.family == AF_INET6 && std::memcmp(a.bytes, prefix, 12) == 0;
}

void unmap(WnetAddr& a) {
  if (!isMappedV4(a)) return;
  unsigned char v4[4];
  std::memcpy(v4, a.bytes + 12, 4);
  std::memset(a.bytes, 0, sizeof a.bytes);
  std::memcpy(a.bytes, v4, 4);
  a.family = AF_INET;
}

// "addr" or "addr/bits". A bare address is a network of one.
bool parseNetwork(const std::string& text, WnetAddr& net, int& prefix) {
  size_t slash = text.find('/');
  if (!wnet_parse_addr(text.substr(0, slash), net)) return false;
  prefix = fullBits(net.family);
  if (slash != std::string::npos) {
    std::string bits = text.substr(slash + 1);
    if (bits.empty() || bits.size() > 3) return false;
    int n = 0;
    for (char c : bits) {
      if (c < '0' || c > '9') return false;
      n = n * 10 + (c - '0');
    }
    if (n > prefix) return false;
    prefix = n;
  }
  if (isMappedV4(net) && prefix >= 96) {
    unmap(net);
    prefix -= 96;
  }
  clearHostBits(net, prefix);
  return true;
}

std::vector<std::string> words(const std::string& text) {
  std::vector<std::string> out;
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
    size_t start = i;
    while (i < text.size() && text[i] != ' ' && text[i] != '\t') ++i;
    if (i > start) out.push_back(text.substr(start, i - start));
  }
  return out;
}

// nullptr when the rule is good; otherwise why not.
const char* parseRule(const std::string& text, WnetRule& r) {
  if (text.find('\0') != std::string::npos) return "it holds a NUL byte";
  std::vector<std::string> w = words(text);
  if (w.size() < 2) return "expected <target> ONLY|PROHIBITED|MATCH [<source>]";
  if (w.size() > 3) return "too many words";
  if (!parseNetwork(w[0], r.target, r.prefix)) return "the target is not an address or network";
  const std::string& action = w[1];
  if (strcasecmp(action.c_str(), "PROHIBITED") == 0) {
    r.action = WnetRule::PROHIBITED;
    if (w.size() != 2) return "PROHIBITED takes no source";
  } else if (strcasecmp(action.c_str(), "ONLY") == 0) {
    r.action = WnetRule::ONLY;
    if (w.size() != 3) return "ONLY needs a source address";
    if (!wnet_parse_addr(w[2], r.source)) return "the source is not an address";
    unmap(r.source);
    if (r.source.family != r.target.family) return "source and target are of different families";
  } else if (strcasecmp(action.c_str(), "MATCH") == 0) {
    r.action = WnetRule::MATCH;
    if (w.size() == 3) {
      if (!parseNetwork(w[2], r.source, r.sourcePrefix))
        return "the source is not an address or network";
      if (r.source.family != r.target.family) return "source and target are of different families";
    }
  } else {
    return "the action is not ONLY, PROHIBITED or MATCH";
  }
  return nullptr;
}

// The parsed rules of the configuration they came from; the configuration
// cache hands out the same object until the file changes.
std::mutex g_rulesMutex;
std::shared_ptr<const QXMasterConfig> g_rulesConfig;
std::shared_ptr<const WnetRuleSet> g_rules;
unsigned long g_rulesGeneration = 0;

bool sameRules(const WnetRuleSet& a, const WnetRuleSet& b) {
  if (a.rules.size() != b.rules.size()) return false;
  for (size_t i = 0; i < a.rules.size(); ++i) {
    if (a.rules[i].text != b.rules[i].text || a.rules[i].position != b.rules[i].position)
      return false;
  }
  return true;
}

std::mutex g_ifaceMutex;
std::shared_ptr<const std::vector<WnetIface>> g_ifaces;
Clock::time_point g_ifacesExpire;
constexpr auto kIfaceLifetime = std::chrono::seconds(5);

std::shared_ptr<WnetRuleSet> parseRules(const std::vector<std::string>& values);

int prefixOfMask(const struct sockaddr* mask) {
  if (mask == nullptr) return -1;
  const unsigned char* b = nullptr;
  int n = 0;
  if (mask->sa_family == AF_INET) {
    b = reinterpret_cast<const unsigned char*>(
        &reinterpret_cast<const struct sockaddr_in*>(mask)->sin_addr);
    n = 4;
  } else if (mask->sa_family == AF_INET6) {
    b = reinterpret_cast<const unsigned char*>(
        &reinterpret_cast<const struct sockaddr_in6*>(mask)->sin6_addr);
    n = 16;
  } else {
    return -1;
  }
  int bits = 0;
  for (int i = 0; i < n; ++i) bits += __builtin_popcount(b[i]);
  return bits;
}

}  // namespace

const char* wnet_status_name(int status) {
  switch (status) {
    case WN_STATUS_SUCCESS:
      return "WN_STATUS_SUCCESS";
    case WN_STATUS_BAD_PARAM:
      return "WN_STATUS_BAD_PARAM";
    case WN_STATUS_RESOLVE_FAILED:
      return "WN_STATUS_RESOLVE_FAILED";
    case WN_STATUS_SOCKET_FAILED:
      return "WN_STATUS_SOCKET_FAILED";
    case WN_STATUS_SYSCALL_FAILED:
      return "WN_STATUS_SYSCALL_FAILED";
    case WN_STATUS_BIND_FAILED:
      return "WN_STATUS_BIND_FAILED";
    case WN_STATUS_CONNECT_FAILED:
      return "WN_STATUS_CONNECT_FAILED";
    case WN_STATUS_SELECT_FAILED:
      return "WN_STATUS_SELECT_FAILED";
    case WN_STATUS_FD_SETSIZE:
      return "WN_STATUS_FD_SETSIZE";
    case WN_STATUS_CONNECT_REFUSED:
      return "WN_STATUS_CONNECT_REFUSED";
    case WN_STATUS_CONNECT_TIMEOUT:
      return "WN_STATUS_CONNECT_TIMEOUT";
  }
  return "WN_STATUS_UNKNOWN";
}

bool wnet_is_server(const char* host) {
  if (host == nullptr) return false;
  // What the configuration says about this machine, and the machine's name,
  // worked out once per configuration change (a request asks several times).
  struct Known {
    uint64_t version = 0;  // of the configuration below; 0: none yet
    std::string me;
    bool listed = false;
  };
  thread_local Known t_known;
  Known& known = t_known;
  const uint64_t version = qxConfigVersion(nullptr);
  if (known.version != version) {
    std::shared_ptr<const QXMasterConfig> cfg = qxLoadMasterConfig(nullptr);
    known.version = version;
    known.me = hostName();
    bool isServer = false;
    if (bpconfGetKeyValPairAsBool(cfg.get(), "IS_SERVER", &isServer) == 0 && isServer) {
      known.listed = true;
    } else {
      std::vector<std::string> servers = bpconfGetKeyValues(cfg.get(), "SERVER");
      known.listed = !servers.empty() && sameHost(servers.front(), known.me);
    }
  }
  if (!known.listed) return false;
  if (strcasecmp(host, "localhost") == 0) return true;
  std::string h = trim(host);
  if (h.size() > 2 && h.front() == '[' && h.back() == ']') h = h.substr(1, h.size() - 2);
  if (h.empty()) return false;
  return strcasecmp(h.c_str(), "localhost") == 0 || sameHost(h, known.me) || isLocalAddress(h);
}

// ---- resolution ----

struct addrinfo wnet_get_default_hints(int family) {
  struct addrinfo h;
  std::memset(&h, 0, sizeof h);
  h.ai_family = family;
  h.ai_socktype = SOCK_STREAM;
  h.ai_protocol = IPPROTO_TCP;
  return h;
}

int wnet_adjusted_family(int family) {
  if (family != AF_UNSPEC) return family;
  static const bool haveIPv6 = [] {
    int fd = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    close(fd);
    return true;
  }();
  return haveIPv6 ? AF_UNSPEC : AF_INET;
}

int wnet_cached_getaddrinfo(const char* host, const char* service, const struct addrinfo* hints,
                            struct addrinfo** res, int* gaiErr) {
  if (gaiErr != nullptr) *gaiErr = 0;
  if (res == nullptr || host == nullptr || *host == '\0') return WN_STATUS_BAD_PARAM;
  *res = nullptr;
  if (service == nullptr) service = "";
  struct addrinfo h = hints != nullptr ? *hints : wnet_get_default_hints(AF_UNSPEC);

  std::vector<Item> items;
  if (!fromTestTable(host, service, h, items)) {
    Clock::time_point now = Clock::now();
    bool hit = false;
    {
      std::lock_guard<std::mutex> guard(g_resolverMutex);
      for (const CacheEntry& e : g_cache) {
        if (e.expires > now && sameQuery(e, host, service, h)) {
          items = e.items;
          hit = true;
          break;
        }
      }
    }
    if (!hit) {
      struct addrinfo q;
      std::memset(&q, 0, sizeof q);
      q.ai_family = h.ai_family;
      q.ai_socktype = h.ai_socktype;
      q.ai_protocol = h.ai_protocol;
      q.ai_flags = h.ai_flags;
      struct addrinfo* found = nullptr;
      int rc = getaddrinfo(host, *service != '\0' ? service : nullptr, &q, &found);
      if (rc != 0) {
        if (gaiErr != nullptr) *gaiErr = rc;
        return WN_STATUS_RESOLVE_FAILED;
      }
      for (struct addrinfo* p = found; p != nullptr; p = p->ai_next) {
        if (p->ai_addr == nullptr || p->ai_addrlen > sizeof(struct sockaddr_storage)) continue;
        if (p->ai_family != AF_INET && p->ai_family != AF_INET6) continue;
        Item it;
        std::memset(&it, 0, sizeof it);
        it.family = p->ai_family;
        it.socktype = p->ai_socktype;
        it.protocol = p->ai_protocol;
        it.len = p->ai_addrlen;
        std::memcpy(&it.addr, p->ai_addr, p->ai_addrlen);
        items.push_back(it);
      }
      freeaddrinfo(found);
      if (!items.empty()) {
        remember(CacheEntry{host, service, h.ai_family, h.ai_socktype, h.ai_protocol, h.ai_flags,
                            items, now + kCacheLifetime});
      }
    }
  }
  if (items.empty()) {
    if (gaiErr != nullptr) *gaiErr = EAI_NONAME;
    return WN_STATUS_RESOLVE_FAILED;
  }
  *res = makeList(items);
  if (*res == nullptr) {
    if (gaiErr != nullptr) *gaiErr = EAI_MEMORY;
    return WN_STATUS_RESOLVE_FAILED;
  }
  return WN_STATUS_SUCCESS;
}

void wnet_freeaddrinfo(struct addrinfo* list) { std::free(list); }

int wnet_sortaddrs(struct addrinfo** list) {
  if (list == nullptr) return 0;
  int count = 0;
  for (struct addrinfo* p = *list; p != nullptr; p = p->ai_next) {
    ++count;
    // Drop later copies of this address; the head stays where it is.
    for (struct addrinfo** q = &p->ai_next; *q != nullptr;) {
      if ((*q)->ai_addrlen == p->ai_addrlen && (*q)->ai_family == p->ai_family &&
          std::memcmp((*q)->ai_addr, p->ai_addr, p->ai_addrlen) == 0) {
        *q = (*q)->ai_next;
      } else {
        q = &(*q)->ai_next;
      }
    }
  }
  return count;
}

int wnet_sockAddrNtoPWithLength(const struct sockaddr* sa, socklen_t salen, char* buf, size_t len) {
  if (buf == nullptr || len == 0) return -1;
  buf[0] = '\0';
  if (sa == nullptr) return -1;
  const void* src = nullptr;
  if (sa->sa_family == AF_INET && salen >= sizeof(struct sockaddr_in)) {
    src = &reinterpret_cast<const struct sockaddr_in*>(sa)->sin_addr;
  } else if (sa->sa_family == AF_INET6 && salen >= sizeof(struct sockaddr_in6)) {
    src = &reinterpret_cast<const struct sockaddr_in6*>(sa)->sin6_addr;
  } else {
    return -1;
  }
  if (inet_ntop(sa->sa_family, src, buf, static_cast<socklen_t>(len)) == nullptr) {
    buf[0] = '\0';
    return -1;
  }
  return 0;
}

int wnet_sockAddrNtoP(const struct sockaddr* sa, char* buf, size_t len) {
  if (sa == nullptr) return wnet_sockAddrNtoPWithLength(sa, 0, buf, len);
  socklen_t salen =
      sa->sa_family == AF_INET6 ? sizeof(struct sockaddr_in6) : sizeof(struct sockaddr_in);
  return wnet_sockAddrNtoPWithLength(sa, salen, buf, len);
}

void wnet_logconnections(wnet_socket_t fd, const char* who) {
  if (!qxLogWanted(QXLOG_DETAIL)) return;
  struct sockaddr_storage local, peer;
  socklen_t llen = sizeof local, plen = sizeof peer;
  char l[INET6_ADDRSTRLEN] = "?", p[INET6_ADDRSTRLEN] = "?";
  if (getsockname(fd, reinterpret_cast<struct sockaddr*>(&local), &llen) == 0)
    wnet_sockAddrNtoPWithLength(reinterpret_cast<struct sockaddr*>(&local), llen, l, sizeof l);
  if (getpeername(fd, reinterpret_cast<struct sockaddr*>(&peer), &plen) == 0)
    wnet_sockAddrNtoPWithLength(reinterpret_cast<struct sockaddr*>(&peer), plen, p, sizeof p);
  QXLOG(QXLOG_DETAIL, "wnet_logconnections") << (who != nullptr ? who : "") << " connection [" << fd
                                             << "] from [" << l << "] to [" << p << "]";
}

void wnet_T_setHostAddresses(const std::string& host, const std::vector<std::string>& addresses) {
  std::lock_guard<std::mutex> guard(g_resolverMutex);
  if (addresses.empty())
    g_testHosts.erase(host);
  else
    g_testHosts[host] = addresses;
  g_cache.clear();
}

// ---- preferred-network rules ----

bool wnet_parse_addr(const std::string& text, WnetAddr& out) {
  out = WnetAddr();
  std::string t = text;
  bool bracketed = t.size() > 2 && t.front() == '[' && t.back() == ']';
  if (bracketed) t = t.substr(1, t.size() - 2);
  if (t.empty() || t.size() >= INET6_ADDRSTRLEN || t.find('\0') != std::string::npos) return false;
  if (!bracketed && inet_pton(AF_INET, t.c_str(), out.bytes) == 1) {
    out.family = AF_INET;
    return true;
  }
  if (inet_pton(AF_INET6, t.c_str(), out.bytes) == 1) {
    out.family = AF_INET6;
    return true;
  }
  out = WnetAddr();
  return false;
}

bool wnet_addr_of(const struct sockaddr* sa, socklen_t len, WnetAddr& out) {
  out = WnetAddr();
  if (sa == nullptr) return false;
  if (sa->sa_family == AF_INET && len >= sizeof(struct sockaddr_in)) {
    out.family = AF_INET;
    std::memcpy(out.bytes, &reinterpret_cast<const struct sockaddr_in*>(sa)->sin_addr, 4);
    return true;
  }
  if (sa->sa_family == AF_INET6 && len >= sizeof(struct sockaddr_in6)) {
    out.family = AF_INET6;
    std::memcpy(out.bytes, &reinterpret_cast<const struct sockaddr_in6*>(sa)->sin6_addr, 16);
    unmap(out);
    return true;
  }
  return false;
}

std::string wnet_addr_text(const WnetAddr& a) {
  char buf[INET6_ADDRSTRLEN] = "";
  if (a.family == 0 || inet_ntop(a.family, a.bytes, buf, sizeof buf) == nullptr) return "NONE";
  return buf;
}

std::shared_ptr<const WnetRuleSet> wnet_parse_pref_rules(const std::vector<std::string>& values) {
  return parseRules(values);
}

namespace {
std::shared_ptr<WnetRuleSet> parseRules(const std::vector<std::string>& values) {
  auto set = std::make_shared<WnetRuleSet>();
  int position = 0;
  for (const std::string& value : values) {
    ++position;
    WnetRule r;
    r.position = position;
    r.text = trim(value);
    const char* why = parseRule(r.text, r);
    if (why != nullptr) {
      // Rules hold addresses only, never secrets: the text helps the administrator.
      QXLOG(QXLOG_ERROR, kRuleTag) << "PREFERRED_NETWORK entry [" << position << "] \""
                                   << r.text.substr(0, 200) << "\" ignored: " << why << ".";
      continue;
    }
    if (r.action == WnetRule::MATCH) set->needsInterfaces = true;
    set->rules.push_back(std::move(r));
  }
  return set;
}
}  // namespace

std::shared_ptr<const WnetRuleSet> wnet_current_pref_rules() {
  std::shared_ptr<const QXMasterConfig> cfg = qxLoadMasterConfig(nullptr);
  {
    std::lock_guard<std::mutex> guard(g_rulesMutex);
    if (g_rules && cfg == g_rulesConfig) return g_rules;
  }
  // Parsing logs, and logging may read the configuration: no lock held here.
  std::shared_ptr<WnetRuleSet> parsed =
      parseRules(bpconfGetKeyValues(cfg.get(), "PREFERRED_NETWORK"));
  std::lock_guard<std::mutex> guard(g_rulesMutex);
  g_rulesConfig = cfg;
  if (!g_rules || !sameRules(*g_rules, *parsed)) {
    parsed->generation = ++g_rulesGeneration;
    g_rules = parsed;
  }
  return g_rules;
}

unsigned long wnet_pref_rules_generation() {
  // The rules follow from the configuration: asked again only when it changes.
  struct Known {
    uint64_t version = 0;
    unsigned long generation = 0;
  };
  thread_local Known t_known;
  Known& known = t_known;
  const uint64_t now = qxConfigVersion(nullptr);
  if (now != known.version) {
    known.generation = wnet_current_pref_rules()->generation;
    known.version = now;
  }
  return known.generation;
}

std::shared_ptr<const std::vector<WnetIface>> wnet_interfaces() {
  Clock::time_point now = Clock::now();
  {
    std::lock_guard<std::mutex> guard(g_ifaceMutex);
    if (g_ifaces && now < g_ifacesExpire) return g_ifaces;
  }
  auto list = std::make_shared<std::vector<WnetIface>>();
  struct ifaddrs* all = nullptr;
  if (getifaddrs(&all) == 0) {
    for (struct ifaddrs* i = all; i != nullptr; i = i->ifa_next) {
      WnetIface f;
      socklen_t len = i->ifa_addr == nullptr               ? 0
                      : i->ifa_addr->sa_family == AF_INET6 ? sizeof(struct sockaddr_in6)
                                                           : sizeof(struct sockaddr_in);
      if (!wnet_addr_of(i->ifa_addr, len, f.addr)) continue;
      f.prefix = prefixOfMask(i->ifa_netmask);
      if (f.prefix < 0) f.prefix = fullBits(f.addr.family);
      list->push_back(f);
    }
    freeifaddrs(all);
  }
  std::lock_guard<std::mutex> guard(g_ifaceMutex);
  g_ifaces = list;
  g_ifacesExpire = now + kIfaceLifetime;
  return list;
}

WnetPrefDecision wnet_decide(const WnetRuleSet& rules, const WnetAddr& remote,
                             const std::vector<WnetIface>& ifaces) {
  WnetPrefDecision d;
  for (const WnetRule& r : rules.rules) {
    if (!inNetwork(remote, r.target, r.prefix)) continue;
    d.rule = &r;
    switch (r.action) {
      case WnetRule::PROHIBITED:
        d.prohibited = true;
        break;
      case WnetRule::ONLY:
        d.bind = true;
        d.local = r.source;
        break;
      case WnetRule::MATCH:
        for (const WnetIface& f : ifaces) {
          bool fits = r.sourcePrefix < 0 ? inNetwork(remote, f.addr, f.prefix)
                                         : inNetwork(f.addr, r.source, r.sourcePrefix);
          if (fits) {
            d.bind = true;
            d.local = f.addr;
            break;
          }
        }
        break;
    }
    return d;
  }
  return d;
}

int wnet_get_pref_netconnection(const struct sockaddr* remote, socklen_t len,
                                wnet_pref_netconnection* answer) {
  WnetAddr addr;
  if (answer == nullptr || !wnet_addr_of(remote, len, addr)) return WN_STATUS_BAD_PARAM;
  answer->prohibited = 0;
  answer->local = nullptr;
  answer->rule = 0;
  std::shared_ptr<const WnetRuleSet> rules = wnet_current_pref_rules();
  if (rules->rules.empty()) return WN_STATUS_SUCCESS;
  static const std::vector<WnetIface> none;
  std::shared_ptr<const std::vector<WnetIface>> ifaces;
  if (rules->needsInterfaces) ifaces = wnet_interfaces();
  WnetPrefDecision d = wnet_decide(*rules, addr, ifaces ? *ifaces : none);
  answer->prohibited = d.prohibited ? 1 : 0;
  answer->rule = d.rule != nullptr ? d.rule->position : 0;
  if (d.bind) {
    struct addrinfo hints = wnet_get_default_hints(d.local.family);
    Item item;
    if (itemFor(d.local, 0, &hints, item)) answer->local = makeList({item});
    if (answer->local == nullptr) return WN_STATUS_BAD_PARAM;
  }
  return WN_STATUS_SUCCESS;
}
