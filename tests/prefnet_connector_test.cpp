// The preferred-network connector against real sockets on loopback
// (127.0.1.0/24): which address it dials, from where, in how long, and that it
// leaves no descriptor behind.
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "prefnet/qxclnt_prefnet.h"
#include "qx_test_env.h"
#include "qx_wnet.h"

namespace {

int fdCount() {
  int n = 0;
  DIR* d = opendir("/proc/self/fd");
  if (d == nullptr) return -1;
  while (readdir(d) != nullptr) ++n;
  closedir(d);
  return n;
}

std::string peerOf(int fd, bool local = false) {
  sockaddr_storage sa{};
  socklen_t len = sizeof sa;
  int rc = local ? getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len)
                 : getpeername(fd, reinterpret_cast<sockaddr*>(&sa), &len);
  char text[INET6_ADDRSTRLEN] = "";
  if (rc == 0)
    wnet_sockAddrNtoPWithLength(reinterpret_cast<sockaddr*>(&sa), len, text, sizeof text);
  return text;
}

// A listening socket on address:port (port 0: any).
struct Listener {
  int fd = -1;
  int port = 0;
  std::vector<int> fillers;  // connections that fill a black hole's backlog

  Listener(const std::string& address, int wantPort, int backlog = 16) {
    fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(wantPort));
    inet_pton(AF_INET, address.c_str(), &a.sin_addr);
    socklen_t len = sizeof a;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(fd, backlog) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
      close(fd);
      fd = -1;
      return;
    }
    port = ntohs(a.sin_port);
  }
  ~Listener() {
    for (int f : fillers) close(f);
    if (fd >= 0) close(fd);
  }
  // The peer address of a waiting connection (accepted and closed), or "".
  std::string acceptPeer() {
    pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, 0) != 1) return "";
    int c = accept(fd, nullptr, nullptr);
    if (c < 0) return "";
    std::string peer = peerOf(c);
    close(c);
    return peer;
  }
  // Connects to itself until the backlog is full: further SYNs go unanswered.
  bool blackHole(const std::string& address) {
    for (int i = 0; i < 8; ++i) {
      int c = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
      sockaddr_in a{};
      a.sin_family = AF_INET;
      a.sin_port = htons(static_cast<uint16_t>(port));
      inet_pton(AF_INET, address.c_str(), &a.sin_addr);
      connect(c, reinterpret_cast<sockaddr*>(&a), sizeof a);
      fillers.push_back(c);
      pollfd p = {c, POLLOUT, 0};
      if (poll(&p, 1, 200) == 0) return true;
    }
    return false;
  }
};

// Every descriptor below `above` taken, so that the next socket gets a
// number of at least `above`.
struct FdFiller {
  std::vector<int> taken;
  bool ok = false;
  explicit FdFiller(int above) {
    rlimit rl{};
    getrlimit(RLIMIT_NOFILE, &rl);
    if (rl.rlim_max != RLIM_INFINITY && rl.rlim_max < static_cast<rlim_t>(above + 64)) return;
    if (rl.rlim_cur < static_cast<rlim_t>(above + 64)) {
      rl.rlim_cur = above + 64;
      if (setrlimit(RLIMIT_NOFILE, &rl) != 0) return;
    }
    int base = open("/dev/null", O_RDONLY | O_CLOEXEC);
    taken.push_back(base);
    for (int fd = 0; fd < above; ++fd) {
      if (fcntl(fd, F_GETFD) != -1) continue;
      if (dup2(base, fd) == fd) taken.push_back(fd);
    }
    ok = true;
  }
  ~FdFiller() {
    for (int fd : taken) close(fd);
  }
};

class Connector : public qxclnt_curl_prefnet {
 public:
  using qxclnt_curl_prefnet::helper_connect;
  using qxclnt_curl_prefnet::qxclnt_curl_prefnet;
};

// Addresses of one case: 127.0.1.<base + i>.
std::string addr(int base, int i) { return "127.0.1." + std::to_string(base + i); }

class ConnectorTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(m_root.ok()) << m_root.error(); }
  void rules(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& l : lines) text += "PREFERRED_NETWORK = " + l + "\n";
    ASSERT_TRUE(m_root.writeConfig(text));
  }
  QXTestRoot m_root;
};

enum Role { REFUSED, LISTEN, BLACKHOLE };

struct WalkCase {
  const char* name;
  int base;  // first address 127.0.1.<base>
  std::vector<Role> roles;
  std::vector<std::string> rules;  // "%0", "%1"... stand for the addresses
  long budget;
  int status;
  int accepted;        // index of the listener that gets the connection, -1 none
  const char* source;  // the peer address the listener sees, nullptr: not checked
  double minSeconds, maxSeconds;
};

