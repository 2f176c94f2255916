// Small helpers several suites share: the client's retry clock made fake and
// certificate-login managers. (Sockets, child processes and emulator counts
// are the fixture's: testing/fixture.)
#ifndef QXCURL_TESTS_TEST_SUPPORT_H
#define QXCURL_TESTS_TEST_SUPPORT_H
#include <memory>
#include <sstream>
#include <string>

#include "qxcurl/login_with_cert_manager.h"
#include "qxcurl/qxclnt_curl.h"
#include "testing/fixture/qx_loopback.h"
#include "testing/fixture/qx_test_env.h"
#include "testing/fixture/qx_test_process.h"

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

// A certificate-login manager for server, with its files in the root's tmp/.
inline std::unique_ptr<LoginWithCertManager> certLoginManager(QXTestRoot& root,
                                                              const std::string& server, int port,
                                                              bool skipTrust = true) {
  std::ostringstream token, lock;
  LoginWithCertManager::setJWTFilePaths(server, CERT_TYPE_HOST, token, lock, 0);
  return std::make_unique<LoginWithCertManager>(port, CERT_TYPE_HOST, root.path("tmp"), token.str(),
                                                lock.str(), skipTrust);
}
#endif  // QXCURL_TESTS_TEST_SUPPORT_H
