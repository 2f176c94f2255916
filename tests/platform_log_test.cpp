#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/qx_config.h"
#include "platform/qx_log.h"
#include "testing/fixture/qx_test_env.h"

namespace {

std::vector<std::string> readLines(const std::string& path) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("QXCURL_LOG");
    unsetenv("QXCURL_LOG_LEVEL");
    qxLogReconfigure();
  }
  void TearDown() override {
    unsetenv("QXCURL_LOG");
    unsetenv("QXCURL_LOG_LEVEL");
    qxSetLogSink(nullptr);
    qxLogReconfigure();
  }
  QXTestRoot m_root;
};

TEST_F(LogTest, QuietByDefaultAndSinkSeesEveryLevel) {
  for (int level : {2, 4, 8, 16}) EXPECT_FALSE(qxLogWanted(level));

  std::vector<std::string> seen;
  qxSetLogSink([&](int level, int category, const std::string& tag, const std::string& text) {
    seen.push_back(std::to_string(level) + "|" + std::to_string(category) + "|" + tag + "|" + text);
  });
  QXLOG(QXLOG_PROGRESS, "Tag::a") << "x = [" << 42 << "]";
  logmsgf(QXLOG_ERROR, 7, "Tag::b", "%s-%d", "y", 5);
  std::string longText(2000, 'z');
  logmsgf(QXLOG_DETAIL, QXLOG_CATEGORY, "Tag::c", "%s", longText.c_str());
  ASSERT_EQ(3u, seen.size());
  EXPECT_EQ("2|5|Tag::a|x = [42]", seen[0]);
  EXPECT_EQ("16|7|Tag::b|y-5", seen[1]);
  EXPECT_EQ("4|5|Tag::c|" + longText, seen[2]);
}

TEST_F(LogTest, FileDestinationHonoursThresholdAndFormat) {
  std::string file = m_root.path("log.txt");
  setenv("QXCURL_LOG", file.c_str(), 1);
  setenv("QXCURL_LOG_LEVEL", "8", 1);
  qxLogReconfigure();
  EXPECT_FALSE(qxLogWanted(QXLOG_DETAIL));
  EXPECT_TRUE(qxLogWanted(QXLOG_OPTION));
  logmsg(QXLOG_DETAIL, QXLOG_CATEGORY, "T", "dropped");
  logmsg(QXLOG_OPTION, QXLOG_CATEGORY, "QXClientCURL::setOpt", "kept\nacross lines");
  QXLOG(QXLOG_ERROR, "T") << "token eyJhbGciOiJIUzI1NiJ9.eyJzdWIiOiJ4In0.sig_Q";

  std::vector<std::string> lines = readLines(file);
  ASSERT_EQ(2u, lines.size());
  std::string pid = " " + std::to_string(getpid()) + " ";
  EXPECT_NE(std::string::npos, lines[0].find(pid + "L8 C5 QXClientCURL::setOpt: kept across lines"))
      << lines[0];
  EXPECT_EQ('Z', lines[0][23]) << "ISO time with milliseconds first: " << lines[0];
  EXPECT_NE(std::string::npos, lines[1].find("L16 C5 T: token ey...Q")) << lines[1];
}

// A log file in "/tmp" that another account replaced by a link: root must not
// append to whatever the link names.
TEST_F(LogTest, LinkedDestinationIsNotWrittenThrough) {
  const std::string victim = m_root.path("victim"), file = m_root.path("linked.log");
  ASSERT_TRUE(qxWriteFile(victim, "precious\n"));
  ASSERT_EQ(0, symlink(victim.c_str(), file.c_str()));
  setenv("QXCURL_LOG", file.c_str(), 1);
  qxLogReconfigure();
  QXLOG(QXLOG_ERROR, "T") << "not here";
  EXPECT_EQ("precious\n", qxReadFile(victim));
}

TEST_F(LogTest, ConcurrentWritersKeepLinesWhole) {
  std::string file = m_root.path("threads.log");
  setenv("QXCURL_LOG", file.c_str(), 1);
  qxLogReconfigure();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 200; ++i)
        QXLOG(QXLOG_PROGRESS, "T") << "thread " << t << " msg " << i << " end";
    });
  }
  for (auto& th : threads) th.join();
  std::vector<std::string> lines = readLines(file);
  ASSERT_EQ(800u, lines.size());
  for (const std::string& l : lines) {
    ASSERT_EQ(" end", l.substr(l.size() - 4)) << l;
    ASSERT_EQ(1u, std::count(l.begin(), l.end(), 'Z')) << l;
  }
}

}  // namespace
