// Preferred-network rules (parsing and matching) and the resolver cache of the
// network library.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/un.h>

#include <cstring>
#include <string>
#include <vector>

#include "qx_test_env.h"
#include "qx_wnet.h"

namespace {

struct MatchCase {
  const char* name;
  std::vector<std::string> rules;
  const char* remote;
  const char* expect;  // "permit", "prohibit" or the bind address
  int rule;            // position of the deciding rule, 0 for none
};

const std::vector<WnetIface>& testInterfaces() {
  static std::vector<WnetIface> ifaces;
  if (ifaces.empty()) {
    for (auto [text, prefix] : std::vector<std::pair<const char*, int>>{
             {"10.0.0.7", 24}, {"192.168.5.9", 16}, {"fd00::7", 64}}) {
      WnetIface f;
      wnet_parse_addr(text, f.addr);
      f.prefix = prefix;
      ifaces.push_back(f);
    }
  }
  return ifaces;
}

TEST(PrefnetRules, MatchTable) {
  const std::vector<MatchCase> cases = {
      {"exact v4", {"10.0.0.5 PROHIBITED"}, "10.0.0.5", "prohibit", 1},
      {"other v4", {"10.0.0.5 PROHIBITED"}, "10.0.0.6", "permit", 0},
      {"keyword case", {"10.0.0.5 prohibited"}, "10.0.0.5", "prohibit", 1},
      {"cidr last", {"10.1.0.0/16 ONLY 192.168.1.2"}, "10.1.255.255", "192.168.1.2", 1},
      {"cidr above", {"10.1.0.0/16 ONLY 192.168.1.2"}, "10.2.0.0", "permit", 0},
      {"cidr below", {"10.1.0.0/16 ONLY 192.168.1.2"}, "10.0.255.255", "permit", 0},
      {"/20 inside", {"172.16.0.0/20 PROHIBITED"}, "172.16.15.255", "prohibit", 1},
      {"/20 outside", {"172.16.0.0/20 PROHIBITED"}, "172.16.16.0", "permit", 0},
      {"/31", {"10.0.0.0/31 PROHIBITED"}, "10.0.0.2", "permit", 0},
      {"host bits ignored", {"10.1.2.3/8 PROHIBITED"}, "10.200.0.1", "prohibit", 1},
      {"/0 is every v4", {"0.0.0.0/0 PROHIBITED"}, "8.8.8.8", "prohibit", 1},
      {"/0 v4 not v6", {"0.0.0.0/0 PROHIBITED"}, "2001:db8::1", "permit", 0},
      {"first match wins",
       {"10.0.0.0/8 ONLY 1.1.1.1", "10.1.0.0/16 PROHIBITED"},
       "10.1.0.1",
       "1.1.1.1",
       1},
      {"first match wins reversed",
       {"10.1.0.0/16 PROHIBITED", "10.0.0.0/8 ONLY 1.1.1.1"},
       "10.1.0.1",
       "prohibit",
       1},
      {"malformed keeps positions", {"garbage", "10.0.0.1 PROHIBITED"}, "10.0.0.1", "prohibit", 2},
      {"v6 cidr", {"2001:db8::/32 PROHIBITED"}, "2001:db8:ffff::1", "prohibit", 1},
      {"v6 outside", {"2001:db8::/32 PROHIBITED"}, "2001:db9::", "permit", 0},
      {"v6 /65", {"fd00:0:0:0:8000::/65 PROHIBITED"}, "fd00::7fff:0:0:1", "permit", 0},
      {"v6 only bracketed", {"[fd00::1] ONLY [fd00::2]"}, "fd00::1", "fd00::2", 1},
      {"v4-mapped remote", {"10.0.0.5 PROHIBITED"}, "::ffff:10.0.0.5", "prohibit", 1},
      {"v4-mapped rule", {"::ffff:10.0.0.0/104 PROHIBITED"}, "10.0.0.9", "prohibit", 1},
      {"match own subnet", {"10.0.0.0/8 MATCH"}, "10.0.0.200", "10.0.0.7", 1},
      {"match no subnet", {"10.0.0.0/8 MATCH"}, "10.9.0.1", "permit", 1},
      {"match by network", {"0.0.0.0/0 MATCH 192.168.0.0/16"}, "8.8.8.8", "192.168.5.9", 1},
      {"match v6", {"fd00::/8 MATCH"}, "fd00::99", "fd00::7", 1},
  };
  for (const MatchCase& c : cases) {
    auto set = wnet_parse_pref_rules(c.rules);
    WnetAddr remote;
    ASSERT_TRUE(wnet_parse_addr(c.remote, remote)) << c.name;
    if (remote.family == AF_INET6) {
      // As a socket would report it, so that IPv4-mapped addresses unmap.
      sockaddr_in6 sa{};
      sa.sin6_family = AF_INET6;
      std::memcpy(&sa.sin6_addr, remote.bytes, 16);
      ASSERT_TRUE(wnet_addr_of(reinterpret_cast<sockaddr*>(&sa), sizeof sa, remote));
    }
    WnetPrefDecision d = wnet_decide(*set, remote, testInterfaces());
    std::string got = d.prohibited ? "prohibit" : d.bind ? wnet_addr_text(d.local) : "permit";
    EXPECT_EQ(c.expect, got) << c.name;
    EXPECT_EQ(c.rule, d.rule ? d.rule->position : 0) << c.name;
  }
}

TEST(PrefnetRules, MalformedRulesAreLoggedAndIgnored) {
  const std::vector<std::string> bad = {
      "",
      "10.0.0.1",
      "10.0.0.1 DENY",
      "10.0.0.1/33 PROHIBITED",
      "2001:db8::/129 PROHIBITED",
      "10.0.0.1/ PROHIBITED",
      "10.0.0.1/-1 PROHIBITED",
      "10.0.0.1/8x PROHIBITED",
      "host.example PROHIBITED",
      "[10.0.0.1] PROHIBITED",
      "10.0.0.1 ONLY",
      "10.0.0.1 ONLY ::1",
      "10.0.0.1 ONLY 10.0.0.0/8",
      "10.0.0.1 PROHIBITED 1.2.3.4",
      "10.0.0.1 MATCH fd00::/8",
      "10.0.0.1 MATCH 1.2.3.4 extra",
      std::string("10.0.0.1\0 PROHIBITED", 20),
  };
  QXLogCapture log;
  auto set = wnet_parse_pref_rules(bad);
  EXPECT_TRUE(set->rules.empty());
  for (size_t i = 1; i <= bad.size(); ++i) {
    EXPECT_TRUE(log.contains("PREFERRED_NETWORK entry [" + std::to_string(i) + "]")) << i;
  }
  EXPECT_TRUE(
      log.contains("\"10.0.0.1 DENY\" ignored: the action is not ONLY, PROHIBITED or MATCH"))
      << log.dump();
}

TEST(PrefnetRules, ConfigurationParsedOncePerChange) {
  QXTestRoot root;
  ASSERT_TRUE(root.ok()) << root.error();
  ASSERT_TRUE(root.writeConfig("PREFERRED_NETWORK = 127.0.1.0/24 ONLY 127.0.1.9\n"));
  auto first = wnet_current_pref_rules();
  EXPECT_EQ(first.get(), wnet_current_pref_rules().get());
  ASSERT_EQ(1u, first->rules.size());

  sockaddr_in remote{};
  remote.sin_family = AF_INET;
  inet_pton(AF_INET, "127.0.1.77", &remote.sin_addr);
  wnet_pref_netconnection answer;
  ASSERT_EQ(WN_STATUS_SUCCESS, wnet_get_pref_netconnection(reinterpret_cast<sockaddr*>(&remote),
                                                           sizeof remote, &answer));
  ASSERT_NE(nullptr, answer.local);
  char text[INET6_ADDRSTRLEN];
  ASSERT_EQ(0, wnet_sockAddrNtoP(answer.local->ai_addr, text, sizeof text));
  EXPECT_STREQ("127.0.1.9", text);
  EXPECT_EQ(1, answer.rule);
  EXPECT_EQ(0, answer.prohibited);
  wnet_freeaddrinfo(answer.local);

  ASSERT_TRUE(root.writeConfig("PREFERRED_NETWORK = 127.0.1.0/24 PROHIBITED\n"));
  auto second = wnet_current_pref_rules();
  EXPECT_NE(first.get(), second.get());
  EXPECT_EQ(WnetRule::PROHIBITED, second->rules.at(0).action);

  sockaddr_un unix{};
  unix.sun_family = AF_UNIX;
  EXPECT_EQ(WN_STATUS_BAD_PARAM,
            wnet_get_pref_netconnection(reinterpret_cast<sockaddr*>(&unix), sizeof unix, &answer));
}

TEST(PrefnetResolver, CacheSeamOrderAndFailures) {
  wnet_T_setHostAddresses("two.test", {"127.0.1.1", "::1", "127.0.1.1", "127.0.1.2"});
  wnet_T_setHostAddresses("none.test", {"not-an-address"});
  addrinfo hints = wnet_get_default_hints(AF_UNSPEC);
  addrinfo* list = nullptr;
  int gai = 0;
  ASSERT_EQ(WN_STATUS_SUCCESS, wnet_cached_getaddrinfo("two.test", "443", &hints, &list, &gai));
  EXPECT_EQ(3, wnet_sortaddrs(&list));
  std::vector<std::string> got;
  for (addrinfo* p = list; p != nullptr; p = p->ai_next) {
    char text[INET6_ADDRSTRLEN];
    ASSERT_EQ(0, wnet_sockAddrNtoPWithLength(p->ai_addr, p->ai_addrlen, text, sizeof text));
    got.push_back(text);
    EXPECT_EQ(443, ntohs(reinterpret_cast<sockaddr_in*>(p->ai_addr)->sin_port));
  }
  EXPECT_EQ((std::vector<std::string>{"127.0.1.1", "::1", "127.0.1.2"}), got);
  wnet_freeaddrinfo(list);

  hints = wnet_get_default_hints(AF_INET);
  ASSERT_EQ(WN_STATUS_SUCCESS, wnet_cached_getaddrinfo("two.test", "443", &hints, &list, &gai));
  EXPECT_EQ(2, wnet_sortaddrs(&list));
  wnet_freeaddrinfo(list);

  EXPECT_EQ(WN_STATUS_RESOLVE_FAILED,
            wnet_cached_getaddrinfo("none.test", "443", &hints, &list, &gai));
  EXPECT_NE(0, gai);
  EXPECT_EQ(nullptr, list);
  EXPECT_EQ(WN_STATUS_BAD_PARAM, wnet_cached_getaddrinfo("", "443", &hints, &list, &gai));

  wnet_T_setHostAddresses("two.test", {});
  wnet_T_setHostAddresses("none.test", {});
}

}  // namespace
