#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "platform/qx_config.h"
#include "platform/qx_log.h"
#include "platform/qx_root.h"
#include "qxcurl/qx_status.h"
#include "testing/fixture/qx_test_env.h"

namespace {

using namespace std::string_literals;
using Values = std::vector<std::string>;

class ConfigTest : public ::testing::Test {
 protected:
  QXTestRoot m_root;
  QXConfigHandle read(const std::string& text) {
    m_root.writeConfig(text);
    EXPECT_EQ(0, QX_read_master_config());
    return get_master_config_ptr();
  }
};

TEST_F(ConfigTest, ParsesValuesListsAndComments) {
  QXConfigHandle cfg = read(
      "\xEF\xBB\xBF# comment\n"
      "SERVER = master1\r\n"
      "\n"
      "   # indented comment\n"
      "SERVER=master2   # trailing comment\n"
      "MEDIA_SERVER = m#1\n"
      "URL = a=b=c\n"
      "EMPTY =\n"
      "server = lower-case key is its own key\n"
      "SERVER = master3");
  struct Case {
    const char* key;
    Values values;
  } cases[] = {
      {"SERVER", {"master1", "master2", "master3"}},
      {"MEDIA_SERVER", {"m#1"}},
      {"URL", {"a=b=c"}},
      {"EMPTY", {""}},
      {"server", {"lower-case key is its own key"}},
      {"ABSENT", {}},
  };
  for (const Case& c : cases) EXPECT_EQ(c.values, bpconfGetKeyValues(cfg, c.key)) << c.key;
  std::string last;
  EXPECT_EQ(0, bpconfGetKeyValue(cfg, "SERVER", last));
  EXPECT_EQ("master3", last);
  EXPECT_EQ(1, bpconfGetKeyValue(cfg, "ABSENT", last));
}

TEST_F(ConfigTest, MalformedLinesAreLoggedWithLineNumberAndSkipped) {
  QXLogCapture log;
  QXConfigHandle cfg = read(
      "GOOD = 1\n"
      "no equals sign here\n"
      " = value without key\n"
      "TWO WORDS = x\n"
      "NUL\0BYTE = y\n"
      "ALSO_GOOD = 2\n"
      "PASSWORD secret-value\n"s);
  EXPECT_EQ(Values{"1"}, bpconfGetKeyValues(cfg, "GOOD"));
  EXPECT_EQ(Values{"2"}, bpconfGetKeyValues(cfg, "ALSO_GOOD"));
  for (const char* expected :
       {":2: malformed line skipped (no '=')", ":3: malformed line skipped (empty key)",
        ":4: malformed line skipped (invalid key)", ":5: malformed line skipped (NUL byte)",
        ":7: malformed line skipped (no '=')"}) {
    EXPECT_TRUE(log.contains(QXLOG_ERROR, std::string("arvion.conf") + expected)) << log.dump();
  }
  EXPECT_EQ(5u, log.count("malformed line skipped"));
  EXPECT_EQ(0u, log.count("secret-value"));
}

TEST_F(ConfigTest, YesNoWordsInAnyCase) {
  struct Case {
    const char* text;
    int status;
    bool value;
  } cases[] = {{"yes", 0, true}, {"True", 0, true},       {"on", 0, true}, {"1", 0, true},
               {"NO", 0, false}, {"Off", 0, false},       {"y", 2, false}, {"2", 2, false},
               {"", 2, false},   {"YES please", 2, false}};
  for (const Case& c : cases) {
    QXConfigHandle cfg = read(std::string("SWITCH = ") + c.text + "\n");
    bool v = !c.value;
    EXPECT_EQ(c.status, bpconfGetKeyValPairAsBool(cfg, "SWITCH", &v)) << c.text;
    if (c.status == 0) {
      EXPECT_EQ(c.value, v) << c.text;
    }
  }
  bool untouched = true;
  EXPECT_EQ(1, bpconfGetKeyValPairAsBool(get_master_config_ptr(), "ABSENT", &untouched));
  EXPECT_TRUE(untouched);
}

TEST_F(ConfigTest, ChangedFileIsSeenOnNextRead) {
  // Same size, written back to back: the stat data alone may not tell them apart.
  QXConfigHandle cfg = read("VALUE = aaa\n");
  EXPECT_EQ(Values{"aaa"}, bpconfGetKeyValues(cfg, "VALUE"));
  cfg = read("VALUE = bbb\n");
  EXPECT_EQ(Values{"bbb"}, bpconfGetKeyValues(cfg, "VALUE"));
  // An old file whose content changed with its timestamps set back.
  m_root.writeConfig("VALUE = ccc\n");
  struct timespec old[2] = {{1000000, 0}, {1000000, 0}};
  utimensat(AT_FDCWD, m_root.path("arvion/arvion.conf").c_str(), old, 0);
  ASSERT_EQ(0, QX_read_master_config());
  EXPECT_EQ(Values{"ccc"}, bpconfGetKeyValues(get_master_config_ptr(), "VALUE"));
}

int64_t g_nowNs = 0;

TEST_F(ConfigTest, FileIsLookedAtOnceASecondAndOncePerSnapshot) {
  qxConfigT_setClock([] { return g_nowNs; });
  auto value = [] {
    EXPECT_EQ(0, QX_read_master_config());
    return bpconfGetKeyValues(get_master_config_ptr(), "VALUE");
  };
  auto rewrite = [&](const char* text) {  // as another process would: no qxConfigChanged
    ASSERT_TRUE(qxWriteFile(m_root.path("arvion/arvion.conf"), text));
  };
  read("VALUE = a\n");
  rewrite("VALUE = b\n");
  g_nowNs += 999999999;
  EXPECT_EQ(Values{"a"}, value());  // looked at less than a second ago
  g_nowNs += 1;
  EXPECT_EQ(Values{"b"}, value());
  {
    QXConfigSnapshot request;
    rewrite("VALUE = c\n");
    g_nowNs += 5000000000;
    qxConfigChanged();
    EXPECT_EQ(Values{"b"}, value());  // one configuration for the whole request
    {
      QXConfigSnapshot nested;
      EXPECT_EQ(Values{"b"}, value());
    }
  }
  EXPECT_EQ(Values{"c"}, value());
  qxConfigT_setClock(nullptr);
}

TEST_F(ConfigTest, UnusableFilesGiveAStatusAndAnEmptyConfiguration) {
  read("VALUE = x\n");
  m_root.writeConfig(std::string(1024 * 1024 + 1, 'A'));
  EXPECT_EQ(QX_ERR_FILE_NOT_FOUND, QX_read_master_config());
  EXPECT_TRUE(bpconfGetKeyValues(get_master_config_ptr(), "VALUE").empty());

  unlink(m_root.path("arvion/arvion.conf").c_str());
  mkdir(m_root.path("arvion/arvion.conf").c_str(), 0755);
  qxConfigChanged();
  EXPECT_EQ(QX_ERR_FILE_NOT_FOUND, QX_read_master_config());
  rmdir(m_root.path("arvion/arvion.conf").c_str());
}

TEST_F(ConfigTest, IntegersAndCrlCheckLevel) {
  struct Case {
    const char* line;
    int status;
    unsigned level;
  } cases[] = {{"", 0, 1},
               {"CRL_CHECK_LEVEL = 0", 0, 0},
               {"CRL_CHECK_LEVEL = 2", 0, 2},
               {"CRL_CHECK_LEVEL = 3", QX_ERR_BAD_ARGUMENT, 0},
               {"CRL_CHECK_LEVEL = 1x", QX_ERR_BAD_ARGUMENT, 0},
               {"CRL_CHECK_LEVEL = 99999999999999999999", QX_ERR_BAD_ARGUMENT, 0}};
  for (const Case& c : cases) {
    m_root.writeConfig(std::string(c.line) + "\n");
    unsigned level = 77;
    EXPECT_EQ(c.status, getCrlCheckLevelFromConfig(&level)) << c.line;
    if (c.status == 0) {
      EXPECT_EQ(c.level, level) << c.line;
    }
  }
}

TEST_F(ConfigTest, WebServiceRecord) {
  QXLogCapture log;
  m_root.writeConfig(
      "SERVER = master\nSERVER = other\nMEDIA_SERVER = media1\n"
      "WEB_SERVER_CONNECT_TIMEOUT = 45\nWEB_SERVER_TUNNEL_ENABLE = yes\n"
      "WEB_SERVER_TUNNEL = master tunnel1\nWEB_SERVER_TUNNEL = master\n"
      "WEB_SERVER_TUNNEL = a b c\nWEB_SERVER_TUNNEL = Other\ttunnel2\n");
  qxconf_info* info = nullptr;
  ASSERT_EQ(0, qxconf_get_info(&info));
  Values servers, media;
  for (auto* e = info->server_list; e; e = e->next) servers.push_back(e->name);
  for (auto* e = info->media_server_list; e; e = e->next) media.push_back(e->name);
  EXPECT_EQ((Values{"master", "other"}), servers);
  EXPECT_EQ(Values{"media1"}, media);
  EXPECT_EQ(45, info->websvr_connect_timeout);
  EXPECT_EQ(2, info->tunnel_use);
  EXPECT_EQ(1, info->tunnel_enabled);
  Values tunnels;
  for (auto* e = info->tunnel_overrides; e; e = e->next)
    tunnels.push_back(std::string(e->host) + ">" + e->tunnel);
  EXPECT_EQ((Values{"master>tunnel1", "Other>tunnel2"}), tunnels);
  size_t errors = 0;
  for (const QXLogLine& l : log.lines()) errors += l.level == QXLOG_ERROR;
  EXPECT_EQ(2u, errors) << log.dump();  // the two malformed tunnel lines
  qxconf_free_info(&info);
  EXPECT_EQ(nullptr, info);
}

TEST(RootTest, PathsFollowTheRelocatedRoot) {
  setenv("ARVION_ROOT", "/tmp/elsewhere/", 1);
  struct Case {
    const char* in;
    const char* out;
  } cases[] = {
      {"/usr/tarvo/tmp", "/tmp/elsewhere/tmp"},
      {"/usr/tarvo/var/webtruststore/cacert.pem", "/tmp/elsewhere/var/webtruststore/cacert.pem"},
      {"/usr/tarvox/tmp", "/usr/tarvox/tmp"},
      {"relative", "relative"}};
  for (const Case& c : cases) EXPECT_EQ(c.out, qxRootPath(c.in)) << c.in;
  char buf[64];
  EXPECT_EQ(0, getQXInstallDir(buf, sizeof buf));
  EXPECT_STREQ("/tmp/elsewhere/", buf);
  EXPECT_EQ(QX_ERR_BAD_ARGUMENT, getQXInstallDir(buf, 5));
  EXPECT_EQ(QX_ERR_BAD_ARGUMENT, getQXInstallDir(nullptr, 64));
  unsetenv("ARVION_ROOT");
  EXPECT_EQ("/usr/tarvo/tmp", qxRootPath("/usr/tarvo/tmp"));
}

}  // namespace
