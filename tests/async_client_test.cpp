// The asynchronous client driven by real select() and poll() loops against
// the emulated master: its phases, retries inside the window (on a fake
// clock), connect and tunnel fail-over, many clients in one loop, descriptors
// that do not fit an fd_set, and callers that misuse it.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "platform/qx_wnet.h"
#include "qxcurl/qx_status.h"
#include "qxcurl/qxclnt_curlasync.h"
#include "testing/fixture/qx_test_env.h"
#include "tests/test_support.h"

namespace {

time_t g_fakeNow = 0;
time_t fakeTime(time_t* out) {
  if (out) *out = g_fakeNow;
  return g_fakeNow;
}

bool finished(int st) { return st == ASYNC_COMPLETED || st == ASYNC_FAILED; }

// Drives a client to its end in a select() or poll() loop. A retry wait
// passes on the fake clock. Returns its statuses in order. started: the
// caller already called performAsyncRequest.
std::vector<int> driveOne(QXClientAsyncCURL& c, bool usePoll = false, bool started = false) {
  std::vector<int> seen;
  if (started) seen.push_back(ASYNC_IN_PROGRESS);
  for (int round = 0; round < 20000 && (seen.empty() || !finished(seen.back())); ++round) {
    fd_set rd, wr, ex;
    FD_ZERO(&rd);
    FD_ZERO(&wr);
    FD_ZERO(&ex);
    int maxfd = -1, ms = -1;
    std::vector<struct pollfd> fds;
    int st;
    if (usePoll) {
      st = seen.empty() ? c.performAsyncRequestPoll(fds, ms)
                        : c.isAsyncOperationCompletedPoll(fds, ms);
    } else {
      st = seen.empty() ? c.performAsyncRequest(rd, wr, ex, maxfd)
                        : c.isAsyncOperationCompleted(rd, wr, ex, maxfd);
      ms = static_cast<int>(c.getAsyncWaitTimeoutMs());
    }
    seen.push_back(st);
    if (finished(st)) break;
    if (st == ASYNC_RETRY_WAIT) g_fakeNow += c.getRetrySleepTime();
    long waitMs = st == ASYNC_RETRY_WAIT || st == ASYNC_IN_PROGRESS ? 0
                  : ms >= 0                                         ? std::min(ms, 500)
                                                                    : 500;
    if (usePoll) {
      poll(fds.data(), fds.size(), static_cast<int>(waitMs));
    } else {
      struct timeval tv = {waitMs / 1000, (waitMs % 1000) * 1000};
      select(maxfd + 1, &rd, &wr, &ex, &tv);
    }
  }
  return seen;
}

class AsyncClientTest : public QXEmulatorTest {
 protected:
  QXEmulatorOptions emulatorOptions() const override {
    QXEmulatorOptions o;
    // Only the tunnel test binds the tunnel port (cases run side by side).
    if (std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) ==
        "TunnelDownTakesTheNext")
      o.tunnels = {"127.0.5.31"};
    return o;
  }
  void SetUp() override {
    QXEmulatorTest::SetUp();
    g_fakeNow = time(nullptr);
    QXClientCURL::T_setTimeSource(&fakeTime);
  }
  void TearDown() override {
    QXClientCURL::T_setTimeSource(nullptr);
    QXEmulatorTest::TearDown();
  }

  std::unique_ptr<QXClientAsyncCURL> client(const std::string& path = "arvion/ping",
                                            QXCurlSessionType session = QXCURL_INSECURE) {
    std::unique_ptr<QXClientAsyncCURL> c(new QXClientAsyncCURL(
        "localhost", emulator().port(), path, "", REQTYPE_GET, CERT_TYPE_HOST, session));
    EXPECT_EQ(0, c->setCustomCAPath(root().pki("qxca/ca.pem"), "QXCA"));
    return c;
  }
  QXLogCapture m_log;
};

