// Preferred-network rules (parsing and matching) and the resolver cache of the
// network library.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/qx_wnet.h"
#include "testing/fixture/qx_test_env.h"  // QXLogCapture

namespace {

struct MatchCase {
  const char* name;
  const char* rules;  // separated by ';'
  const char* remote;
  const char* expect;  // "permit", "prohibit" or the bind address
  int rule;            // position of the deciding rule, 0 for none
};

std::vector<std::string> split(const std::string& rules) {
  std::vector<std::string> out;
  for (size_t pos = 0, end; pos < rules.size(); pos = end + 1) {
    end = rules.find(';', pos);
    if (end == std::string::npos) end = rules.size();
    out.push_back(rules.substr(pos, end - pos));
  }
  return out;
}

TEST(PrefnetRules, MatchTable) {
  std::vector<WnetIface> ifaces(3);
  const char* ifaceAddrs[] = {"10.0.0.7", "192.168.5.9", "fd00::7"};
  const int ifacePrefixes[] = {24, 16, 64};
  for (int i = 0; i < 3; ++i) {
    wnet_parse_addr(ifaceAddrs[i], ifaces[i].addr);
    ifaces[i].prefix = ifacePrefixes[i];
  }
  const MatchCase cases[] = {
      {"exact v4", "10.0.0.5 PROHIBITED", "10.0.0.5", "prohibit", 1},
      {"other v4", "10.0.0.5 PROHIBITED", "10.0.0.6", "permit", 0},
      {"cidr last", "10.1.0.0/16 ONLY 192.168.1.2", "10.1.255.255", "192.168.1.2", 1},
      {"/20 inside", "172.16.0.0/20 PROHIBITED", "172.16.15.255", "prohibit", 1},
      {"/31", "10.0.0.0/31 PROHIBITED", "10.0.0.2", "permit", 0},
      {"host bits ignored", "10.1.2.3/8 PROHIBITED", "10.200.0.1", "prohibit", 1},
      {"first wins", "10.0.0.0/8 ONLY 1.1.1.1;10.1.0.0/16 PROHIBITED", "10.1.0.1", "1.1.1.1", 1},
      {"malformed keeps positions", "garbage;10.0.0.1 PROHIBITED", "10.0.0.1", "prohibit", 2},
      {"v6 cidr", "2001:db8::/32 PROHIBITED", "2001:db8:ffff::1", "prohibit", 1},
      {"v6 /65", "fd00:0:0:0:8000::/65 PROHIBITED", "fd00::7fff:0:0:1", "permit", 0},
      {"v6 bracketed", "[fd00::1] ONLY [fd00::2]", "fd00::1", "fd00::2", 1},
      {"v4-mapped remote", "10.0.0.5 PROHIBITED", "::ffff:10.0.0.5", "prohibit", 1},
      {"v4-mapped rule", "::ffff:10.0.0.0/104 PROHIBITED", "10.0.0.9", "prohibit", 1},
      {"match own subnet", "10.0.0.0/8 MATCH", "10.0.0.200", "10.0.0.7", 1},
      {"match no subnet", "10.0.0.0/8 MATCH", "10.9.0.1", "permit", 1},
      {"match by network", "0.0.0.0/0 MATCH 192.168.0.0/16", "8.8.8.8", "192.168.5.9", 1},
  };
  for (const MatchCase& c : cases) {
    auto set = wnet_parse_pref_rules(split(c.rules));
    // As a socket reports it, so that IPv4-mapped addresses unmap.
    sockaddr_in6 sa{};
    sa.sin6_family = AF_INET6;
    std::string text = std::strchr(c.remote, ':') ? c.remote : "::ffff:" + std::string(c.remote);
    ASSERT_EQ(1, inet_pton(AF_INET6, text.c_str(), &sa.sin6_addr)) << c.name;
    WnetAddr remote;
    ASSERT_TRUE(wnet_addr_of(reinterpret_cast<sockaddr*>(&sa), sizeof sa, remote));
    WnetPrefDecision d = wnet_decide(*set, remote, ifaces);
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
      "10.0.0.1/8x PROHIBITED",
      "host.example PROHIBITED",
      "10.0.0.1 ONLY",
      "10.0.0.1 ONLY ::1",
      "10.0.0.1 PROHIBITED 1.2.3.4",
      "10.0.0.1 MATCH fd00::/8",
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

TEST(PrefnetResolver, OrderWithoutRepeatsAndFamilies) {
  wnet_T_setHostAddresses("two.test", {"127.0.1.1", "::1", "127.0.1.1", "127.0.1.2"});
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

  EXPECT_EQ(WN_STATUS_BAD_PARAM, wnet_cached_getaddrinfo("", "443", &hints, &list, &gai));
  wnet_T_setHostAddresses("two.test", {});
}

}  // namespace
