// Requests through HTTP CONNECT tunnels end to end: tinyproxy as the working
// tunnel, the emulator's tunnels as dead, refusing, dropping or wrong-master
// ones, and the client's check of the master a tunnel leads to.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <list>
#include <memory>
#include <string>

#include "qxcurl/qx_status.h"
#include "qxcurl/qxclnt_curl.h"
#include "qxcurl/websvc_tunnel_router.h"
#include "testing/fixture/qx_test_env.h"
#include "tests/test_support.h"

namespace {

// Roles of this suite's loopback addresses on port 1556 (see addr()).
enum Role {
  kDead = 1,     // nothing listens
  kProxy,        // tinyproxy
  kDownWrong,    // emulator: opens, nothing behind, another master
  kDownRight,    // emulator: opens, nothing behind, this master
  kRefuseRight,  // emulator: 502, this master
  kRefuseWrong,  // emulator: 502, another master
  kAuth,         // emulator: 407
  kDrop,         // emulator: closes at once
  kOtherMaster,  // another emulator's tunnel, relaying to itself
};

class TunnelRoadTest : public QXEmulatorTest {
 protected:
  // Each test case runs as its own ctest entry, possibly beside the others:
  // each takes its own ten addresses, 127.0.2.110 and up.
  static std::string addr(Role role) {
    static const char* const kTests[] = {"TunnelOnlyMasterDeadFirstWorkingSecondThenRemembered",
                                         "FailingFirstTunnelLeadsToTheNextOrEndsTheRequest",
                                         "DirectSuccessForgetsTheMastersCachedTunnels",
                                         "RightMasterCheck"};
    const std::string test = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    int block = 0;
    while (block < 4 && test != kTests[block]) ++block;
    return "127.0.2." + std::to_string(110 + 10 * block + role);
  }
  QXEmulatorOptions emulatorOptions() const override {
    QXEmulatorOptions o;
    const std::string wrong = ",master=other,master-id=00000000-0000-0000-0000-000000000000";
    o.tunnels = {addr(kDownWrong) + ",mode=down" + wrong,
                 addr(kDownRight) + ",mode=down",
                 addr(kRefuseRight) + ",mode=refuse,status=502",
                 addr(kRefuseWrong) + ",mode=refuse,status=502" + wrong,
                 addr(kAuth) + ",mode=refuse,status=407",
                 addr(kDrop) + ",mode=drop"};
    return o;
  }
  void SetUp() override {
    QXEmulatorTest::SetUp();
    if (HasFatalFailure()) return;
    m_proxy.reset(new QXTinyproxy(addr(kProxy), emulator().port()));
    std::string error;
    ASSERT_EQ(0, m_proxy->start(&error)) << error;
  }
  void TearDown() override {
    m_proxy.reset();
    QXEmulatorTest::TearDown();
  }

  std::unique_ptr<QXClientCURL> client(const std::string& server = "localhost") {
    std::unique_ptr<QXClientCURL> c(new QXClientCURL(server, emulator().port(), CERT_TYPE_HOST,
                                                     QXCURL_INSECURE, nullptr, "", true, false,
                                                     false, "QXCA"));
    EXPECT_EQ(0, c->setCustomCAPath(root().pki("qxca/ca.pem"), "QXCA"));
    return c;
  }
  std::string cacheBytes() const { return qxReadFile(cachePath()); }
  std::string cachePath() const { return m_root->path("arvion/websvctunnels.cache"); }
  size_t proxyConnects() const {
    std::string log = m_proxy->logText();
    size_t n = 0;
    const std::string request = "): CONNECT ";
    for (size_t p = log.find(request); p != std::string::npos; p = log.find(request, p + 1)) ++n;
    return n;
  }

