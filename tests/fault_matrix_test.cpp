// What a caller gets when the network, the server, a proxy, the disk, a lock
// or the clock fails: one row per fault, against the emulated master, real
// tinyproxy and the real file system. docs/faults.md lists the rows.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <jansson.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/qx_lock.h"
#include "qxcurl/login_with_cert_manager.h"
#include "qxcurl/qx_lock_file.h"
#include "qxcurl/qxclnt_curl.h"
#include "qxcurl/supplied_token_manager.h"
#include "testing/fixture/qx_test_env.h"
#include "tests/test_support.h"

namespace {

// ---- seams: no test sleeps or waits for real ----

time_t g_skew = 0;
time_t skewedClock() { return time(nullptr) + g_skew; }
std::vector<int> g_lockSleeps;
void recordLockSleep(int seconds) { g_lockSleeps.push_back(seconds); }

// Takes away root's power to ignore file modes for the calling thread, so a
// directory or file mode refuses root as it refuses anyone else. The
// permitted set is kept: the destructor gives the power back.
class NoFileOverride {
 public:
  NoFileOverride() {
    m_header.version = _LINUX_CAPABILITY_VERSION_3;
    if (syscall(SYS_capget, &m_header, m_saved) != 0) return;
    __user_cap_data_struct reduced[2] = {m_saved[0], m_saved[1]};
    for (int cap : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH, CAP_FOWNER})
      reduced[cap / 32].effective &= ~(1u << (cap % 32));
    m_ok = syscall(SYS_capset, &m_header, reduced) == 0;
  }
  ~NoFileOverride() {
    if (m_ok) syscall(SYS_capset, &m_header, m_saved);
  }
  bool ok() const { return m_ok; }

 private:
  __user_cap_header_struct m_header{};
  __user_cap_data_struct m_saved[2]{};
  bool m_ok = false;
};

// Where the request goes and whom the client trusts; one per row.
enum Road {
  DIRECT,              // the emulator, its own CA trusted
  REFUSED_PORT,        // a port nobody listens on
  STALLED_PORT,        // a listener whose accept queue is full
  TINYPROXY_REFUSING,  // real tinyproxy allowing CONNECT to port 1 only
  PROXY_DOWN,          // a tunnel address nobody listens on
  UNKNOWN_CA,          // the external CA's chain checked against the own CA only
  UNKNOWN_CA_LEAF,     // the own CA's bare leaf checked against the external CA
  EXTERNAL_CA,         // external CA, revocation checked with the map's CRL
  EXTERNAL_NO_CRL,     // ... without one (the distribution point refuses)
  EXTERNAL_CORRUPT_CRL,
  EXTERNAL_EXPIRED_CRL,
};

struct WireFault {
  const char* name;
  Road road;
  const char* setup;  // JSON for the emulator's /faults ({port}: its TLS port), or its /config
  int status;         // what the caller gets
  long http = 0;      // m_httpCode afterwards: the proxy's answer to CONNECT, or the server's
  long timeout = 0;   // operation and connect time-out, seconds
  // Further checks on the client and the requests the emulator saw.
  std::function<void(QXClientCURL&, const std::vector<QXRecordedRequest>&)> check = nullptr;
};
// The row's name in ctest's listing, not its bytes.
void PrintTo(const WireFault& f, std::ostream* os) { *os << f.name; }

// A client of the kind a row asks for, with no connection retries: a row
// sees one attempt.
class FaultMatrixBase : public QXEmulatorTest {
 protected:
  void TearDown() override {
    LoginWithCertManager::T_setClock(nullptr);
    QXLockFile::T_setSleeper(nullptr);
    T_setLockWaitLimit(0);
    QXEmulatorTest::TearDown();
  }

