// Small helpers several suites share: the client's retry clock made fake,
// counts of what the emulator saw, certificate-login managers, the external
// CA entries of the test root's certificate map, child processes, open
// descriptors and loopback sockets.
#ifndef QXCURL_TESTS_TEST_SUPPORT_H
#define QXCURL_TESTS_TEST_SUPPORT_H
#include <arpa/inet.h>
#include <dirent.h>
#include <jansson.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "platform/qx_wnet.h"
#include "qxcurl/login_with_cert_manager.h"
#include "qxcurl/qxclnt_curl.h"
#include "testing/fixture/qx_test_env.h"

// While one exists, the client's retry clock is fake: its sleeps advance it,
// nothing waits.
class FakeRetryClock {
 public:
  FakeRetryClock() {
    now() = time(nullptr);
    QXClientCURL::T_setTimeSource([](time_t* out) {
      if (out) *out = now();
      return now();
    });
    QXClientCURL::T_setTsleep([](unsigned seconds) {
      now() += seconds;
      return 0u;
    });
  }
  ~FakeRetryClock() {
    QXClientCURL::T_setTimeSource(nullptr);
    QXClientCURL::T_setTsleep(nullptr);
  }
  static time_t& now() {
    static time_t t = 0;
    return t;
  }
};

// Requests the emulator saw for path (and method, when given).
inline size_t requestCount(QXEmulator& emulator, const std::string& path,
                           const std::string& method = "") {
  size_t n = 0;
  for (const auto& r : emulator.requests())
    n += r.path == path && (method.empty() || r.method == method);
  return n;
}

inline size_t loginCount(QXEmulator& emulator) {
  return requestCount(emulator, "arvion/loginwithcert");
}

// A certificate-login manager for server, with its files in the root's tmp/.
inline std::unique_ptr<LoginWithCertManager> certLoginManager(QXTestRoot& root,
                                                              const std::string& server, int port,
                                                              bool skipTrust = true) {
  std::ostringstream token, lock;
  LoginWithCertManager::setJWTFilePaths(server, CERT_TYPE_HOST, token, lock, 0);
  return std::make_unique<LoginWithCertManager>(port, CERT_TYPE_HOST, root.path("tmp"), token.str(),
                                                lock.str(), skipTrust);
}

// Applies edit to every server entry of the root's certificate map.
inline void editCertMap(QXTestRoot& root, const std::function<void(json_t*)>& edit) {
  const std::string path = root.path("var/certmap.json");
  json_error_t err;
  json_t* map = json_load_file(path.c_str(), 0, &err);
  ASSERT_NE(nullptr, map) << err.text;
  const char* key;
  json_t* entry;
  json_object_foreach(json_object_get(map, "servers"), key, entry) edit(entry);
  ASSERT_EQ(0, json_dump_file(map, path.c_str(), JSON_INDENT(1)));
  json_decref(map);
}

inline void setEcaMapMember(QXTestRoot& root, const char* member, const std::string& value) {
  editCertMap(root, [&](json_t* e) {
    json_object_set_new(json_object_get(e, "ECA"), member, json_string(value.c_str()));
  });
}

// Forks n children running body(i), whose result is the child's exit status;
// calls started() once all are forked, waits for them and returns the sum of
// their exit statuses (a child that did not exit counts 100).
inline int runChildren(
    int n, const std::function<int(int)>& body, const std::function<void()>& started = [] {}) {
  std::vector<pid_t> pids;
  for (int i = 0; i < n; ++i) {
    pid_t pid = fork();
    if (pid == 0) _exit(body(i));
    if (pid > 0) pids.push_back(pid);
  }
  started();
  int sum = static_cast<int>(n - pids.size()) * 100;
  for (pid_t pid : pids) {
    int st = 0;
    sum += waitpid(pid, &st, 0) == pid && WIFEXITED(st) ? WEXITSTATUS(st) : 100;
  }
  return sum;
}

inline int openDescriptors() {
  int n = 0;
  DIR* d = opendir("/proc/self/fd");
  while (d != nullptr && readdir(d) != nullptr) ++n;
  if (d != nullptr) closedir(d);
  return n;
}

// The peer address of a connected socket, "" when it has none.
inline std::string peerOf(int fd) {
  sockaddr_storage sa{};
  socklen_t len = sizeof sa;
  char text[INET6_ADDRSTRLEN] = "";
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&sa), &len) == 0)
    wnet_sockAddrNtoPWithLength(reinterpret_cast<sockaddr*>(&sa), len, text, sizeof text);
  return text;
}

// A socket bound to an IPv4 loopback address and port (0: a free one). Not
// listening, a connect to it is refused; STALLED listens with its accept
// queue full, so the kernel drops further SYNs and a connect stalls as one to
// a dead host does. port() is 0 when the socket could not be set up.
class LoopbackPort {
 public:
  enum Mode { REFUSED, LISTENING, STALLED };
  explicit LoopbackPort(Mode mode = REFUSED, const std::string& address = "127.0.0.1", int port = 0)
      : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address.c_str(), &a.sin_addr);
    socklen_t len = sizeof a;
    if (bind(m_fd, reinterpret_cast<sockaddr*>(&a), len) != 0 ||
        (mode != REFUSED && listen(m_fd, mode == STALLED ? 0 : 16) != 0) ||
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&a), &len) != 0)
      return;
    for (int i = 0; mode == STALLED && i < 8; ++i) {
      m_fillers.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
      connect(m_fillers.back(), reinterpret_cast<sockaddr*>(&a), len);
      pollfd p = {m_fillers.back(), POLLOUT, 0};
      if (poll(&p, 1, 200) == 0) break;  // unanswered: the queue is full
    }
    m_port = ntohs(a.sin_port);
  }
  ~LoopbackPort() {
    for (int c : m_fillers) close(c);
    close(m_fd);
  }
  int port() const { return m_port; }
  int fd() const { return m_fd; }
  // The peer address of a waiting connection (accepted and closed), or "".
  std::string acceptPeer() {
    pollfd p = {m_fd, POLLIN, 0};
    int c = poll(&p, 1, 0) == 1 ? accept(m_fd, nullptr, nullptr) : -1;
    std::string peer = c >= 0 ? peerOf(c) : "";
    if (c >= 0) close(c);
    return peer;
  }

 private:
  int m_fd;
  int m_port = 0;
  std::vector<int> m_fillers;
};
#endif  // QXCURL_TESTS_TEST_SUPPORT_H