  FakeRetryClock m_clock;
  std::unique_ptr<QXTinyproxy> m_proxy;
  QXLogCapture m_log;
};

TEST_F(TunnelRoadTest, TunnelOnlyMasterDeadFirstWorkingSecondThenRemembered) {
  ASSERT_TRUE(root().writeConfig(std::string("WEB_SERVER_TUNNEL_USE = 1\nSERVER = localhost\n") +
                                 "MEDIA_SERVER = " + addr(kDead) +
                                 "\nMEDIA_SERVER = " + addr(kProxy) + "\n"));
  auto c = client();
  ASSERT_EQ(0, c->Get("arvion/ping")) << m_log.dump();
  EXPECT_EQ(200, c->m_httpCode);
  EXPECT_EQ(addr(kProxy), c->getTunnelUsed());
  EXPECT_TRUE(m_log.contains(std::string("Setting proxy = [") + addr(kDead) + ":1556]"));
  EXPECT_FALSE(m_log.contains("Empty tunnel entry encountered"));  // never direct
  EXPECT_EQ(std::string("\r\nlocalhost = ") + addr(kProxy), cacheBytes());
  EXPECT_EQ(c->m_server, c->m_tunnelName);  // proxy options cleared afterwards

  // The same client remembers it in memory; a new one finds it in the file.
  m_log.clear();
  ASSERT_EQ(0, c->Get("arvion/ping"));
  EXPECT_TRUE(m_log.contains("Returning [1] tunnel server from in-memory cache."));
  m_log.clear();
  auto fresh = client();
  ASSERT_EQ(0, fresh->Get("arvion/ping"));
  EXPECT_TRUE(
      m_log.contains("Returning [1] tunnel servers from Client router's tunnel servers' "
                     "cache."));
  EXPECT_FALSE(m_log.contains(std::string("[") + addr(kDead) + ":1556]"));
  EXPECT_EQ(2u, proxyConnects());  // the first client's second request kept its connection
}

// The override names the first tunnel; tinyproxy is the next candidate.
TEST_F(TunnelRoadTest, FailingFirstTunnelLeadsToTheNextOrEndsTheRequest) {
  QXEmulatorOptions otherOptions;
  otherOptions.certMode = "wrongname";
  otherOptions.tunnels = {addr(kOtherMaster) + ",to=self"};
  otherOptions.extraArgs = {"--server-name", "other"};
  QXEmulator other(otherOptions);
  std::string error;
  ASSERT_EQ(0, other.start(&error)) << error;

  struct Case {
    std::string first;
    int status;
    std::string tunnelUsed;
    std::string logged;
  } cases[] = {
      {addr(kDead), 0, addr(kProxy), "NEXT action: Trying the next tunnel."},
      {"nohost.invalid", 0, addr(kProxy), "Recommended next action = 4"},
      {addr(kAuth), 0, addr(kProxy), "Tunnel is down. m_httpCode = 407"},
      {addr(kDrop), 0, addr(kProxy), "Tunnel is down. m_httpCode = 0"},
      {addr(kRefuseWrong), 0, addr(kProxy),
       "Host is down; but it's possibly a wrong Master server."},
      {addr(kDownWrong), 0, addr(kProxy),
       "QbPBX/QXU on host is down; but it's possibly a wrong Master"},
      {addr(kOtherMaster), 0, addr(kProxy), "Translating CURL status [60] to Arvion status [8509]"},
      // The right master answered through the tunnel: it is the master that
      // is down, and another tunnel would not help.
      {addr(kRefuseRight), QX_ERR_RECEIVE, addr(kRefuseRight), "Host is down. m_httpCode = 502"},
      {addr(kDownRight), QX_ERR_TLS_CONNECT, addr(kDownRight), "STOPping retrying the connection."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.first);
    ASSERT_TRUE(
        root().writeConfig("WEB_SERVER_TUNNEL_USE = 1\nSERVER = localhost\n"
                           "WEB_SERVER_TUNNEL = localhost " +
                           c.first + "\nMEDIA_SERVER = " + addr(kProxy) + "\n"));
    unlink(cachePath().c_str());
    m_log.clear();
    auto client1 = client();
    EXPECT_EQ(c.status, client1->Get("arvion/ping"));
    EXPECT_EQ(c.tunnelUsed, client1->getTunnelUsed());
    EXPECT_TRUE(m_log.contains(c.logged)) << m_log.dump();
    EXPECT_EQ(c.status == 0 ? std::string("\r\nlocalhost = ") + addr(kProxy) : "", cacheBytes());
  }
}

TEST_F(TunnelRoadTest, DirectSuccessForgetsTheMastersCachedTunnels) {
  ASSERT_TRUE(
      qxWriteFile(cachePath(), std::string("\r\nlocalhost = ") + addr(kDead) + "\r\nother = x"));
  ASSERT_TRUE(root().writeConfig("WEB_SERVER_TUNNEL_USE = 0\nSERVER = localhost\n"));
  auto c = client();
  ASSERT_EQ(0, c->Get("arvion/ping"));
  EXPECT_EQ("", c->getTunnelUsed());
  EXPECT_EQ("other = x\n", cacheBytes());
}

TEST_F(TunnelRoadTest, RightMasterCheck) {
  std::string uuid;
  ASSERT_EQ(0, client()->getMasterHostUuid("LocalHost", uuid));
  ASSERT_FALSE(uuid.empty());
  for (char& ch : uuid) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  struct Case {
    std::string server, headers;
    bool expected;
  } cases[] = {
      {"localhost", "X-Target-Master-ID: " + uuid + "\r\n", true},
      {"localhost", "X-Target-Master-ID: 1234\r\nX-Target-Master: localhost\r\n", false},
      {"localhost", "X-Target-Master: LOCALHOST\r\n", true},
      {"notinmap", "X-Target-Master-ID: 1234\r\nX-Target-Master: NotInMap\r\n", true},
  };
  for (const Case& c : cases) {
    auto cl = client(c.server);
    cl->m_responseHeaders = "HTTP/1.1 200 Connection established\r\n" + c.headers + "\r\n";
    EXPECT_EQ(c.expected, cl->isTunnelConnectedToRightMaster()) << c.server << " " << c.headers;
  }
}

}  // namespace