TEST_F(AsyncClientTest, PlainRequestsAndKeptConnection) {
  struct Case {
    REQTYPE type;
    const char* payload;
    const char* method;
  } cases[] = {{REQTYPE_POST, "{\"a\":\"x\ny\"}", "POST"},
               {REQTYPE_PUT, "{\"b\":1}", "PUT"},
               {REQTYPE_DELETE, "", "DELETE"}};
  auto c = client("arvion/ping");
  ASSERT_EQ(ASYNC_COMPLETED, driveOne(*c).back()) << m_log.dump();
  EXPECT_EQ(0, c->getQxuErrorCode());
  EXPECT_EQ(200, c->getHttpResponseStatusCode());
  EXPECT_EQ("pong\n", c->getResponseData());
  // The same client again, each verb: one connection for all of them.
  for (const Case& k : cases) {
    SCOPED_TRACE(k.method);
    ASSERT_EQ(0, c->setAsyncRequest(k.type, "arvion/upload", k.payload));
    EXPECT_EQ(ASYNC_COMPLETED, driveOne(*c, k.type == REQTYPE_PUT).back()) << m_log.dump();
    EXPECT_EQ(401, c->getHttpResponseStatusCode());  // no token: the echo refuses
    EXPECT_EQ(0, c->getQxuErrorCode());
  }
  std::vector<QXRecordedRequest> seen = emulator().requests();
  ASSERT_EQ(4u, seen.size());
  for (size_t i = 1; i < seen.size(); ++i) {
    EXPECT_EQ(cases[i - 1].method, seen[i].method);
    EXPECT_EQ(seen[0].connection, seen[i].connection);
  }
  EXPECT_EQ("{\"a\":\"x\\ny\"}", seen[1].body);  // POST escapes line ends
  EXPECT_EQ(1u, m_log.count("Non blocking connection completed successfully."));
}

TEST_F(AsyncClientTest, CertificateLoginOnceThenCachedThenRefreshedOnExpiry) {
  for (int i = 0; i < 2; ++i) {
    auto c = client("arvion/config/hosts", QXCURL_USE_TOKEN);
    ASSERT_EQ(ASYNC_COMPLETED, driveOne(*c).back()) << m_log.dump();
    EXPECT_EQ(200, c->getHttpResponseStatusCode());
    EXPECT_NE(std::string::npos, c->getResponseData().find("\"tokenKind\": \"machine\""))
        << c->getResponseData();
  }
  EXPECT_EQ(1u, emulator().requestCount("arvion/loginwithcert"));
  EXPECT_EQ(1u, m_log.count("acquire fresh JWT token"));

  // An expired token: 401 with 117, one login, one retry.
  ASSERT_EQ(0, emulator().expireTokens());
  m_log.clear();
  auto c = client("arvion/config/hosts", QXCURL_USE_TOKEN);
  ASSERT_EQ(ASYNC_COMPLETED, driveOne(*c).back()) << m_log.dump();
  EXPECT_EQ(200, c->getHttpResponseStatusCode());
  EXPECT_EQ(2u, emulator().requestCount("arvion/loginwithcert"));
  EXPECT_EQ(1u, m_log.count("Retrying once more due to access denied"));

  // A refused login fails with 5930 and holds every process back.
  ASSERT_EQ(0, emulator().expireTokens());
  ASSERT_EQ(0, emulator().addFault("arvion/loginwithcert", "status", 1,
                                   R"({"status": 401, "body": {"errorCode": 8002}})"));
  auto refused = client("arvion/config/hosts", QXCURL_USE_TOKEN);
  EXPECT_EQ(ASYNC_FAILED, driveOne(*refused).back());
  EXPECT_EQ(QX_ERR_TOKEN, refused->getQxuErrorCode());
  EXPECT_EQ(401, refused->getHttpResponseStatusCode());
  for (const auto& line : m_log.lines()) {
    EXPECT_EQ(std::string::npos, line.text.find("eyJ")) << line.tag << ": " << line.text;
  }
}

