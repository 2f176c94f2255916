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

#include "login_with_cert_manager.h"
#include "qx_lock.h"
#include "qx_lock_file.h"
#include "qx_test_env.h"
#include "qxclnt_curl.h"
#include "supplied_token_manager.h"

namespace {

// ---- seams: no test sleeps or waits for real ----

time_t g_fakeNow = 0;
time_t fakeTime(time_t* out) {
  if (out) *out = g_fakeNow;
  return g_fakeNow;
}
unsigned fakeSleep(unsigned seconds) {
  g_fakeNow += seconds;
  return 0;
}
time_t g_skew = 0;
time_t skewedClock() { return time(nullptr) + g_skew; }
std::vector<int> g_lockSleeps;
void recordLockSleep(int seconds) { g_lockSleeps.push_back(seconds); }

int freePort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  close(fd);
  return ntohs(a.sin_port);
}

// A listener whose accept queue is full: the kernel drops further SYNs, so a
// connect to it stalls as one to a dead host does.
class StalledListener {
 public:
  StalledListener() {
    m_fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(m_fd, reinterpret_cast<sockaddr*>(&a), len);
    listen(m_fd, 0);
    getsockname(m_fd, reinterpret_cast<sockaddr*>(&a), &len);
    m_port = ntohs(a.sin_port);
    for (int i = 0; i < 2; ++i) {
      int c = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
      connect(c, reinterpret_cast<sockaddr*>(&a), len);
      m_fillers.push_back(c);
    }
  }
  ~StalledListener() {
    for (int c : m_fillers) close(c);
    close(m_fd);
  }
  int port() const { return m_port; }

 private:
  int m_fd;
  int m_port = 0;
  std::vector<int> m_fillers;
};

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

enum ClientKind { OWN_CA, UNKNOWN_CA, UNKNOWN_CA_LEAF, EXTERNAL_CA };
enum Target { EMULATOR, REFUSED_PORT, STALLED_PORT };
enum Proxy { NO_PROXY, TINYPROXY_REFUSING, PROXY_DOWN, EMULATOR_TUNNEL };

struct WireFault {
  const char* name;
  const char* faults;  // for the emulator's /faults; {port} becomes its TLS port
  const char* config;  // for the emulator's /config
  int status;          // what the caller gets
  long http;           // m_httpCode afterwards (-1: not checked)
  ClientKind client = OWN_CA;
  Target target = EMULATOR;
  Proxy proxy = NO_PROXY;
  const char* crl = "var/pki/eca/crl.pem";  // external CA: the map's CRL ("" none)
  long timeout = 0;                         // operation and connect time-out, seconds
  // Further checks on the client and the requests the emulator saw.
  std::function<void(QXClientCURL&, const std::vector<QXRecordedRequest>&)> check = nullptr;
};

std::string replaceAll(std::string s, const std::string& from, const std::string& to) {
  for (size_t p = s.find(from); p != std::string::npos; p = s.find(from, p + to.size()))
    s.replace(p, from.size(), to);
  return s;
}

// A client of the kind a row asks for, with no connection retries: a row
// sees one attempt.
class FaultMatrixBase : public QXEmulatorTest {
 protected:
  void SetUp() override {
    QXEmulatorTest::SetUp();
    g_fakeNow = time(nullptr);
    QXClientCURL::T_setTimeSource(&fakeTime);
    QXClientCURL::T_setTsleep(&fakeSleep);
  }
  void TearDown() override {
    QXClientCURL::T_setTimeSource(nullptr);
    QXClientCURL::T_setTsleep(nullptr);
    LoginWithCertManager::T_setClock(nullptr);
    QXLockFile::T_setSleeper(nullptr);
    T_setLockWaitLimit(0);
    QXEmulatorTest::TearDown();
  }

