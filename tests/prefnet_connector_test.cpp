// The preferred-network connector against real sockets on loopback
// (127.0.1.0/24): which address it dials, from where, in how long, and that it
// leaves no descriptor behind.
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "prefnet/qxclnt_prefnet.h"
#include "testing/fixture/qx_test_env.h"
#include "tests/test_support.h"

namespace {

int connectBlocking(qxclnt_curl_prefnet& c) {
  return c.connect(QXCLNT_CMODE_BLOCKING, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

// Addresses of one case: 127.0.1.<base + i>.
std::string addr(int base, int i) { return "127.0.1." + std::to_string(base + i); }

class ConnectorTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(m_root.ok()) << m_root.error(); }
  // Rules separated by ';', as PREFERRED_NETWORK lines.
  void rules(std::string text) {
    for (size_t at; (at = text.find(';')) != std::string::npos;)
      text.replace(at, 1, "\nPREFERRED_NETWORK = ");
    ASSERT_TRUE(m_root.writeConfig(text.empty() ? "" : "PREFERRED_NETWORK = " + text + "\n"));
  }
  QXTestRoot m_root;
};

TEST_F(ConnectorTest, BlockingWalkTable) {
  // Addresses of case i are 127.0.1.<10 + 3i> and up, all on one port as a
  // name's addresses are; "%0", "%1"... in rules and source stand for them.
  const struct {
    const char* name;
    const char* roles;  // per address: R refused, L listening, B black hole
    const char* rules;  // separated by ';'
    long budget;
    int status;
    int accepted;        // index of the address that gets the connection, -1 none
    const char* source;  // the peer address the listener sees, null: not checked
  } cases[] = {
      {"refused then accepted", "RL", "", 10, 0, 1, nullptr},
      {"prohibited first skipped", "LL", "%0 PROHIBITED", 10, 0, 1, nullptr},
      {"all prohibited", "LL", "%0 PROHIBITED;%1 PROHIBITED", 10, WN_STATUS_BAD_PARAM, -1, nullptr},
      {"black hole gets half the budget", "BL", "", 2, 0, 1, nullptr},
      {"bound to the named source", "L", "%0 ONLY %1", 10, 0, 0, "%1"},
      {"network rule binds", "L", "127.0.1.0/24 ONLY %2", 10, 0, 0, "%2"},
      {"source the host lacks, next address", "LL", "%0 ONLY 192.0.2.1", 10, 0, 1, nullptr},
      {"source the host lacks everywhere", "L", "%0 ONLY 192.0.2.1", 10, WN_STATUS_CONNECT_FAILED,
       -1, nullptr},
      {"last address refused", "R", "", 10, WN_STATUS_CONNECT_FAILED, -1, nullptr},
  };
  int base = 10;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto expand = [base](std::string r) {
      for (size_t at; (at = r.find('%')) != std::string::npos;)
        r.replace(at, 2, addr(base, r[at + 1] - '0'));
      return r;
    };
    const std::string roles = c.roles;
    std::vector<std::unique_ptr<QXLoopbackPort>> listeners;
    std::vector<std::string> names;
    int port = 0;
    for (size_t i = 0; i < roles.size(); ++i) {
      names.push_back(addr(base, static_cast<int>(i)));
      listeners.emplace_back(roles[i] == 'R'
                                 ? nullptr
                                 : new QXLoopbackPort(roles[i] == 'B' ? QXLoopbackPort::STALLED
                                                                      : QXLoopbackPort::LISTENING,
                                                      names[i], port));
      if (listeners[i]) {
        port = listeners[i]->port();
        ASSERT_NE(0, port);
      }
    }
    if (port == 0) port = QXLoopbackPort(QXLoopbackPort::REFUSED, names[0]).port();
    rules(expand(c.rules));
    wnet_T_setHostAddresses("walk.test", names);
    base += 3;

    int before = qxOpenDescriptors();
    qxclnt_curl_prefnet conn("walk.test", static_cast<unsigned>(port), c.budget);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(c.status, connectBlocking(conn));
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double least = roles.find('B') != std::string::npos ? 0.9 : 0;  // half of 2 s, waited
    EXPECT_GE(seconds, least);
    EXPECT_LE(seconds, least + 1);
    int fd = static_cast<int>(conn);
    if (c.accepted >= 0) {
      EXPECT_EQ(names[c.accepted], qxPeerOf(fd));
      EXPECT_EQ("walk.test:" + std::to_string(port) + ":" + names[c.accepted],
                static_cast<std::string>(conn));
      close(fd);
    } else {
      EXPECT_EQ(-1, fd);
      EXPECT_EQ("", static_cast<std::string>(conn));
    }
    for (size_t i = 0; i < listeners.size(); ++i) {
      if (!listeners[i] || roles[i] == 'B') continue;
      std::string peer = listeners[i]->acceptPeer();
      if (static_cast<int>(i) != c.accepted) {
        EXPECT_EQ("", peer) << names[i] << " was dialled";
      } else {
        EXPECT_NE("", peer);
        EXPECT_TRUE(c.source == nullptr || peer == expand(c.source)) << peer;
      }
    }
    conn.reset();
    EXPECT_EQ(before, qxOpenDescriptors()) << "a socket was left open";
  }
  wnet_T_setHostAddresses("walk.test", {});
}