std::string expand(std::string rule, int base) {
  for (int i = 0; i < 4; ++i) {
    std::string key = "%" + std::to_string(i);
    for (size_t at; (at = rule.find(key)) != std::string::npos;) rule.replace(at, 2, addr(base, i));
  }
  return rule;
}

TEST_F(ConnectorTest, BlockingWalkTable) {
  const std::vector<WalkCase> cases = {
      {"refused then accepted",
       10,
       {REFUSED, LISTEN},
       {},
       10,
       WN_STATUS_SUCCESS,
       1,
       nullptr,
       0,
       0.9},
      {"prohibited first skipped",
       13,
       {LISTEN, LISTEN},
       {"%0 PROHIBITED"},
       10,
       WN_STATUS_SUCCESS,
       1,
       nullptr,
       0,
       0.9},
      {"all prohibited",
       16,
       {LISTEN, LISTEN},
       {"%0 PROHIBITED", "%1 PROHIBITED"},
       10,
       WN_STATUS_BAD_PARAM,
       -1,
       nullptr,
       0,
       0.9},
      {"black hole gets half the budget",
       19,
       {BLACKHOLE, LISTEN},
       {},
       2,
       WN_STATUS_SUCCESS,
       1,
       nullptr,
       0.9,
       1.9},
      {"bound to the named source",
       22,
       {LISTEN},
       {"%0 ONLY %1"},
       10,
       WN_STATUS_SUCCESS,
       0,
       "127.0.1.23",
       0,
       0.9},
      {"network rule binds",
       25,
       {LISTEN},
       {"127.0.1.0/24 ONLY %2"},
       10,
       WN_STATUS_SUCCESS,
       0,
       "127.0.1.27",
       0,
       0.9},
      {"source the host lacks, next address",
       28,
       {LISTEN, LISTEN},
       {"%0 ONLY 192.0.2.1"},
       10,
       WN_STATUS_SUCCESS,
       1,
       nullptr,
       0,
       0.9},
      {"source the host lacks everywhere",
       31,
       {LISTEN},
       {"%0 ONLY 192.0.2.1"},
       10,
       WN_STATUS_CONNECT_FAILED,
       -1,
       nullptr,
       0,
       0.9},
      {"last address refused",
       34,
       {REFUSED},
       {},
       10,
       WN_STATUS_CONNECT_FAILED,
       -1,
       nullptr,
       0,
       0.9},
  };
  for (const WalkCase& c : cases) {
    SCOPED_TRACE(c.name);
    // One port for every address of the case, as a name's addresses share it.
    std::vector<std::unique_ptr<Listener>> listeners;
    int port = 0;
    std::vector<std::string> names;
    for (size_t i = 0; i < c.roles.size(); ++i) {
      names.push_back(addr(c.base, static_cast<int>(i)));
      if (c.roles[i] == REFUSED) {
        listeners.emplace_back(nullptr);
        continue;
      }
      listeners.emplace_back(new Listener(names.back(), port, c.roles[i] == BLACKHOLE ? 0 : 16));
      ASSERT_GE(listeners.back()->fd, 0);
      port = listeners.back()->port;
      if (c.roles[i] == BLACKHOLE) {
        ASSERT_TRUE(listeners.back()->blackHole(names.back()));
      }
    }
    if (port == 0) {  // only refusals: any port nothing listens on
      Listener probe(names[0], 0);
      port = probe.port;
    }
    std::vector<std::string> lines;
    for (const std::string& r : c.rules) lines.push_back(expand(r, c.base));
    rules(lines);
    wnet_T_setHostAddresses("walk.test", names);

    int before = fdCount();
    Connector conn("walk.test", static_cast<unsigned>(port), c.budget);
    auto start = std::chrono::steady_clock::now();
    int rc =
        conn.connect(QXCLNT_CMODE_BLOCKING, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(c.status, rc);
    EXPECT_GE(seconds, c.minSeconds);
    EXPECT_LE(seconds, c.maxSeconds);
    int fd = static_cast<int>(conn);
    if (c.accepted >= 0) {
      ASSERT_GE(fd, 0);
      EXPECT_EQ(names[c.accepted], peerOf(fd));
      EXPECT_EQ(qxclnt_curl_prefnet::STATE_CONNECTED, conn.state());
      EXPECT_EQ("walk.test:" + std::to_string(port) + ":" + names[c.accepted],
                static_cast<std::string>(conn));
      close(fd);
    } else {
      EXPECT_EQ(-1, fd);
      EXPECT_EQ("", static_cast<std::string>(conn));
    }
    for (size_t i = 0; i < listeners.size(); ++i) {
      if (!listeners[i] || c.roles[i] == BLACKHOLE) continue;
      std::string peer = listeners[i]->acceptPeer();
      if (static_cast<int>(i) == c.accepted) {
        EXPECT_NE("", peer);
        if (c.source != nullptr) {
          EXPECT_EQ(c.source, peer);
        }
      } else {
        EXPECT_EQ("", peer) << "address " << names[i] << " was dialled";
      }
    }
    conn.reset();
    EXPECT_EQ(before, fdCount()) << "a socket was left open";
  }
  wnet_T_setHostAddresses("walk.test", {});
}

TEST_F(ConnectorTest, NonBlockingStepsInASelectLoop) {
  Listener good(addr(40, 1), 0);
  ASSERT_GE(good.fd, 0);
  wnet_T_setHostAddresses("nb.test", {addr(40, 0), addr(40, 1)});  // the first refuses
  rules({});
  Connector conn("nb.test", static_cast<unsigned>(good.port), 10);
  int action = qxclnt_curl_prefnet::ACTION_NONE;
  int rc = 0;
  int rounds = 0;
  for (; rounds < 20; ++rounds) {
    fd_set r, w, e;
    FD_ZERO(&r);
    FD_ZERO(&w);
    FD_ZERO(&e);
    int maxfd = 0;
    long timeout = 0;
    rc = conn.connect(QXCLNT_CMODE_NONBLOCKING, &action, &r, &w, &e, &maxfd, &timeout);
    if (rc != WN_STATUS_SUCCESS || action == qxclnt_curl_prefnet::ACTION_CONNECTED) break;
    ASSERT_EQ(qxclnt_curl_prefnet::ACTION_WATCH_WRITE, action);
    ASSERT_TRUE(FD_ISSET(maxfd, &w));
    EXPECT_GE(timeout, 1);
    timeval tv = {timeout, 0};
    int n = select(maxfd + 1, &r, &w, &e, &tv);
    if (n == 0) action = qxclnt_curl_prefnet::ACTION_TIMED_OUT;
  }
  ASSERT_EQ(WN_STATUS_SUCCESS, rc);
  ASSERT_EQ(qxclnt_curl_prefnet::ACTION_CONNECTED, action);
  int fd = static_cast<int>(conn);
  EXPECT_EQ(addr(40, 1), peerOf(fd));
  close(fd);
  conn.reset();

  // The caller's select timing out before any attempt ends the connect.
  action = qxclnt_curl_prefnet::ACTION_TIMED_OUT;
  int maxfd = 0;
  long timeout = 0;
  EXPECT_EQ(WN_STATUS_CONNECT_TIMEOUT, conn.connect(QXCLNT_CMODE_NONBLOCKING, &action, nullptr,
                                                    nullptr, nullptr, &maxfd, &timeout));
  wnet_T_setHostAddresses("nb.test", {});
}

TEST_F(ConnectorTest, DescriptorsBeyondFdSetSize) {
  Listener good(addr(43, 0), 0);
  ASSERT_GE(good.fd, 0);
  rules({});
  int before = fdCount();
  {
    FdFiller filler(FD_SETSIZE + 8);
    if (!filler.ok) GTEST_SKIP() << "cannot raise RLIMIT_NOFILE above " << FD_SETSIZE;

    // Blocking: poll() has no limit.
    Connector blocking(addr(43, 0), static_cast<unsigned>(good.port), 10);
    ASSERT_EQ(WN_STATUS_SUCCESS, blocking.connect(QXCLNT_CMODE_BLOCKING, nullptr, nullptr, nullptr,
                                                  nullptr, nullptr, nullptr));
    int fd = static_cast<int>(blocking);
    EXPECT_GE(fd, FD_SETSIZE);
    EXPECT_EQ(addr(43, 0), peerOf(fd));
    close(fd);
    blocking.reset();

    // Non-blocking with the caller's fd_sets: refused, nothing written, nothing left open.
    int during = fdCount();
    Connector stepped(addr(43, 0), static_cast<unsigned>(good.port), 10);
    fd_set w;
    FD_ZERO(&w);
    int action = qxclnt_curl_prefnet::ACTION_NONE, maxfd = 0;
    long timeout = 0;
    QXLogCapture log;
    int rc =
        stepped.connect(QXCLNT_CMODE_NONBLOCKING, &action, nullptr, &w, nullptr, &maxfd, &timeout);
    // A loopback connect may finish at once, before any set is needed.
    if (rc == WN_STATUS_SUCCESS) {
      EXPECT_EQ(qxclnt_curl_prefnet::ACTION_CONNECTED, action);
      close(static_cast<int>(stepped));
    } else {
      EXPECT_EQ(WN_STATUS_FD_SETSIZE, rc);
      EXPECT_TRUE(log.contains("does not fit in a select() set")) << log.dump();
    }
    stepped.reset();
    EXPECT_EQ(during, fdCount());
  }
  EXPECT_EQ(before, fdCount());
}

TEST_F(ConnectorTest, ParametersAndBadInput) {
  rules({});
  EXPECT_THROW(Connector("", 1, 10), int);
  Connector conn("host.test", 1, -5);
  EXPECT_EQ(qxclnt_curl_prefnet::DEFAULT_TIMEOUT, conn.timeout());
  conn.update_connect_param(0L);
  EXPECT_EQ(qxclnt_curl_prefnet::DEFAULT_TIMEOUT, conn.timeout());
  EXPECT_EQ(WN_STATUS_BAD_PARAM, conn.update_connect_param(std::string()));
  EXPECT_EQ(WN_STATUS_BAD_PARAM, conn.connect(static_cast<qxclnt_cmode_t>(3), nullptr, nullptr,
                                              nullptr, nullptr, nullptr, nullptr));

  wnet_T_setHostAddresses("nosuch.test", {"not-an-address"});
  ASSERT_EQ(WN_STATUS_SUCCESS, conn.update_connect_param(std::string("nosuch.test")));
  QXLogCapture log;
  EXPECT_EQ(WN_STATUS_RESOLVE_FAILED, conn.connect(QXCLNT_CMODE_BLOCKING, nullptr, nullptr, nullptr,
                                                   nullptr, nullptr, nullptr));
  EXPECT_TRUE(log.contains("Hostname resolution for [nosuch.test] host failed")) << log.dump();
  wnet_T_setHostAddresses("nosuch.test", {});

  // Refused by helper_connect alone: 42; a copy starts afresh.
  Listener probe(addr(46, 0), 0);
  int port = probe.port;
  close(probe.fd);
  probe.fd = -1;
  Connector direct(addr(46, 0), static_cast<unsigned>(port), 10);
  addrinfo hints = wnet_get_default_hints(AF_INET);
  addrinfo* list = nullptr;
  int gai = 0;
  ASSERT_EQ(WN_STATUS_SUCCESS,
            wnet_cached_getaddrinfo(addr(46, 0).c_str(), std::to_string(port).c_str(), &hints,
                                    &list, &gai));
  int fd = -1;
  bool connected = false;
  int rc = direct.helper_connect(list, nullptr, fd, connected);
  if (rc == WN_STATUS_SUCCESS) {  // refusal reported later, through the socket
    pollfd p = {fd, POLLOUT, 0};
    poll(&p, 1, 1000);
    int err = 0;
    socklen_t len = sizeof err;
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
    EXPECT_EQ(ECONNREFUSED, err);
    close(fd);
  } else {
    EXPECT_EQ(WN_STATUS_CONNECT_REFUSED, rc);
    EXPECT_EQ(-1, fd);
  }
  wnet_freeaddrinfo(list);
  Connector copy(direct);
  EXPECT_EQ(addr(46, 0), copy.host());
  EXPECT_EQ(qxclnt_curl_prefnet::STATE_INITIAL, copy.state());
}

TEST_F(ConnectorTest, IPv6ResolveEntryIsBracketed) {
  int s = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in6 a{};
  a.sin6_family = AF_INET6;
  a.sin6_addr = in6addr_loopback;
  socklen_t len = sizeof a;
  if (s < 0 || bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(s, 4) != 0) {
    if (s >= 0) close(s);
    GTEST_SKIP() << "no IPv6 loopback on this host";
  }
  getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
  int port = ntohs(a.sin6_port);
  rules({});
  for (const char* host : {"::1", "[::1]"}) {
    Connector conn(host, static_cast<unsigned>(port), 10);
    ASSERT_EQ(WN_STATUS_SUCCESS, conn.connect(QXCLNT_CMODE_BLOCKING, nullptr, nullptr, nullptr,
                                              nullptr, nullptr, nullptr));
    EXPECT_EQ("[::1]:" + std::to_string(port) + ":[::1]", static_cast<std::string>(conn));
    close(static_cast<int>(conn));
  }
  close(s);
}

}  // namespace