  std::unique_ptr<QXClientCURL> client(Road road, int port, TokenManager_Base* tokens) {
    std::unique_ptr<QXClientCURL> c;
    if (road >= EXTERNAL_CA) {
      c = std::make_unique<QXClientCURL>("localhost", port, CERT_TYPE_HOST, QXCURL_USE_TPCA_CERT,
                                         nullptr, "", false);
    } else {
      c = std::make_unique<QXClientCURL>("localhost", port, CERT_TYPE_HOST,
                                         tokens ? QXCURL_USE_TOKEN : QXCURL_INSECURE, tokens, "",
                                         true, false, false, "QXCA");
      EXPECT_EQ(0, road == UNKNOWN_CA
                       ? c->setAssortedCurlPKIParams(CA_LOAD_FORCE_ECA, root().pki("qxca/ca.pem"),
                                                     false, "", "", "", "", "")
                       : c->setCustomCAPath(
                             root().pki(road == UNKNOWN_CA_LEAF ? "eca/cacert.pem" : "qxca/ca.pem"),
                             "QXCA"));
    }
    c->setConnectRetryTimeout(0);
    return c;
  }

  std::unique_ptr<LoginWithCertManager> manager() {
    return certLoginManager(root(), "localhost", emulator().port());
  }
  size_t logins() { return emulator().requestCount("arvion/loginwithcert"); }
  FakeRetryClock m_clock;
};

// Port 1556 on a loopback address of each row's own (127.0.4.0/24 belongs to
// this suite), so rows running side by side never share a listener.
extern const WireFault kWireFaults[];
extern const size_t kWireFaultCount;
std::string tunnelAddress(const WireFault& f) {
  size_t row = 0;
  while (row < kWireFaultCount && std::string(kWireFaults[row].name) != f.name) ++row;
  return "127.0.4." + std::to_string(10 + row);
}

class FaultMatrixWire : public FaultMatrixBase, public ::testing::WithParamInterface<WireFault> {};

TEST_P(FaultMatrixWire, CallerGetsItsStatus) {
  const WireFault& f = GetParam();
  std::string setup = f.setup;
  if (setup.find("{port}") != std::string::npos)
    setup.replace(setup.find("{port}"), 6, std::to_string(emulator().port()));
  if (setup.find("certMode") != std::string::npos) {
    ASSERT_EQ(0, emulator().setConfig(setup));
  } else if (!setup.empty()) {
    ASSERT_EQ(0, emulator().control("POST", "/faults", setup, nullptr));
  }
  if (f.road >= EXTERNAL_CA) {
    ASSERT_TRUE(qxWriteFile(root().path("var/corrupt.crl"),
                            "-----BEGIN X509 CRL-----\nnot a CRL\n-----END X509 CRL-----\n"));
    ASSERT_TRUE(root().writeConfig("CRL_CHECK_LEVEL = 1\n"));
    const char* crls[] = {"var/pki/eca/crl.pem", "", "var/corrupt.crl",
                          "var/pki/eca/crl_expired.pem"};
    root().setEcaMapMember("crl", crls[f.road - EXTERNAL_CA]);
  }
  std::unique_ptr<QXTinyproxy> proxy;
  if (f.road == TINYPROXY_REFUSING) {
    proxy = std::make_unique<QXTinyproxy>(tunnelAddress(f), 1);  // CONNECT to port 1 only
    std::string error;
    ASSERT_EQ(0, proxy->start(&error)) << error;
  }
  QXLoopbackPort other(f.road == STALLED_PORT ? QXLoopbackPort::STALLED : QXLoopbackPort::REFUSED);
  const int port =
      f.road == REFUSED_PORT || f.road == STALLED_PORT ? other.port() : emulator().port();

  SuppliedTokenManager tokens("supplied-token-value");
  auto c = client(f.road, port, f.road >= EXTERNAL_CA ? nullptr : &tokens);
  if (f.road >= EXTERNAL_CA && f.road != EXTERNAL_NO_CRL) c->setSkipCRLDownload();
  if (f.timeout > 0) {
    c->setupCurlOperationTimeout(f.timeout);
    c->setConnectTimeout(f.timeout);
  }
  if (f.road == TINYPROXY_REFUSING || f.road == PROXY_DOWN) {
    c->enableTunnelOptions(tunnelAddress(f));
  }

  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(f.status, c->Get("arvion/ping")) << c->m_errorBuffer;
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_EQ(f.http, c->m_httpCode);
  if (f.check) f.check(*c, emulator().requests());
}

