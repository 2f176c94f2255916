#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/qx_lock.h"
#include "testing/fixture/qx_test_env.h"

namespace {

// What ManageLockFile reports in a forked process: 'T' taken, 'H' held
// elsewhere, 'E' another error.
char takeInOtherProcess(const std::string& path) {
  pid_t pid = fork();
  if (pid == 0) {
    int err = 0;
    int h = ManageLockFile(path.c_str(), QXLOCK_TAKE, -1, &err);
    _exit(h >= 0 ? 'T' : (err == QXLOCK_ERR_HELD ? 'H' : 'E'));
  }
  int st = 0;
  return pid > 0 && waitpid(pid, &st, 0) == pid && WIFEXITED(st) ? WEXITSTATUS(st) : 0;
}

class LockTest : public ::testing::Test {
 protected:
  QXTestRoot m_root;
  std::string m_path = m_root.path("test.lck");
};

TEST_F(LockTest, ManageLockFileExcludesOtherProcesses) {
  int err = 0;
  int h = ManageLockFile(m_path.c_str(), QXLOCK_TAKE, -1, &err);
  ASSERT_GE(h, 0);
  EXPECT_EQ(0, err);
  EXPECT_EQ('H', takeInOtherProcess(m_path));
  // Another handle of this process too: threads sharing JWTLock rely on it.
  EXPECT_EQ(-1, ManageLockFile(m_path.c_str(), QXLOCK_TAKE, -1, &err));
  EXPECT_EQ(QXLOCK_ERR_HELD, err);
  EXPECT_EQ(0, ManageLockFile(m_path.c_str(), QXLOCK_RELEASE, h, &err));
  EXPECT_EQ(-1, ManageLockFile(m_path.c_str(), QXLOCK_RELEASE, h, &err));  // already closed
  EXPECT_EQ('T', takeInOtherProcess(m_path));
}

// Shared and exclusive wait_lock are proven by the concurrency suite (one
// login per refresh) and the fault matrix (a stopped exclusive holder).

TEST_F(LockTest, BadArgumentsFailWithoutBlocking) {
  int err = 0;
  EXPECT_EQ(-1, ManageLockFile(nullptr, QXLOCK_TAKE, -1, &err));
  EXPECT_EQ(QXLOCK_ERR_BAD_ARGUMENT, err);
  EXPECT_EQ(-1, ManageLockFile(m_path.c_str(), 7, -1, &err));
  EXPECT_EQ(-1, ManageLockFile(m_path.c_str(), QXLOCK_RELEASE, -1, &err));
  EXPECT_EQ(-1, ManageLockFile(m_root.path("missing/dir/x.lck").c_str(), QXLOCK_TAKE, -1, &err));
  EXPECT_EQ(ENOENT, err);
  int h = ManageLockFile(m_path.c_str(), QXLOCK_TAKE, -1, nullptr);  // err is optional
  EXPECT_GE(h, 0);
  EXPECT_EQ(0, ManageLockFile(nullptr, QXLOCK_RELEASE, h, nullptr));
  EXPECT_EQ(-1, wait_lock(m_path.c_str(), 2, &err));
  EXPECT_EQ(EINVAL, err);
  EXPECT_EQ(-1, wait_lock(nullptr, 0, &err));
  EXPECT_EQ(-1, wait_unlock(-1, &err));
}

}  // namespace