TEST_F(AsyncClientTest, A503IsRetriedInsideTheWindow) {
  ASSERT_EQ(0, emulator().addFault("arvion/ping", "503", 1));
  auto c = client();
  std::vector<int> st = driveOne(*c);
  EXPECT_EQ(1, std::count(st.begin(), st.end(), ASYNC_RETRY_WAIT));
  EXPECT_EQ(ASYNC_COMPLETED, st.back());
  EXPECT_EQ(2u, emulator().requestCount("arvion/ping"));
}

TEST_F(AsyncClientTest, VersionFetchAfter406ThenTheLowerVersion) {
  ASSERT_EQ(0, emulator().setConfig("{\"apiVersion\": \"5.0\"}"));
  auto c = client("arvion/security/cacert");
  std::vector<int> st = driveOne(*c);
  ASSERT_EQ(ASYNC_COMPLETED, st.back()) << m_log.dump();
  EXPECT_EQ(200, c->getHttpResponseStatusCode());
  std::vector<QXRecordedRequest> seen = emulator().requests();
  ASSERT_EQ(3u, seen.size());
  EXPECT_EQ("arvion/ping", seen[1].path);
  EXPECT_NE(std::string::npos, seen[2].header("Accept").find("version=5.0"));
  EXPECT_TRUE(m_log.contains("Minimum of the two version is 5.0"));
}

TEST_F(AsyncClientTest, TunnelDownTakesTheNext) {
  ASSERT_TRUE(
      root().writeConfig("WEB_SERVER_TUNNEL_USE = 1\nSERVER = localhost\n"
                         "MEDIA_SERVER = 127.0.5.30\nMEDIA_SERVER = 127.0.5.31\n"));
  auto c = client();
  ASSERT_EQ(ASYNC_COMPLETED, driveOne(*c).back()) << m_log.dump();
  EXPECT_EQ("127.0.5.31", c->getTunnelUsed());
  EXPECT_TRUE(m_log.contains("Trying with another tunnel:[127.0.5.31]"));
  EXPECT_EQ("\r\nlocalhost = 127.0.5.31", qxReadFile(root().path("arvion/websvctunnels.cache")));
  std::vector<QXRecordedRequest> seen = emulator().requests();
  ASSERT_FALSE(seen.empty());
  EXPECT_TRUE(seen.back().tunnel);
}

// Many connections to one master present one chain: the CRL check runs once.
TEST_F(AsyncClientTest, RevocationVerdictsSharedAcrossClients) {
  QXAsyncRevocationCache::clear();
  struct Case {
    const char* certMode;
    int status;
  } cases[] = {{"normal", 0}, {"revoked", QX_ERR_CERT_REVOKED}};
  for (const Case& k : cases) {
    SCOPED_TRACE(k.certMode);
    ASSERT_EQ(0, emulator().setConfig(std::string("{\"certMode\": \"") + k.certMode + "\"}"));
    m_log.clear();
    std::vector<std::unique_ptr<QXClientAsyncCURL>> owned;
    for (int i = 0; i < 2; ++i) {
      owned.emplace_back(new QXClientAsyncCURL("localhost", emulator().port(), "arvion/ping", "",
                                               REQTYPE_GET, CERT_TYPE_HOST, QXCURL_INSECURE,
                                               nullptr, "ECA"));
      ASSERT_EQ(k.status == 0 ? ASYNC_COMPLETED : ASYNC_FAILED, driveOne(*owned.back()).back())
          << m_log.dump();
      EXPECT_EQ(k.status, owned.back()->getQxuErrorCode());
    }
    EXPECT_EQ(2u, m_log.count("Peer cert revocation status found in cache")) << m_log.dump();
    EXPECT_EQ(1u, m_log.count("Checking the revocation of a chain not seen yet"));
  }
}

TEST(AsyncClientUnit, FactoryRefusesAnEmptyServer) {
  QXTestRoot root;
  ASSERT_TRUE(root.ok());
  std::string none;
  EXPECT_EQ(nullptr, QXClientAsyncCURLFactory().generateAsyncCURL("", 1556, "p", none, REQTYPE_GET,
                                                                  CERT_TYPE_HOST, QXCURL_INSECURE));
}