// A 200 body a stream can take whole, and one that stops at the cap.
constexpr long long kOverCap = 80LL << 20;
size_t countBytes(char*, size_t size, size_t n, void* total) {
  *static_cast<long long*>(total) += static_cast<long long>(size * n);
  return size * n;
}

using Seen = const std::vector<QXRecordedRequest>&;

const WireFault kWireFaults[] = {
    // -- connection and handshake
    {"ConnectionRefused", REFUSED_PORT, "", QX_ERR_CONNECT},
    {"ConnectStalls", STALLED_PORT, "", QX_ERR_CONNECT, 0, 1},
    {"ResetDuringHandshake", DIRECT, R"({"path": "TLS", "kind": "reset"})", QX_ERR_TLS_CONNECT},
    {"TlsAlert", DIRECT, R"({"path": "TLS", "kind": "alert"})", QX_ERR_TLS_CONNECT},
    // -- the answer
    {"ResetBeforeAnswer", DIRECT, R"({"kind": "reset"})", QX_ERR_RECEIVE},
    {"ResetMidBody", DIRECT, R"({"kind": "reset-body"})", QX_ERR_RECEIVE},
    {"HeadersStall", DIRECT, R"({"kind": "delay", "seconds": 4})", QX_ERR_TIMEOUT, 0, 1},
    {"BodyStalls", DIRECT, R"({"kind": "stall-body", "seconds": 4})", QX_ERR_TIMEOUT, 0, 1},
    {"Status503WithErrorBody", DIRECT, R"({"kind": "503"})", 8003, 503},
    {"Status503WithoutBody", DIRECT, R"({"kind": "503", "body": ""})", QX_ERR_SERVICE_UNAVAILABLE,
     503},
    {"Status502WithErrorBody", DIRECT, R"({"kind": "502"})", QX_OK, 502, 0,
     [](QXClientCURL& c, Seen) { EXPECT_NE(std::string::npos, c.m_responseBody.find("8009")); }},
    {"Status504WithoutBody", DIRECT, R"({"kind": "status", "status": 504, "body": ""})", QX_OK,
     504},
    {"MalformedStatusLine", DIRECT, R"({"kind": "raw", "body": "HTTP/1.1 2x0 OK\r\n\r\n"})",
     QX_ERR_CURL_OTHER},
    // libcurl takes up to 300 KB of headers in lines of up to 100 KB; the
    // client keeps them all for the header lookups.
    {"HeaderBlockOf150KB", DIRECT, R"({"kind": "big-headers", "size": 150000})", QX_OK, 200, 0,
     [](QXClientCURL& c, Seen) {
       EXPECT_GT(c.m_responseHeaders.size(), 150000u);
       std::string v;
       EXPECT_EQ(0, c.getHttpHeaderField("X-Arvion-API-Version", v));
     }},
    {"BodyOverTheCap", DIRECT, R"({"kind": "big-body", "size": 83886080, "chunked": true})",
     QX_ERR_RESPONSE_TOO_LARGE, 0, 0,
     [](QXClientCURL& c, Seen) { EXPECT_LE(c.m_responseBody.size(), 64u << 20); }},
    {"BodyOverTheCapWithLength", DIRECT, R"({"kind": "big-body", "size": 83886080})",
     QX_ERR_RESPONSE_TOO_LARGE},
    // -- redirects: followed over TLS only, credentials only to the same host
    {"RedirectSameHost", DIRECT,
     R"({"path": "arvion/ping", "kind": "status", "status": 302,
         "headers": {"Location": "/arvion/security/cacert"}})",
     QX_OK, 200, 0,
     [](QXClientCURL&, Seen seen) {
       ASSERT_EQ(2u, seen.size());
       EXPECT_EQ("arvion/security/cacert", seen[1].path);
       EXPECT_EQ("supplied-token-value", seen[1].header("Authorization"));
     }},
    {"RedirectToAnotherHostDropsTheToken", DIRECT,
     R"({"path": "arvion/ping", "kind": "status", "status": 307,
         "headers": {"Location": "https://127.0.0.1:{port}/arvion/security/cacert"}})",
     QX_OK, 200, 0,
     [](QXClientCURL&, Seen seen) {
       ASSERT_EQ(2u, seen.size());
       EXPECT_EQ("supplied-token-value", seen[0].header("Authorization"));
       EXPECT_EQ("", seen[1].header("Authorization"));
     }},
    {"RedirectToPlainHttp", DIRECT,
     R"({"path": "arvion/ping", "kind": "status", "status": 307,
         "headers": {"Location": "http://localhost:{port}/arvion/ping"}})",
     QX_ERR_CURL_OTHER, 0, 0, [](QXClientCURL&, Seen seen) { EXPECT_EQ(1u, seen.size()); }},
    // -- the server's certificate
    {"CertificateExpired", DIRECT, R"({"certMode": "expired"})", QX_ERR_CERT_EXPIRED},
    {"CertificateForAnotherName", DIRECT, R"({"certMode": "wrongname"})", QX_ERR_HOST_MISMATCH, 0,
     0,
     [](QXClientCURL& c, Seen) {
       std::vector<std::string> names;
       ASSERT_TRUE(c.getExtendedErrorInfo(QX_ERR_HOST_MISMATCH, &names));
       EXPECT_EQ((std::vector<std::string>{"wrong1.example", "wrong2.example"}), names);
     }},
    {"CertificateFromUnknownCA", UNKNOWN_CA, "", QX_ERR_UNKNOWN_ISSUER},
    {"LeafFromUnknownCA", UNKNOWN_CA_LEAF, "", QX_ERR_CERT_VERIFY},
    {"CertificateRevoked", EXTERNAL_CA, R"({"certMode": "revoked"})", QX_ERR_CERT_REVOKED},
    {"CrlUnreachable", EXTERNAL_NO_CRL, "", QX_ERR_CRL_UNAVAILABLE},
    {"CrlCorrupt", EXTERNAL_CORRUPT_CRL, "", QX_ERR_CRL_UNAVAILABLE},
    {"CrlExpired", EXTERNAL_EXPIRED_CRL, "", QX_ERR_CRL_EXPIRED},
    // -- the tunnel
    {"ProxyRefusesConnect", TINYPROXY_REFUSING, "", QX_ERR_RECEIVE, 403},
    {"ProxyDown", PROXY_DOWN, "", QX_ERR_CONNECT},
};

