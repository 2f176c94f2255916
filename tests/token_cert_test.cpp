// Certificate-login tokens: the cache file, its time rules, the login against
// the emulated master and the certificate tool.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <functional>

#include "qxcurl/login_with_cert_manager.h"
#include "qxcurl/qxclnt_curl.h"
#include "testing/fixture/qx_test_env.h"
#include "tests/test_support.h"

namespace {

constexpr time_t kNow = 1700000000;
time_t fixedClock() { return kNow; }
time_t g_skew = 0;
time_t skewedClock() { return time(nullptr) + g_skew; }

TEST(TokenCertNames, FileNamesPerServerTypeAndUser) {
  std::ostringstream t1, l1, t2, l2;
  LoginWithCertManager::setJWTFilePaths("m.example", CERT_TYPE_GLOBAL, t1, l1, 0);
  LoginWithCertManager::setJWTFilePaths("m.example", CERT_TYPE_HOST, t2, l2, 1);
  EXPECT_EQ("m.example.2.webtoken.dat", t1.str());
  EXPECT_EQ("m.example.2.websession.lck", l1.str());
  EXPECT_EQ("m.example.1.qxsvc-webtoken.dat", t2.str());
  EXPECT_EQ("m.example.1.qxsvc-websession.lck", l2.str());
}

// The time rules, with a certificate map that tells the CA mode of each server.
class TokenCertRulesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_root.ok()) << m_root.error();
    ASSERT_TRUE(qxWriteFile(m_root.path("var/hostcert.pem"), "cert"));
    ASSERT_TRUE(qxWriteFile(m_root.path("var/certmap.json"),
                            R"({"servers": {
             "own.test": {"caMode": 0, "trustVersion": "1",
                          "QXCA": {"certificate": "var/hostcert.pem"}},
             "ext.test": {"caMode": 1, "trustVersion": "1",
                          "ECA": {"certificate": "var/hostcert.pem"}}}})"));
    LoginWithCertManager::T_setClock(fixedClock);
  }
  void TearDown() override { LoginWithCertManager::T_setClock(nullptr); }
  void setCertModTime(time_t t) {
    struct timeval tv[2] = {{t, 0}, {t, 0}};
    ASSERT_EQ(0, utimes(m_root.path("var/hostcert.pem").c_str(), tv));
  }
  QXTestRoot m_root;
};

TEST_F(TokenCertRulesTest, RefreshDecisions) {
  struct Case {
    const char* name;
    const char* server;
    int64_t expiresIn;
    int64_t failedAgo;  // 0: no failure recorded
    time_t certModifiedAgo;
    int decision;
  } cases[] = {
      {"expiry 301 s ahead", "own.test", 301, 0, 9999, QX_JWT_CACHED_GOOD},
      {"expiry 300 s ahead", "own.test", 300, 0, 9999, QX_JWT_REFRESH_NOW},
      {"expired", "own.test", -5, 0, 9999, QX_JWT_REFRESH_NOW},
      {"nothing known", "own.test", -kNow, 0, 9999, QX_JWT_REFRESH_NOW},
      {"failed 300 s ago", "own.test", 3600, 300, 9999, QX_JWT_REFRESH_AVOID},
      {"failed 301 s ago", "own.test", 3600, 301, 9999, QX_JWT_CACHED_GOOD},
      {"failed 301 s ago, due", "own.test", 100, 301, 9999, QX_JWT_REFRESH_NOW},
      {"failure in the future", "own.test", 3600, -60, 9999, QX_JWT_CACHED_GOOD},
      {"cert replaced after failure", "own.test", -kNow, 100, 50, QX_JWT_REFRESH_NOW},
      {"cert replaced before failure", "own.test", -kNow, 100, 150, QX_JWT_REFRESH_AVOID},
      {"external CA ignores cert time", "ext.test", -kNow, 100, 50, QX_JWT_REFRESH_AVOID},
      {"CA mode unknown", "nomap.test", -kNow, 100, 50, QX_JWT_REFRESH_AVOID},
  };
  auto mgr = certLoginManager(m_root, "own.test", 443);
  for (const auto& c : cases) {
    setCertModTime(kNow - c.certModifiedAgo);
    jwtToken t{"tok", kNow - 60, kNow + c.expiresIn, c.failedAgo ? kNow - c.failedAgo : 0};
    EXPECT_EQ(c.decision, mgr->isJWTRefreshRequired(t, c.server)) << c.name;
  }
  // Times from a damaged file at the ends of the range.
  EXPECT_EQ(QX_JWT_REFRESH_NOW,
            mgr->isJWTRefreshRequired(jwtToken{"t", 0, INT64_MIN, INT64_MIN}, "own.test"));
  EXPECT_EQ(QX_JWT_CACHED_GOOD,
            mgr->isJWTRefreshRequired(jwtToken{"t", 0, INT64_MAX, INT64_MAX}, "own.test"));
}