  std::unique_ptr<QXClientCURL> client(ClientKind kind, int port, TokenManager_Base* tokens) {
    if (kind == EXTERNAL_CA) {
      auto c = std::make_unique<QXClientCURL>("localhost", port, CERT_TYPE_HOST,
                                              QXCURL_USE_TPCA_CERT, nullptr, "", false);
      c->setConnectRetryTimeout(0);
      return c;
    }
    auto c = std::make_unique<QXClientCURL>("localhost", port, CERT_TYPE_HOST,
                                            tokens ? QXCURL_USE_TOKEN : QXCURL_INSECURE, tokens, "",
                                            true, false, false, "QXCA");
    if (kind == UNKNOWN_CA) {
      EXPECT_EQ(0, c->setAssortedCurlPKIParams(CA_LOAD_FORCE_ECA, root().pki("qxca/ca.pem"), false,
                                               "", "", "", "", ""));
    } else {
      EXPECT_EQ(0, c->setCustomCAPath(root().pki(kind == OWN_CA ? "qxca/ca.pem" : "eca/cacert.pem"),
                                      "QXCA"));
    }
    c->setConnectRetryTimeout(0);
    return c;
  }

  void setEcaCrl(const std::string& crl) {
    const std::string path = root().path("var/certmap.json");
    json_error_t err;
    json_t* map = json_load_file(path.c_str(), 0, &err);
    ASSERT_NE(nullptr, map) << err.text;
    const char* key;
    json_t* entry;
    json_object_foreach(json_object_get(map, "servers"), key, entry) {
      json_object_set_new(json_object_get(entry, "ECA"), "crl", json_string(crl.c_str()));
    }
    ASSERT_EQ(0, json_dump_file(map, path.c_str(), JSON_INDENT(1)));
    json_decref(map);
  }

  std::unique_ptr<LoginWithCertManager> manager() {
    std::ostringstream token, lock;
    LoginWithCertManager::setJWTFilePaths("localhost", CERT_TYPE_HOST, token, lock, 0);
    return std::make_unique<LoginWithCertManager>(
        emulator().port(), CERT_TYPE_HOST, root().path("tmp"), token.str(), lock.str(), true);
  }