const size_t kWireFaultCount = sizeof kWireFaults / sizeof kWireFaults[0];

INSTANTIATE_TEST_SUITE_P(Faults, FaultMatrixWire, ::testing::ValuesIn(kWireFaults),
                         [](const auto& info) { return std::string(info.param.name); });

// The same body taken by a caller's own write callback is streamed, uncapped.
TEST_F(FaultMatrixBase, BodyOverTheCapStreamedByTheCaller) {
  ASSERT_EQ(0, emulator().addFault("*", "big-body", 1, R"({"size": 83886080, "chunked": true})"));
  auto c = client(DIRECT, emulator().port(), nullptr);
  long long total = 0;
  ASSERT_EQ(0, c->setWriteDataFunction(&countBytes, &total));
  EXPECT_EQ(0, c->Get("arvion/ping"));
  EXPECT_EQ(kOverCap, total);
  EXPECT_TRUE(c->m_responseBody.empty());
}

// A handshake reset once is retried within the retry window.
TEST_F(FaultMatrixBase, ResetDuringHandshakeOnceIsRetried) {
  ASSERT_EQ(0, emulator().addFault("TLS", "reset", 1));
  auto c = client(DIRECT, emulator().port(), nullptr);
  c->setConnectRetryTimeout(30);
  EXPECT_EQ(0, c->Get("arvion/ping"));
  EXPECT_EQ(200, c->m_httpCode);
}