TEST_F(TokenCertRulesTest, CacheFileReaderSurvivesDamage) {
  struct Case {
    const char* name;
    std::string content;
    mode_t mode;
    int status;
    int64_t expiry;
  } cases[] = {
      {"valid", "tok\n1\n2\n3\n", 0600, 0, 2},
      {"no final newline", "tok\n1\n2\n3", 0600, 0, 2},
      {"empty file", "", 0600, 0, 0},
      {"empty times", "tok\n\n\n\n", 0600, 0, 0},
      {"non-numeric expiry", "tok\n1\nsoon\n0\n", 0600, QX_ERR_FILE_OPEN, 0},
      {"overflow", "tok\n1\n99999999999999999999\n0\n", 0600, QX_ERR_FILE_OPEN, 0},
      {"writable by others", "tok\n1\n2\n3\n", 0606, QX_ERR_FILE_OPEN, 0},
  };
  auto mgr = certLoginManager(m_root, "own.test", 443);
  const std::string path = mgr->getTokenFilePath();
  for (const auto& c : cases) {
    ASSERT_TRUE(qxWriteFile(path, c.content));
    ASSERT_EQ(0, chmod(path.c_str(), c.mode));
    jwtToken t{"old", 9, 9, 9};
    EXPECT_EQ(c.status, mgr->getLocalToken(t)) << c.name;
    EXPECT_EQ(c.expiry, t.tokenExpTimeSec) << c.name;
    if (c.status != 0) {
      EXPECT_EQ("", t.token) << c.name;
    }
  }
  unlink(path.c_str());
  jwtToken t;
  EXPECT_EQ(QX_ERR_FILE_NOT_FOUND, mgr->getLocalToken(t));
  ASSERT_EQ(0, mkdir(path.c_str(), 0700));
  EXPECT_EQ(QX_ERR_FILE_OPEN, mgr->getLocalToken(t));
}