// One step per call, with the caller's select() between steps.
int stepLoop(qxclnt_curl_prefnet& conn, int& action) {
  action = qxclnt_curl_prefnet::ACTION_NONE;
  for (int round = 0; round < 20; ++round) {
    fd_set r, w, e;
    FD_ZERO(&r);
    FD_ZERO(&w);
    FD_ZERO(&e);
    int maxfd = 0;
    long timeout = 0;
    int rc = conn.connect(QXCLNT_CMODE_NONBLOCKING, &action, &r, &w, &e, &maxfd, &timeout);
    if (rc != 0 || action != qxclnt_curl_prefnet::ACTION_WATCH_WRITE) return rc;
    timeval tv = {timeout, 0};
    if (select(maxfd + 1, &r, &w, &e, &tv) == 0) action = qxclnt_curl_prefnet::ACTION_TIMED_OUT;
  }
  return -1;
}

TEST_F(ConnectorTest, NonBlockingStepsInASelectLoop) {
  QXLoopbackPort good(QXLoopbackPort::LISTENING, addr(40, 1));
  ASSERT_NE(0, good.port());
  wnet_T_setHostAddresses("nb.test", {addr(40, 0), addr(40, 1)});  // the first refuses
  rules("");
  qxclnt_curl_prefnet conn("nb.test", static_cast<unsigned>(good.port()), 10);
  int action = 0;
  ASSERT_EQ(WN_STATUS_SUCCESS, stepLoop(conn, action));
  ASSERT_EQ(qxclnt_curl_prefnet::ACTION_CONNECTED, action);
  EXPECT_EQ(addr(40, 1), qxPeerOf(static_cast<int>(conn)));
  close(static_cast<int>(conn));
  conn.reset();

  // The caller's select timing out before any attempt ends the connect.
  action = qxclnt_curl_prefnet::ACTION_TIMED_OUT;
  int maxfd = 0;
  long timeout = 0;
  EXPECT_EQ(WN_STATUS_CONNECT_TIMEOUT, conn.connect(QXCLNT_CMODE_NONBLOCKING, &action, nullptr,
                                                    nullptr, nullptr, &maxfd, &timeout));
  wnet_T_setHostAddresses("nb.test", {});
}

TEST_F(ConnectorTest, BadInput) {
  rules("");
  EXPECT_THROW(qxclnt_curl_prefnet("", 1, 10), int);
  wnet_T_setHostAddresses("nosuch.test", {"not-an-address"});
  qxclnt_curl_prefnet conn("nosuch.test", 1, 10);
  EXPECT_EQ(WN_STATUS_BAD_PARAM, conn.connect(static_cast<qxclnt_cmode_t>(3), nullptr, nullptr,
                                              nullptr, nullptr, nullptr, nullptr));
  QXLogCapture log;
  EXPECT_EQ(WN_STATUS_RESOLVE_FAILED, connectBlocking(conn));
  EXPECT_TRUE(log.contains("Hostname resolution for [nosuch.test] host failed")) << log.dump();
  wnet_T_setHostAddresses("nosuch.test", {});
}

}  // namespace
