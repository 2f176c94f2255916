// Small helpers several suites share: the client's retry clock made fake,
// counts of what the emulator saw, certificate-login managers, the external
// CA entries of the test root's certificate map, and loopback ports.
#ifndef QXCURL_TESTS_TEST_SUPPORT_H
#define QXCURL_TESTS_TEST_SUPPORT_H
#include <arpa/inet.h>
#include <dirent.h>
#include <jansson.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

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

// A socket bound to a free loopback port. Unlistened, a connect to that port
// is refused; listening with a full accept queue, the kernel drops further
// SYNs, so a connect stalls as one to a dead host does.
class LoopbackPort {
 public:
  explicit LoopbackPort(bool stalled = false) : m_fd(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(m_fd, reinterpret_cast<sockaddr*>(&a), len);
    getsockname(m_fd, reinterpret_cast<sockaddr*>(&a), &len);
    m_port = ntohs(a.sin_port);
    for (int i = 0; stalled && i < 2; ++i) {
      if (i == 0) listen(m_fd, 0);
      m_fillers.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
      connect(m_fillers.back(), reinterpret_cast<sockaddr*>(&a), len);
    }
  }
  ~LoopbackPort() {
    for (int c : m_fillers) close(c);
    close(m_fd);
  }
  int port() const { return m_port; }

 private:
  int m_fd;
  int m_port = 0;
  std::vector<int> m_fillers;
};
#endif  // QXCURL_TESTS_TEST_SUPPORT_H