TEST_F(TokenCertRulesTest, SaveWritesPrivateFourLineFile) {
  auto mgr = certLoginManager(m_root, "own.test", 443);
  EXPECT_EQ(QX_ERR_BAD_ARGUMENT, mgr->saveNewToken(jwtToken{"", 1, 2, 3}));
  EXPECT_EQ(QX_ERR_BAD_ARGUMENT, mgr->saveNewToken(jwtToken{"a\nb", 1, 2, 3}));
  // A world-writable leftover is replaced, not written through.
  ASSERT_TRUE(qxWriteFile(mgr->getTokenFilePath(), "x\n"));
  ASSERT_EQ(0, chmod(mgr->getTokenFilePath().c_str(), 0666));
  ASSERT_EQ(0, mgr->saveNewToken(jwtToken{"tok", 10, 20, 0}));
  EXPECT_EQ("tok\n10\n20\n0\n", qxReadFile(mgr->getTokenFilePath()));
  struct stat st;
  ASSERT_EQ(0, stat(mgr->getTokenFilePath().c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);
  ASSERT_EQ(0, mgr->clearToken());
  EXPECT_EQ("xxxx\n0\n0\n0\n", qxReadFile(mgr->getTokenFilePath()));

  LoginWithCertManager nowhere(443, CERT_TYPE_HOST, m_root.path("missing"), "t.dat", "t.lck", true);
  EXPECT_NE(0, nowhere.saveNewToken(jwtToken{"tok", 1, 2, 0}));
}

TEST(TokenCertRetry, OnlyExpiredTokenAnswersAskForRetry) {
  LoginWithCertManager mgr(443, CERT_TYPE_HOST, "/nonexistent", "t", "l", true);
  struct Case {
    int http;
    const char* body;
    bool retry;
  } cases[] = {
      {401, R"({"errorCode": 117, "errorMessage": "any"})", true},
      {401, R"({"errorCode": 118, "errorMessage": "any"})", false},
      {403, R"({"errorCode": 117, "errorMessage": "any"})", false},
      {401, R"({"errorCode": 117})", false},
      {401, "not json", false},
  };
  for (const auto& c : cases) EXPECT_EQ(c.retry, mgr.isRetryRequired(c.http, c.body)) << c.body;
}

// ---- against the emulated master ----

std::vector<std::string> g_hookCalls;
int recordHook(std::string json) {
  g_hookCalls.push_back(json);
  return 0;
}

class TokenCertLoginTest : public QXEmulatorTest {
 protected:
  void SetUp() override {
    QXEmulatorTest::SetUp();
    g_hookCalls.clear();
  }
  void TearDown() override {
    set_perform_cert_operations_cb(nullptr);
    LoginWithCertManager::T_setClock(nullptr);
    QXEmulatorTest::TearDown();
  }
  size_t count(const std::string& path) { return emulator().requestCount(path); }
  std::unique_ptr<LoginWithCertManager> manager(bool skipTrust = true) {
    return certLoginManager(root(), "localhost", emulator().port(), skipTrust);
  }
  // Puts the stand-in certificate tool where the library looks for it.
  void installCertTool() {
    std::string src = std::string(QXCURL_SOURCE_DIR) + "/testing/certcmd/qxcertcmd";
    ASSERT_EQ(0, mkdir(root().path("arvion/bin").c_str(), 0755));
    ASSERT_TRUE(qxWriteFile(root().path("arvion/bin/qxcertcmd"), qxReadFile(src)));
    ASSERT_EQ(0, chmod(root().path("arvion/bin/qxcertcmd").c_str(), 0755));
  }
};

// A cached token reused until it falls due, and one login per refresh, are
// the fault matrix's clock rows and the concurrency suite's; the log masks
// every token (platform_log_test).

TEST_F(TokenCertLoginTest, RefusedLoginBacksOffForEveryone) {
  ASSERT_EQ(0, emulator().addFault("arvion/loginwithcert", "status", 1,
                                   R"({"status": 401, "body": {"errorCode": 8002,
                                       "errorMessage": "refused"}})"));
  auto mgr = manager();
  std::string token;
  EXPECT_EQ(QX_ERR_TOKEN, mgr->getToken("localhost", token, false, nullptr));
  jwtToken cached;
  ASSERT_EQ(0, mgr->getLocalToken(cached));
  EXPECT_EQ("xxxx", cached.token);
  EXPECT_NE(0, cached.tokenLastFailTimeSec);

  // Ten seconds later (a failure of this very second does not hold back yet)
  g_skew = 10;
  LoginWithCertManager::T_setClock(skewedClock);
  // another manager (as another process would) holds back without traffic...
  auto other = manager();
  EXPECT_EQ(QX_ERR_TOKEN, other->getToken("localhost", token, false, nullptr));
  EXPECT_EQ(1u, count("arvion/loginwithcert"));
  // ...unless asked for a new token outright.
  EXPECT_EQ(0, other->getToken("localhost", token, true, nullptr));
  EXPECT_EQ(2u, count("arvion/loginwithcert"));
  ASSERT_EQ(0, mgr->getLocalToken(cached));
  EXPECT_EQ(token, cached.token);
  EXPECT_EQ(0, cached.tokenLastFailTimeSec);
  EXPECT_EQ(3600, cached.tokenExpTimeSec - cached.tokenIssueTimeSec);  // the validity answered
}