  size_t logins() {
    size_t n = 0;
    for (const auto& r : emulator().requests()) n += r.path == "arvion/loginwithcert";
    return n;
  }
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

class FaultMatrixWire : public FaultMatrixBase, public ::testing::WithParamInterface<WireFault> {
 protected:
  QXEmulatorOptions emulatorOptions() const override {
    QXEmulatorOptions o;
    if (GetParam().proxy == EMULATOR_TUNNEL) o.tunnels.push_back(tunnelAddress(GetParam()));
    return o;
  }
};

TEST_P(FaultMatrixWire, CallerGetsItsStatus) {
  const WireFault& f = GetParam();
  const std::string port = std::to_string(emulator().port());
  if (*f.faults) {
    ASSERT_EQ(0,
              emulator().control("POST", "/faults", replaceAll(f.faults, "{port}", port), nullptr));
  }
  if (*f.config) {
    ASSERT_EQ(0, emulator().setConfig(f.config));
  }
  if (f.client == EXTERNAL_CA) {
    ASSERT_TRUE(qxWriteFile(root().path("var/corrupt.crl"),
                            "-----BEGIN X509 CRL-----\nnot a CRL\n-----END X509 CRL-----\n"));
    ASSERT_TRUE(root().writeConfig("CRL_CHECK_LEVEL = 1\n"));
    setEcaCrl(f.crl);
  }
  std::unique_ptr<QXTinyproxy> proxy;
  if (f.proxy == TINYPROXY_REFUSING) {
    proxy = std::make_unique<QXTinyproxy>(tunnelAddress(f), 1);  // CONNECT to port 1 only
    std::string error;
    ASSERT_EQ(0, proxy->start(&error)) << error;
  }
  std::unique_ptr<StalledListener> stalled;
  int targetPort = emulator().port();
  if (f.target == REFUSED_PORT) targetPort = freePort();
  if (f.target == STALLED_PORT) {
    stalled = std::make_unique<StalledListener>();
    targetPort = stalled->port();
  }

  SuppliedTokenManager tokens("supplied-token-value");
  auto c = client(f.client, targetPort, f.client == EXTERNAL_CA ? nullptr : &tokens);
  if (f.client == EXTERNAL_CA && *f.crl) c->setSkipCRLDownload();
  if (f.timeout > 0) {
    c->setupCurlOperationTimeout(f.timeout);
    c->setConnectTimeout(f.timeout);
  }
  if (f.proxy != NO_PROXY) c->enableTunnelOptions(tunnelAddress(f));

  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(f.status, c->Get("arvion/ping")) << c->m_errorBuffer;
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  if (f.http >= 0) {
    EXPECT_EQ(f.http, c->m_httpCode);
  }
  if (f.check) f.check(*c, emulator().requests());
}

// A 200 body a stream can take whole, and one that stops at the cap.
constexpr long long kOverCap = 80LL << 20;
size_t countBytes(char*, size_t size, size_t n, void* total) {
  *static_cast<long long*>(total) += static_cast<long long>(size * n);
  return size * n;
}

const WireFault kWireFaults[] = {
    // -- connection and handshake
    {"ConnectionRefused", "", "", QX_ERR_CONNECT, 0, OWN_CA, REFUSED_PORT},
    {"ConnectStalls", "", "", QX_ERR_CONNECT, 0, OWN_CA, STALLED_PORT, NO_PROXY, "", 1},
    {"HandshakeStalls", R"({"path": "TLS", "kind": "delay", "seconds": 4})", "", QX_ERR_TIMEOUT, 0,
     OWN_CA, EMULATOR, NO_PROXY, "", 1},
    {"ResetDuringHandshake", R"({"path": "TLS", "kind": "reset"})", "", QX_ERR_TLS_CONNECT, 0},
    {"ClosedDuringHandshake", R"({"path": "TLS", "kind": "close"})", "", QX_ERR_TLS_CONNECT, 0},
    {"TlsAlert", R"({"path": "TLS", "kind": "alert"})", "", QX_ERR_TLS_CONNECT, 0},
    {"NotTlsAtAll", R"({"path": "TLS", "kind": "raw", "body": "HTTP/1.1 400 Bad\r\n\r\n"})", "",
     QX_ERR_TLS_CONNECT, 0},
    // -- the answer
    {"ResetBeforeAnswer", R"({"path": "*", "kind": "reset"})", "", QX_ERR_RECEIVE, 0},
    {"ClosedBeforeAnswer", R"({"path": "*", "kind": "close"})", "", QX_ERR_RECEIVE, 0},
    {"ResetMidBody", R"({"path": "*", "kind": "reset-body"})", "", QX_ERR_RECEIVE, 0},
    {"ClosedMidBody", R"({"path": "*", "kind": "drop"})", "", QX_ERR_RECEIVE, 0},
    {"HeadersStall", R"({"path": "*", "kind": "delay", "seconds": 4})", "", QX_ERR_TIMEOUT, 0,
     OWN_CA, EMULATOR, NO_PROXY, "", 1},
    {"BodyStalls", R"({"path": "*", "kind": "stall-body", "seconds": 4})", "", QX_ERR_TIMEOUT, 0,
     OWN_CA, EMULATOR, NO_PROXY, "", 1},
    {"Status503WithErrorBody", R"({"path": "*", "kind": "503"})", "", 8003, 503},
    {"Status503WithoutBody", R"({"path": "*", "kind": "503", "body": ""})", "",
     QX_ERR_SERVICE_UNAVAILABLE, 503},
    {"Status502WithErrorBody", R"({"path": "*", "kind": "502"})", "", QX_OK, 502, OWN_CA, EMULATOR,
     NO_PROXY, "", 0,
     [](QXClientCURL& c, const std::vector<QXRecordedRequest>&) {
       EXPECT_NE(std::string::npos, c.m_responseBody.find("8009"));
     }},
    {"Status502WithoutBody", R"({"path": "*", "kind": "502", "body": ""})", "", QX_OK, 502},
    {"Status504WithErrorBody",
     R"({"path": "*", "kind": "status", "status": 504,
         "body": {"errorCode": 8010, "errorMessage": "upstream timed out"}})",
     "", QX_OK, 504},
    {"Status504WithoutBody", R"({"path": "*", "kind": "status", "status": 504, "body": ""})", "",
     QX_OK, 504},
    {"MalformedStatusLine", R"({"path": "*", "kind": "raw", "body": "HTTP/1.1 2x0 OK\r\n\r\n"})",
     "", QX_ERR_CURL_OTHER, 0},
    {"NotHttpAtAll", R"({"path": "*", "kind": "raw", "body": "SSH-2.0-OpenSSH\r\n"})", "",
     QX_ERR_CURL_OTHER, 0},
    // libcurl takes up to 300 KB of headers in lines of up to 100 KB; the
    // client keeps them all for the header lookups.
    {"HeaderBlockOf150KB", R"({"path": "*", "kind": "big-headers", "size": 150000})", "", QX_OK,
     200, OWN_CA, EMULATOR, NO_PROXY, "", 0,
     [](QXClientCURL& c, const std::vector<QXRecordedRequest>&) {
       EXPECT_GT(c.m_responseHeaders.size(), 150000u);
       std::string v;
       EXPECT_EQ(0, c.getHttpHeaderField("X-Arvion-API-Version", v));
     }},
    {"HeaderLineOver100KB",
     R"({"path": "*", "kind": "big-headers", "size": 110000, "lineSize": 200000})", "",
     QX_ERR_CURL_OTHER, 0},
    {"HeaderBlockOver300KB", R"({"path": "*", "kind": "big-headers", "size": 320000})", "",
     QX_ERR_RECEIVE, 0},
    {"BodyOverTheCap", R"({"path": "*", "kind": "big-body", "size": 83886080, "chunked": true})",
     "", QX_ERR_RESPONSE_TOO_LARGE, 0, OWN_CA, EMULATOR, NO_PROXY, "", 0,
     [](QXClientCURL& c, const std::vector<QXRecordedRequest>&) {
       EXPECT_LE(c.m_responseBody.size(), 64u << 20);
     }},
    {"BodyOverTheCapWithLength", R"({"path": "*", "kind": "big-body", "size": 83886080})", "",
     QX_ERR_RESPONSE_TOO_LARGE, 0},
    // -- redirects: followed over TLS only, credentials only to the same host
    {"RedirectSameHost",
     R"({"path": "arvion/ping", "kind": "status", "status": 302,
         "headers": {"Location": "/arvion/security/cacert"}})",
     "", QX_OK, 200, OWN_CA, EMULATOR, NO_PROXY, "", 0,
     [](QXClientCURL&, const std::vector<QXRecordedRequest>& seen) {
       ASSERT_EQ(2u, seen.size());
       EXPECT_EQ("arvion/security/cacert", seen[1].path);
       EXPECT_EQ("supplied-token-value", seen[1].header("Authorization"));
     }},
    {"RedirectToAnotherHostDropsTheToken",
     R"({"path": "arvion/ping", "kind": "status", "status": 307,
         "headers": {"Location": "https://127.0.0.1:{port}/arvion/security/cacert"}})",
     "", QX_OK, 200, OWN_CA, EMULATOR, NO_PROXY, "", 0,
     [](QXClientCURL&, const std::vector<QXRecordedRequest>& seen) {
       ASSERT_EQ(2u, seen.size());
       EXPECT_EQ("supplied-token-value", seen[0].header("Authorization"));
       EXPECT_EQ("", seen[1].header("Authorization"));
     }},
    {"RedirectToPlainHttp",
     R"({"path": "arvion/ping", "kind": "status", "status": 307,
         "headers": {"Location": "http://localhost:{port}/arvion/ping"}})",
     "", QX_ERR_CURL_OTHER, 0, OWN_CA, EMULATOR, NO_PROXY, "", 0,
     [](QXClientCURL&, const std::vector<QXRecordedRequest>& seen) { EXPECT_EQ(1u, seen.size()); }},
    {"RedirectLoop",
     R"({"path": "arvion/ping", "kind": "status", "status": 302, "count": -1,
         "headers": {"Location": "/arvion/ping"}})",
     "", QX_ERR_CURL_OTHER, 0},
    // -- the server's certificate
    {"CertificateExpired", "", R"({"certMode": "expired"})", QX_ERR_CERT_EXPIRED, 0},
    {"CertificateForAnotherName", "", R"({"certMode": "wrongname"})", QX_ERR_HOST_MISMATCH, 0,
     OWN_CA, EMULATOR, NO_PROXY, "", 0,
     [](QXClientCURL& c, const std::vector<QXRecordedRequest>&) {
       std::vector<std::string> names;
       ASSERT_TRUE(c.getExtendedErrorInfo(QX_ERR_HOST_MISMATCH, &names));
       EXPECT_EQ((std::vector<std::string>{"wrong1.example", "wrong2.example"}), names);
     }},
    // The external CA's chain (leaf and intermediate) checked against the own
    // CA only; then the own CA's bare leaf against the external CA's bundle.
    {"CertificateFromUnknownCA", "", "", QX_ERR_UNKNOWN_ISSUER, 0, UNKNOWN_CA},
    {"LeafFromUnknownCA", "", "", QX_ERR_CERT_VERIFY, 0, UNKNOWN_CA_LEAF},
    {"CertificateRevoked", "", R"({"certMode": "revoked"})", QX_ERR_CERT_REVOKED, 0, EXTERNAL_CA},
    {"CrlUnreachable", "", "", QX_ERR_CRL_UNAVAILABLE, 0, EXTERNAL_CA, EMULATOR, NO_PROXY, ""},
    {"CrlCorrupt", "", "", QX_ERR_CRL_UNAVAILABLE, 0, EXTERNAL_CA, EMULATOR, NO_PROXY,
     "var/corrupt.crl"},
    {"CrlExpired", "", "", QX_ERR_CRL_EXPIRED, 0, EXTERNAL_CA, EMULATOR, NO_PROXY,
     "var/pki/eca/crl_expired.pem"},
    // -- the tunnel: m_httpCode is the proxy's answer to CONNECT
    {"ProxyRefusesConnect", "", "", QX_ERR_RECEIVE, 403, OWN_CA, EMULATOR, TINYPROXY_REFUSING},
    {"ProxyDown", "", "", QX_ERR_CONNECT, 0, OWN_CA, EMULATOR, PROXY_DOWN},
    {"ProxyAnswers502", R"({"path": "CONNECT", "kind": "502"})", "", QX_ERR_RECEIVE, 502, OWN_CA,
     EMULATOR, EMULATOR_TUNNEL},
    {"ProxyResetsConnect", R"({"path": "CONNECT", "kind": "reset"})", "", QX_ERR_RECEIVE, 0, OWN_CA,
     EMULATOR, EMULATOR_TUNNEL},
};

