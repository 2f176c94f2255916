#ifndef QXCURL_PLATFORM_QX_WNET_H
#define QXCURL_PLATFORM_QX_WNET_H
// Network library: name resolution with a short-lived cache, the address
// order, the preferred-network rules of the master configuration, and
// "is this host a server of the product".
#include <netdb.h>
#include <sys/socket.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

typedef int wnet_socket_t;

// Results of the network library and of the preferred-network connector: a
// vocabulary of their own, never mixed with the product's statuses.
enum WnStatus : int {
  WN_STATUS_SUCCESS = 0,
  WN_STATUS_BAD_PARAM = 2,         // bad mode, empty host, no usable address
  WN_STATUS_RESOLVE_FAILED = 3,    // the name could not be resolved
  WN_STATUS_SOCKET_FAILED = 10,    // socket() failed
  WN_STATUS_SYSCALL_FAILED = 14,   // making the socket non-blocking failed
  WN_STATUS_BIND_FAILED = 15,      // bind() to the preferred local address failed
  WN_STATUS_CONNECT_FAILED = 18,   // every address failed, budget used up, bad state
  WN_STATUS_SELECT_FAILED = 25,    // waiting for the connect failed
  WN_STATUS_FD_SETSIZE = 26,       // descriptor too large for the caller's fd_set
  WN_STATUS_CONNECT_REFUSED = 42,  // connect() got ECONNREFUSED
  WN_STATUS_CONNECT_TIMEOUT = 44,  // time-out
};
// "WN_STATUS_CONNECT_FAILED" for 18; "WN_STATUS_UNKNOWN" for other numbers.
const char* wnet_status_name(int status);

// True when `host` names this machine ("localhost", its host name or one of
// its addresses) and the configuration lists this machine as a server of the
// product: its name is the first SERVER entry or IS_SERVER = YES is set.
bool wnet_is_server(const char* host);

// ---- resolution ----

// Hints for a TCP stream of `family` (AF_UNSPEC, AF_INET or AF_INET6).
struct addrinfo wnet_get_default_hints(int family);
// AF_UNSPEC becomes AF_INET on a host that cannot open IPv6 sockets, so that
// resolution never hands out addresses this host cannot dial. Other families
// are returned as given. Probed once per process.
int wnet_adjusted_family(int family);
// getaddrinfo through a small cache shared by all threads (answers live 30
// seconds). *res is a new list the caller frees with wnet_freeaddrinfo.
// WN_STATUS_SUCCESS, WN_STATUS_BAD_PARAM for an empty host or a null
// argument, WN_STATUS_RESOLVE_FAILED with *gaiErr set to getaddrinfo's code.
int wnet_cached_getaddrinfo(const char* host, const char* service, const struct addrinfo* hints,
                            struct addrinfo** res, int* gaiErr);
void wnet_freeaddrinfo(struct addrinfo* list);
// Puts a list in the order connections are tried: getaddrinfo's order (the
// system's address-selection rules, /etc/gai.conf) with repeated addresses
// dropped. Returns the number of addresses left.
int wnet_sortaddrs(struct addrinfo** list);
// Address text (no port) into buf; 0, or -1 for an unknown family, a short
// socket-address length or a buffer too small (buf is then "").
int wnet_sockAddrNtoP(const struct sockaddr* sa, char* buf, size_t len);
int wnet_sockAddrNtoPWithLength(const struct sockaddr* sa, socklen_t salen, char* buf, size_t len);
// Records a new connection (local and remote address) at detail level under
// `who`. Costs nothing when that level is not logged.
void wnet_logconnections(wnet_socket_t fd, const char* who);

// Test seam: names resolved from this table instead of the system's resolver
// (numeric addresses, in order). An empty list removes the name. Clears the
// cache.
void wnet_T_setHostAddresses(const std::string& host, const std::vector<std::string>& addresses);

// ---- preferred-network rules ----
//
// PREFERRED_NETWORK = <target> PROHIBITED
// PREFERRED_NETWORK = <target> ONLY <source address>
// PREFERRED_NETWORK = <target> MATCH [<source network>]
// <target> is an address or a network in CIDR form, IPv4 or IPv6. The first
// rule whose target holds the remote address decides; an address no rule
// names is permitted without binding. See docs/networking.md.

struct WnetAddr {
  int family = 0;                 // AF_INET or AF_INET6; 0 none
  unsigned char bytes[16] = {0};  // IPv4 in the first four
};
// Numeric address text (IPv6 may be bracketed) to WnetAddr. false when not an
// address.
bool wnet_parse_addr(const std::string& text, WnetAddr& out);
// The address of a socket address; IPv4-mapped IPv6 becomes IPv4.
bool wnet_addr_of(const struct sockaddr* sa, socklen_t len, WnetAddr& out);
std::string wnet_addr_text(const WnetAddr& a);

struct WnetRule {
  enum Action { ONLY, PROHIBITED, MATCH };
  Action action = PROHIBITED;
  WnetAddr target;
  int prefix = 0;         // bits of target that count
  WnetAddr source;        // ONLY: bind address; MATCH: network of candidates
  int sourcePrefix = -1;  // MATCH: -1 when no network was given
  int position = 0;       // 1-based among the PREFERRED_NETWORK entries
  std::string text;       // the rule as written
};
struct WnetRuleSet {
  std::vector<WnetRule> rules;
  bool needsInterfaces = false;  // some rule is MATCH
  unsigned long generation = 0;  // changes only when the rules change
};
// Parses PREFERRED_NETWORK values in order. A malformed one is logged with
// its position and text and left out.
std::shared_ptr<const WnetRuleSet> wnet_parse_pref_rules(const std::vector<std::string>& values);
// The rules of the current configuration, parsed once per configuration
// change. A change elsewhere in the file keeps the same rule set (and
// generation).
std::shared_ptr<const WnetRuleSet> wnet_current_pref_rules();
// The generation of those rules, without taking them: checked per request.
unsigned long wnet_pref_rules_generation();

struct WnetIface {
  WnetAddr addr;
  int prefix = 0;  // from the interface's netmask
};
struct WnetPrefDecision {
  bool prohibited = false;
  bool bind = false;
  WnetAddr local;                  // when bind
  const WnetRule* rule = nullptr;  // the deciding rule, null when none names the address
};
// The decision for one remote address. ifaces are consulted by MATCH rules.
WnetPrefDecision wnet_decide(const WnetRuleSet& rules, const WnetAddr& remote,
                             const std::vector<WnetIface>& ifaces);
// This host's interface addresses (cached for a few seconds).
std::shared_ptr<const std::vector<WnetIface>> wnet_interfaces();

// The answer for one remote address under the current configuration.
struct wnet_pref_netconnection {
  int prohibited = 0;
  struct addrinfo* local = nullptr;  // bind here (port 0), or null; wnet_freeaddrinfo
  int rule = 0;                      // position of the deciding rule; 0 when none
};
// WN_STATUS_SUCCESS, or WN_STATUS_BAD_PARAM for a null or non-IP address.
int wnet_get_pref_netconnection(const struct sockaddr* remote, socklen_t len,
                                wnet_pref_netconnection* answer);
#endif  // QXCURL_PLATFORM_QX_WNET_H