// ---- local faults: files, locks, configuration, clock ----

class FaultMatrixLocal : public FaultMatrixBase {
 protected:
  // A token cached by a first login, then due (the clock moved past it).
  void cacheDueToken(LoginWithCertManager& mgr) {
    std::string token;
    ASSERT_EQ(0, mgr.getToken("localhost", token, false, nullptr));
    g_skew = 4000;
    LoginWithCertManager::T_setClock(skewedClock);
  }
};

TEST_F(FaultMatrixLocal, TokenDirectoryUnwritable) {
  auto mgr = manager();
  cacheDueToken(*mgr);
  const std::string before = qxReadFile(mgr->getTokenFilePath());
  ASSERT_EQ(0, chmod(root().path("tmp").c_str(), 0555));
  {
    NoFileOverride unprivileged;
    ASSERT_TRUE(unprivileged.ok() || geteuid() != 0);
    std::string token;
    EXPECT_EQ(QX_ERR_WRITE, mgr->getToken("localhost", token, false, nullptr));
    QXClientCURL c("localhost", emulator().port(), CERT_TYPE_HOST, QXCURL_USE_TOKEN, mgr.get());
    c.setConnectRetryTimeout(0);
    EXPECT_EQ(QX_ERR_TOKEN, c.Get("arvion/config/hosts"));
  }
  chmod(root().path("tmp").c_str(), 0700);
  EXPECT_EQ(before, qxReadFile(mgr->getTokenFilePath()));  // nothing lost
}

TEST_F(FaultMatrixLocal, DiskFullWhileSavingToken) {
  auto mgr = manager();
  cacheDueToken(*mgr);
  const std::string before = qxReadFile(mgr->getTokenFilePath());
  rlimit saved{};
  ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &saved));
  auto oldHandler = signal(SIGXFSZ, SIG_IGN);
  rlimit tiny = saved;
  tiny.rlim_cur = 16;  // the token record is far longer
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &tiny));
  std::string token;
  int status = mgr->getToken("localhost", token, false, nullptr);
  setrlimit(RLIMIT_FSIZE, &saved);
  signal(SIGXFSZ, oldHandler);
  EXPECT_EQ(QX_ERR_WRITE, status);
  EXPECT_EQ(before, qxReadFile(mgr->getTokenFilePath()));
  // No temporary is left behind either.
  size_t files = 0;
  for (const auto& e : std::filesystem::directory_iterator(root().path("tmp")))
    files += e.path().filename().string().find("webtoken") != std::string::npos;
  EXPECT_EQ(1u, files);
}

// A process that took a lock and was stopped (SIGSTOP, a debugger) holds it
// for ever; the others give up after the wait limit instead of hanging.
pid_t stoppedHolder(const std::string& lockPath, bool tokenLock) {
  pid_t pid = fork();
  if (pid == 0) {
    int err = 0;
    int h = tokenLock ? wait_lock(lockPath.c_str(), 1, &err)
                      : ManageLockFile(lockPath.c_str(), QXLOCK_TAKE, -1, &err);
    if (h < 0) _exit(1);
    raise(SIGSTOP);
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, WUNTRACED);
  return WIFSTOPPED(status) ? pid : -1;
}

