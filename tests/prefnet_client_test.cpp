// The client connecting through the preferred-network connector, as the
// emulated master server sees it: source addresses, prohibited addresses never
// dialled, keep-alive and descriptors. (The switch that turns the connector
// off is client_wire_test's: libcurl then resolves the name itself.)
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/qx_wnet.h"
#include "qxcurl/qxclnt_curl.h"
#include "testing/fixture/qx_test_env.h"
#include "tests/test_support.h"

namespace {

const char kServerAddress[] = "127.0.1.64";
const char kProhibitedAddress[] = "127.0.1.63";
const char kSource[] = "127.0.1.62";
const char kOtherSource[] = "127.0.1.65";

class PrefnetClientTest : public QXEmulatorTest {
 protected:
  QXEmulatorOptions emulatorOptions() const override {
    QXEmulatorOptions o;
    o.extraArgs = {"--host", host()};
    return o;
  }
  virtual const char* host() const { return kServerAddress; }

  void config(const std::string& text) { ASSERT_TRUE(root().writeConfig(text)); }

  std::unique_ptr<QXClientCURL> client(const std::string& server) {
    std::unique_ptr<QXClientCURL> c(new QXClientCURL(server, emulator().port(), CERT_TYPE_HOST,
                                                     QXCURL_INSECURE, nullptr, "", false));
    c->setSkipPeerHostVerification();  // the test certificate names localhost only
    c->setConnectRetryTimeout(0);
    return c;
  }
};

TEST_F(PrefnetClientTest, KeepAliveIsOneConnectionAndNoDescriptorGrowth) {
  config("PREFERRED_NETWORK = " + std::string(kServerAddress) + " ONLY " + kSource + "\n");
  auto c = client(kServerAddress);
  QXLogCapture log;
  ASSERT_EQ(0, c->Get("arvion/ping"));
  int baseline = qxOpenDescriptors();
  for (int i = 1; i < 1000; ++i) {
    ASSERT_EQ(0, c->Get("arvion/ping")) << "request " << i;
    ASSERT_EQ(200, c->getHttpCode());
  }
  EXPECT_EQ(baseline, qxOpenDescriptors());
  std::set<long long> connections;
  std::vector<QXRecordedRequest> seen = emulator().requests();
  ASSERT_EQ(1000u, seen.size());
  for (const QXRecordedRequest& r : seen) {
    connections.insert(r.connection);
    EXPECT_EQ(kSource, r.peer);
  }
  EXPECT_EQ(1u, connections.size());
  // One TCP connection dialled, not one per request closed unused.
  const std::string dialled = "Connecting to [" + std::string(kServerAddress) + "]:[";
  EXPECT_EQ(1u, log.count(dialled));

  // The server drops the kept connection: libcurl opens a new one, and the
  // rules still choose its source.
  ASSERT_EQ(0, emulator().addFault("arvion/ping", "close"));
  ASSERT_EQ(0, c->Get("arvion/ping"));
  seen = emulator().requests();
  ASSERT_GE(seen.size(), 1002u);
  EXPECT_NE(seen.front().connection, seen.back().connection);
  EXPECT_EQ(kSource, seen.back().peer);
  EXPECT_EQ(2u, log.count(dialled));

  // Another key changes: the connection stays. The rules change: the next
  // request already follows them, on a new connection.
  config("PREFERRED_NETWORK = " + std::string(kServerAddress) + " ONLY " + kSource +
         "\nCRL_CHECK_LEVEL = 1\n");
  ASSERT_EQ(0, c->Get("arvion/ping"));
  config("PREFERRED_NETWORK = " + std::string(kServerAddress) + " ONLY " + kOtherSource + "\n");
  ASSERT_EQ(0, c->Get("arvion/ping"));
  seen = emulator().requests();
  const QXRecordedRequest& kept = seen[seen.size() - 2];
  EXPECT_EQ(seen[seen.size() - 3].connection, kept.connection);
  EXPECT_EQ(kSource, kept.peer);
  EXPECT_NE(kept.connection, seen.back().connection);
  EXPECT_EQ(kOtherSource, seen.back().peer);
  EXPECT_EQ(baseline, qxOpenDescriptors());
  c.reset();
  EXPECT_GT(baseline, qxOpenDescriptors());  // the client's connection is closed with it
}

TEST_F(PrefnetClientTest, ProhibitedAddressIsNeverDialled) {
  // A name with two addresses: a listener that must see nothing, then the server.
  QXLoopbackPort watch(QXLoopbackPort::LISTENING, kProhibitedAddress, emulator().port());
  ASSERT_NE(0, watch.port());
  wnet_T_setHostAddresses("master.test", {kProhibitedAddress, kServerAddress});

  config(std::string("PREFERRED_NETWORK = ") + kProhibitedAddress + " PROHIBITED\n");
  auto c = client("master.test");
  EXPECT_EQ(0, c->Get("arvion/ping"));
  EXPECT_EQ(1u, emulator().requests().size());

  // Everything prohibited: libcurl is pointed at an address nothing answers
  // on and its socket callback refuses to dial; the request fails.
  config(std::string("PREFERRED_NETWORK = 127.0.1.0/24 PROHIBITED\n"));
  auto blocked = client("master.test");
  QXLogCapture log;
  EXPECT_EQ(QX_ERR_CONNECT, blocked->Get("arvion/ping"));
  EXPECT_TRUE(log.contains("Hostname resolution set to [master.test:" +
                           std::to_string(emulator().port()) + ":BAD:ADD::125]."))
      << log.dump();
  EXPECT_EQ(1u, emulator().requests().size());

  EXPECT_EQ("", watch.acceptPeer()) << "the prohibited address was dialled";
  wnet_T_setHostAddresses("master.test", {});
}

class PrefnetClientV6Test : public PrefnetClientTest {
 protected:
  void SetUp() override {
    int s = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    a.sin6_addr = in6addr_loopback;
    bool ok = s >= 0 && bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    if (s >= 0) close(s);
    if (!ok) GTEST_SKIP() << "no IPv6 loopback on this host";
    PrefnetClientTest::SetUp();
  }
  const char* host() const override { return "::1"; }
};

TEST_F(PrefnetClientV6Test, IPv6LiteralServer) {
  for (const char* server : {"::1", "[::1]"}) {
    auto c = client(server);
    EXPECT_EQ(0, c->Get("arvion/ping")) << server;
    EXPECT_EQ(200, c->getHttpCode()) << server;
  }
  std::vector<QXRecordedRequest> seen = emulator().requests();
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ("::1", seen[0].peer);
}

}  // namespace