const size_t kWireFaultCount = sizeof kWireFaults / sizeof kWireFaults[0];

INSTANTIATE_TEST_SUITE_P(Faults, FaultMatrixWire, ::testing::ValuesIn(kWireFaults),
                         [](const auto& info) { return std::string(info.param.name); });

// The same body taken by a caller's own write callback is streamed, uncapped.
TEST_F(FaultMatrixBase, BodyOverTheCapStreamedByTheCaller) {
  ASSERT_EQ(0, emulator().addFault("*", "big-body", 1, R"({"size": 83886080, "chunked": true})"));
  auto c = client(OWN_CA, emulator().port(), nullptr);
  long long total = 0;
  ASSERT_EQ(0, c->setWriteDataFunction(&countBytes, &total));
  EXPECT_EQ(0, c->Get("arvion/ping"));
  EXPECT_EQ(kOverCap, total);
  EXPECT_TRUE(c->m_responseBody.empty());
}

// A handshake reset once is retried within the retry window.
TEST_F(FaultMatrixBase, ResetDuringHandshakeOnceIsRetried) {
  ASSERT_EQ(0, emulator().addFault("TLS", "reset", 1));
  auto c = client(OWN_CA, emulator().port(), nullptr);
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
  bool locked;
  int error;
  {
    QXLockFile lock(lockPath.c_str(), 10, 5);
    locked = lock.isLocked();
    error = lock.getLastError();
  }
  endHolder(holder);
  EXPECT_FALSE(locked);
  EXPECT_EQ(QXLOCK_ERR_HELD, error);
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
    auto c = client(OWN_CA, emulator().port(), nullptr);
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