// After a login the trust work runs once per manager: the operations the
// answer asks for go to the caller's hook, or else to the certificate tool
// (missing: tolerated; failing: the login fails).
TEST_F(TokenCertLoginTest, TrustProcessingRunsOncePerManager) {
  struct Case {
    const char* config;
    const char* json;
  } cases[] = {
      {R"({"trustVersion": "1", "renewRequired": 0})",
       R"({"server": "localhost", "operations": ["IsSyncTrustStoreRequired"]})"},
      {R"({"trustVersion": "7", "renewRequired": 1})",
       R"({"server": "localhost", "operations": ["SetupTrust", "GetCRL", "RenewRequired"]})"},
  };
  std::string token;
  set_perform_cert_operations_cb(recordHook);
  for (const auto& c : cases) {
    g_hookCalls.clear();
    ASSERT_EQ(0, emulator().setConfig(c.config));
    auto mgr = manager(false);
    ASSERT_EQ(0, mgr->getToken("localhost", token, true, nullptr));
    ASSERT_EQ(0, mgr->getToken("localhost", token, true, nullptr));
    ASSERT_EQ(1u, g_hookCalls.size()) << c.config;
    EXPECT_EQ(c.json, g_hookCalls[0]);
  }
  g_hookCalls.clear();
  ASSERT_EQ(0, manager(true)->getToken("localhost", token, true, nullptr));
  EXPECT_TRUE(g_hookCalls.empty());

  set_perform_cert_operations_cb(nullptr);
  ASSERT_EQ(0, manager(false)->getToken("localhost", token, true, nullptr));
  installCertTool();
  ASSERT_EQ(0, manager(false)->getToken("localhost", token, true, nullptr));
  const std::string log = qxReadFile(root().path("tmp/qxcertcmd.log"));
  EXPECT_NE(std::string::npos,
            log.find(R"("args": ["-performOperations", "-jsonIn", "{\"server\": \"localhost\")"))
      << log;
  setenv("QXCERTCMD_EXIT", "3", 1);
  int rc = manager(false)->getToken("localhost", token, true, nullptr);
  unsetenv("QXCERTCMD_EXIT");
  EXPECT_NE(0, rc);
  EXPECT_NE(QX_ERR_EXEC, rc);
}

// Another account that can write the token directory plants files, links
// and temporaries: none is believed, written through or followed.
TEST_F(TokenCertLoginTest, PlantedFilesInTheTokenDirectoryAreNeverTrusted) {
  auto mgr = manager();
  const std::string tokenPath = mgr->getTokenFilePath(), lockPath = mgr->getLockFilePath();
  const std::string victim = root().path("victim"), planted = "eyJplanted.eyJplanted.sig";
  const std::string oldTemp = tokenPath + "." + std::to_string(getpid()) + ".tmp";
  const std::string record = planted + "\n1\n" + std::to_string(time(nullptr) + 3600) + "\n0\n";
  auto ownedByOther = [](const std::string& path, const std::string& text) {
    return qxWriteFile(path, text) && chown(path.c_str(), 65534, 65534) == 0;
  };
  const struct {
    const char* name;
    bool needsRoot;
    std::function<bool()> plant;
  } cases[] = {
      {"token owned by another account", true, [&] { return ownedByOther(tokenPath, record); }},
      {"back-off record owned by another account", true,
       [&] {
         return ownedByOther(tokenPath, "xxxx\n0\n0\n" + std::to_string(time(nullptr)) + "\n");
       }},
      {"token writable by others", false,
       [&] { return qxWriteFile(tokenPath, record) && chmod(tokenPath.c_str(), 0666) == 0; }},
      {"link at the token path", false,
       [&] { return symlink(victim.c_str(), tokenPath.c_str()) == 0; }},
      {"FIFO at the token path", false, [&] { return mkfifo(tokenPath.c_str(), 0600) == 0; }},
      {"link at the lock path", false,
       [&] { return symlink(victim.c_str(), lockPath.c_str()) == 0; }},
      {"lock file owned by another account", true, [&] { return ownedByOther(lockPath, ""); }},
      {"predictable temporary pre-created", true,
       [&] { return ownedByOther(oldTemp, "") && chmod(oldTemp.c_str(), 0666) == 0; }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.needsRoot && geteuid() != 0) continue;
    for (const std::string& p : {tokenPath, lockPath, oldTemp}) unlink(p.c_str());
    ASSERT_TRUE(qxWriteFile(victim, "precious\n"));
    ASSERT_TRUE(c.plant());
    std::string token;
    ASSERT_EQ(0, manager()->getToken("localhost", token, false, nullptr));
    EXPECT_NE(planted, token);
    EXPECT_EQ("precious\n", qxReadFile(victim));
    struct stat st;
    ASSERT_EQ(0, lstat(tokenPath.c_str(), &st));
    EXPECT_TRUE(S_ISREG(st.st_mode) && st.st_uid == geteuid() && (st.st_mode & 0777) == 0600);
    EXPECT_EQ(token + "\n", qxReadFile(tokenPath).substr(0, token.size() + 1));
  }
  EXPECT_EQ("", qxReadFile(oldTemp));  // never written through
}

}  // namespace
