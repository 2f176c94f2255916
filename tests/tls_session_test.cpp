// TLS sessions resumed across client objects, and never past a revocation
// answer that may have changed.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <functional>

#include "qxcurl/qxclnt_curl.h"
#include "testing/fixture/qx_test_env.h"

namespace {

class TlsSessionTest : public QXEmulatorTest {
 protected:
  QXEmulatorOptions emulatorOptions() const override {
    QXEmulatorOptions o;
    o.extraArgs = {"--session-tickets"};
    return o;
  }

  void SetUp() override {
    QXEmulatorTest::SetUp();
    // Only the CRL directory holds CRLs: the test decides what they say.
    std::string map = qxReadFile(root().path("var/certmap.json"));
    const std::string from = "\"crl\": \"var/pki/eca/crl.pem\"";
    for (size_t at; (at = map.find(from)) != std::string::npos;)
      map.replace(at, from.size(), "\"crl\": \"\"");
    ASSERT_TRUE(qxWriteFile(root().path("var/certmap.json"), map));
    ASSERT_EQ(0, mkdir(root().path("var/crl").c_str(), 0755));
    ASSERT_TRUE(root().writeConfig("CRL_CHECK_LEVEL = 1\n"));
  }

  // A GET from a new client object; whether the server saw a resumed session.
  int get(const std::string& caType, bool* resumed = nullptr) {
    QXClientCURL c("localhost", emulator().port(), CERT_TYPE_HOST, QXCURL_INSECURE, nullptr, "",
                   false, false, false, caType);
    c.setSkipCRLDownload();
    c.setConnectRetryTimeout(0);
    int rc = c.Get("arvion/ping");
    if (resumed != nullptr) {
      std::vector<QXRecordedRequest> seen = emulator().requests();
      *resumed = rc == 0 && !seen.empty() && seen.back().resumed;
    }
    return rc;
  }

  // The intermediate's CRL, revoking the server's leaf or nothing, issued now
  // by the openssl command from a CA database of the test's own.
  std::string crl(bool revokeServer) {
    const std::string ca = " -config cnf -cert " + root().pki("eca/intermediate.pem") +
                           " -keyfile " + root().pki("eca/intermediate.key");
    std::string cmd =
        "cd " + root().dir() +
        " && printf '[ca]\\ndefault_ca=c\\n[c]\\ndatabase=index\\ndefault_md=sha256\\n'"
        " > cnf && : > index";
    if (revokeServer) cmd += " && openssl ca" + ca + " -revoke " + root().pki("eca/server.pem");
    cmd += " && openssl ca" + ca + " -gencrl -crlhours 1 -out crl.out";
    EXPECT_EQ(0, system(("(" + cmd + ") >/dev/null 2>&1").c_str()));
    return qxReadFile(root().path("crl.out"));
  }

  std::string crlFile() { return root().path("var/crl/intermediate.pem"); }

  // Sessions made in the second a CRL changed are not trusted: the test's
  // sessions come after it.
  static void nextSecond() {
    time_t now = std::time(nullptr);
    while (std::time(nullptr) == now) usleep(20000);
  }
};

TEST_F(TlsSessionTest, SecondClientObjectResumes) {
  ASSERT_TRUE(qxWriteFile(crlFile(), crl(false)));
  nextSecond();
  struct Case {
    const char* name;
    const char* caType;
    bool resumed;
  } cases[] = {
      {"own CA, first object", "QXCA", false},
      {"own CA, second object", "QXCA", true},
      // Another CA kind is another share (and another server certificate).
      {"external CA, first object", "ECA", false},
      {"own CA again", "QXCA", true},
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    bool resumed = false;
    EXPECT_EQ(0, get(tc.caType, &resumed));
    EXPECT_EQ(tc.resumed, resumed);
  }
}

// A verdict taken from a revocation cache, as the asynchronous client's.
class NotRevoked : public QXRevocationCache {
 public:
  int lookup(const std::string& /*chainPem*/, bool& isRevoked) override {
    isRevoked = false;
    return 0;
  }
};

TEST_F(TlsSessionTest, SessionWithoutACheckThatRanIsNeverKept) {
  ASSERT_TRUE(qxWriteFile(crlFile(), crl(false)));
  nextSecond();
  // Accepted on a cached verdict (the cache set after construction, as the
  // asynchronous client does): no CRL check ran, so the session must not be
  // kept for others to resume.
  NotRevoked cache;
  QXClientCURL c("localhost", emulator().port(), CERT_TYPE_HOST, QXCURL_INSECURE, nullptr, "",
                 false, false, false, "ECA");
  c.setSkipCRLDownload();
  c.m_revocationCache = &cache;
  ASSERT_EQ(0, c.Get("arvion/ping"));
  bool resumed = true;
  EXPECT_EQ(0, get("ECA", &resumed));
  EXPECT_FALSE(resumed);
}

TEST_F(TlsSessionTest, ResumedOnlyWhileTheRevocationAnswerHolds) {
  struct Case {
    const char* name;
    std::function<void()> change;  // after a session was cached
    int want;
    bool resumed;
  } cases[] = {
      {"nothing changed", [] {}, 0, true},
      {"server certificate revoked", [&] { ASSERT_TRUE(qxWriteFile(crlFile(), crl(true))); },
       QX_ERR_CERT_REVOKED, false},
      {"CRL removed (hard fail)", [&] { ASSERT_EQ(0, unlink(crlFile().c_str())); },
       QX_ERR_CRL_UNAVAILABLE, false},
      {"CRL reissued, nothing revoked", [&] { ASSERT_TRUE(qxWriteFile(crlFile(), crl(false))); }, 0,
       false},
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    ASSERT_TRUE(qxWriteFile(crlFile(), crl(false)));
    nextSecond();
    ASSERT_EQ(0, get("ECA"));  // a full handshake, checked: its session is cached
    bool resumed = false;
    ASSERT_EQ(0, get("ECA", &resumed));
    ASSERT_TRUE(resumed);
    tc.change();
    EXPECT_EQ(tc.want, get("ECA", &resumed));
    EXPECT_EQ(tc.resumed, resumed);
  }
}

}  // namespace