TEST_F(AsyncClientTest, DescriptorAboveFdSetSizeFailsClearly) {
  struct rlimit lim;
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &lim));
  if (lim.rlim_max < FD_SETSIZE + 64) GTEST_SKIP() << "descriptor limit too low";
  struct rlimit raised = {FD_SETSIZE + 64, lim.rlim_max};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &raised));
  std::vector<int> fillers;
  for (int fd = dup(0); fd >= 0 && fd < FD_SETSIZE; fd = dup(0)) fillers.push_back(fd);
  fillers.push_back(dup(0));  // the one that reached FD_SETSIZE

  struct Case {
    const char* config;
    const char* logged;
  } cases[] = {{"", "does not fit in a select() set of [1024]; refusing it."},
               {"DISABLE_QXCURL_PREFERRED_NETWORKS = YES\n",
                "does not fit in a select() set of [1024]; failing the request"}};
  for (const Case& k : cases) {
    SCOPED_TRACE(k.config);
    ASSERT_TRUE(root().writeConfig(k.config));
    m_log.clear();
    auto c = client();
    EXPECT_EQ(ASYNC_FAILED, driveOne(*c).back());
    EXPECT_EQ(QX_ERR_BAD_SOCKET, c->getQxuErrorCode());
    EXPECT_TRUE(m_log.contains(k.logged)) << m_log.dump();
    // The poll interface has no such limit.
    auto p = client();
    EXPECT_EQ(ASYNC_COMPLETED, driveOne(*p, true).back()) << m_log.dump();
  }
  for (int fd : fillers) close(fd);
  setrlimit(RLIMIT_NOFILE, &lim);
}

TEST_F(AsyncClientTest, MisuseGetsAStatusNeverACrash) {
  auto c = client();
  fd_set rd, wr, ex;
  FD_ZERO(&rd);
  FD_ZERO(&wr);
  FD_ZERO(&ex);
  int maxfd = -1;
  EXPECT_EQ(ASYNC_FAILED, c->isAsyncOperationCompleted(rd, wr, ex, maxfd));  // not started
  EXPECT_EQ(QX_ERR_BAD_ARGUMENT, c->getQxuErrorCode());
  int first = c->performAsyncRequest(rd, wr, ex, maxfd);
  EXPECT_FALSE(finished(first));
  EXPECT_EQ(ASYNC_FAILED, c->performAsyncRequest(rd, wr, ex, maxfd));  // twice
  EXPECT_EQ(QX_ERR_IN_PROGRESS, c->getQxuErrorCode());
  EXPECT_EQ(QX_ERR_IN_PROGRESS, c->setAsyncRequest(REQTYPE_GET, "arvion/ping", ""));
  std::vector<int> st = driveOne(*c, false, true);  // the first goes on
  ASSERT_EQ(ASYNC_COMPLETED, st.back());
  EXPECT_EQ(ASYNC_COMPLETED, c->isAsyncOperationCompleted(rd, wr, ex, maxfd));  // after the end
  EXPECT_EQ(0, c->getQxuErrorCode());
  EXPECT_EQ("pong\n", c->getResponseData());

  // Destroyed mid-transfer, connecting or waiting for the answer: nothing
  // stays open.
  ASSERT_EQ(0, emulator().addFault("arvion/ping", "delay", 2, "{\"seconds\": 2}"));
  int before = qxOpenDescriptors();
  for (int steps : {1, 3}) {
    auto d = client();
    FD_ZERO(&wr);
    int s = d->performAsyncRequest(rd, wr, ex, maxfd);
    for (int i = 1; i < steps && !finished(s); ++i) {
      struct timeval tv = {0, 200000};
      select(maxfd + 1, &rd, &wr, &ex, &tv);
      s = d->isAsyncOperationCompleted(rd, wr, ex, maxfd);
    }
    EXPECT_FALSE(finished(s));
  }
  EXPECT_EQ(before, qxOpenDescriptors());
}

}  // namespace
