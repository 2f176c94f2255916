#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/qx_process.h"
#include "qxcurl/qx_status.h"
#include "testing/fixture/qx_test_env.h"

namespace {

TEST(ProcessTest, ExitStatusesAndFailuresToStart) {
  struct Case {
    std::string path;
    std::vector<std::string> args;
    int status;
    bool exited;
    int exitStatus;
    int signal;
  } cases[] = {
      {"/bin/true", {}, 0, true, 0, 0},
      {"/bin/sh", {"-c", "exit 7"}, QX_ERR_CHILD_EXIT, true, 7, 0},
      {"/bin/sh", {"-c", "kill -TERM $$"}, QX_ERR_CHILD_SIGNAL, false, -1, SIGTERM},
      {"true", {}, QX_ERR_EXEC, false, -1, 0},  // no PATH search
  };
  for (const Case& c : cases) {
    QXChildInfo info;
    int status = ProcessExec::executeCommand(c.path, c.args, info);
    EXPECT_EQ(c.status, status) << c.path;
    EXPECT_EQ(c.exited, info.exited) << c.path;
    EXPECT_EQ(c.exitStatus, info.exitStatus) << c.path;
    EXPECT_EQ(c.signal, info.termSignal) << c.path;
    EXPECT_FALSE(ProcessExec::getErrorReason(status, &info).empty());
  }
  QXChildInfo info;
  EXPECT_EQ(QX_ERR_EXEC, ProcessExec::executeCommand("/no/such/program", {}, info));
  EXPECT_EQ(ENOENT, info.spawnErrno);
  EXPECT_EQ(QX_ERR_BAD_ARGUMENT, ProcessExec::executeCommand("", {}, info));
}

TEST(ProcessTest, ArgumentsReachTheProgramUntouchedByAShell) {
  QXTestRoot root;
  std::string out = root.path("args.txt");
  const std::string tricky = "a b;$(touch x) 'q' \"d\" *";
  QXChildInfo info;
  ASSERT_EQ(0, ProcessExec::executeCommand(
                   "/bin/sh",
                   {"-c", "printf '%s|%s' \"$1\" \"$2\" > \"$3\"", "sh", tricky, "", out}, info));
  std::ifstream in(out);
  std::stringstream got;
  got << in.rdbuf();
  EXPECT_EQ(tricky + "|", got.str());

  bool noWait = false;
  ASSERT_EQ(0, ProcessExec::executeCommand("/bin/true", {}, info, noWait));
  ASSERT_GT(info.pid, 0);
  int st = 0;
  EXPECT_EQ(info.pid, waitpid(info.pid, &st, 0));  // the caller reaps it
}

// popen_r reading and exit codes are ExecCustomScript's (token_user_test).
TEST(ProcessTest, PopenRefusesBadArguments) {
  EXPECT_EQ(-1, pclose_r(nullptr, nullptr));
  EXPECT_EQ(nullptr, popen_r(nullptr, "r", nullptr));
  EXPECT_EQ(nullptr, popen_r("true", "x", nullptr));
}

}  // namespace