void endHolder(pid_t pid) {
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

TEST_F(FaultMatrixLocal, TokenLockHeldByStoppedProcess) {
  auto mgr = manager();
  cacheDueToken(*mgr);
  T_setLockWaitLimit(200);
  pid_t holder = stoppedHolder(mgr->getLockFilePath(), true);
  ASSERT_GT(holder, 0);
  const auto start = std::chrono::steady_clock::now();
  std::string token;
  int status = mgr->getToken("localhost", token, false, nullptr);
  QXClientCURL c("localhost", emulator().port(), CERT_TYPE_HOST, QXCURL_USE_TOKEN, mgr.get());
  c.setConnectRetryTimeout(0);
  int clientStatus = c.Get("arvion/config/hosts");
  const auto took = std::chrono::steady_clock::now() - start;
  endHolder(holder);
  EXPECT_EQ(QX_ERR_LOCK, status);
  EXPECT_EQ(QX_ERR_TOKEN, clientStatus);
  EXPECT_LT(took, std::chrono::seconds(5));
  EXPECT_EQ(0, mgr->getToken("localhost", token, false, nullptr));  // the holder is gone
}

TEST_F(FaultMatrixLocal, TunnelCacheLockHeldByStoppedProcess) {
  const std::string lockPath = root().path("tmp/websvctunnels.lck");
  pid_t holder = stoppedHolder(lockPath, false);
  ASSERT_GT(holder, 0);
  g_lockSleeps.clear();
  QXLockFile::T_setSleeper(recordLockSleep);
  auto lock = std::make_unique<QXLockFile>(lockPath.c_str(), 10, 5);
  EXPECT_FALSE(lock->isLocked());
  EXPECT_EQ(QXLOCK_ERR_HELD, lock->getLastError());
  lock.reset();
  endHolder(holder);
  EXPECT_EQ(std::vector<int>(10, 5), g_lockSleeps);
}

TEST_F(FaultMatrixLocal, ConfigurationFileUnreadable) {
  // Unreadable, it counts as absent: defaults apply, the request goes out.
  ASSERT_TRUE(root().writeConfig("DISABLE_QXCURL_CONNECTIONS = yes\n"));
  ASSERT_EQ(0, chmod(root().path("arvion/arvion.conf").c_str(), 0));
  QXLogCapture log;
  int status;
  {
    NoFileOverride unprivileged;
    ASSERT_TRUE(unprivileged.ok() || geteuid() != 0);
    auto c = client(DIRECT, emulator().port(), nullptr);
    status = c->Get("arvion/ping");
  }
  EXPECT_EQ(QX_OK, status);
  EXPECT_TRUE(log.contains("Cannot open [")) << log.dump();
}

TEST_F(FaultMatrixLocal, ClockFarAheadOfTheToken) {
  auto mgr = manager();
  std::string first, second, third;
  ASSERT_EQ(0, mgr->getToken("localhost", first, false, nullptr));
  // Ten years on, the cached token looks long expired: one new login, and
  // the token it brings is used from then on.
  g_skew = 10L * 365 * 86400;
  LoginWithCertManager::T_setClock(skewedClock);
  ASSERT_EQ(0, mgr->getToken("localhost", second, false, nullptr));
  ASSERT_EQ(0, mgr->getToken("localhost", third, false, nullptr));
  EXPECT_NE(first, second);
  EXPECT_EQ(second, third);
  EXPECT_EQ(2u, logins());
}

TEST_F(FaultMatrixLocal, ClockFarBehindTheToken) {
  // Ten years back, a token keeps looking valid long after the server
  // expired it: the server's refusal (117) brings exactly one new login.
  g_skew = -10L * 365 * 86400;
  LoginWithCertManager::T_setClock(skewedClock);
  auto mgr = manager();
  QXClientCURL c("localhost", emulator().port(), CERT_TYPE_HOST, QXCURL_USE_TOKEN, mgr.get());
  c.setConnectRetryTimeout(0);
  ASSERT_EQ(0, c.Get("arvion/config/hosts"));
  ASSERT_EQ(0, emulator().expireTokens());
  EXPECT_EQ(0, c.Get("arvion/config/hosts"));
  EXPECT_EQ(200, c.getHttpCode());
  EXPECT_EQ(2u, logins());
}

}  // namespace
