// Advisory locks across processes, and the lock holders built on them.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "platform/qx_lock.h"
#include "qxcurl/qx_lock_file.h"
#include "qxcurl/qx_status.h"
#include "testing/fixture/qx_test_env.h"

namespace {

std::vector<int> g_sleeps;
void recordSleep(int seconds) { g_sleeps.push_back(seconds); }

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
  void SetUp() override {
    g_sleeps.clear();
    QXLockFile::T_setSleeper(recordSleep);
  }
  void TearDown() override { QXLockFile::T_setSleeper(nullptr); }
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

TEST_F(LockTest, BadArgumentsFailWithoutBlockingOrRetries) {
  int err = 0;
  EXPECT_EQ(-1, ManageLockFile(nullptr, QXLOCK_TAKE, -1, &err));
  EXPECT_EQ(QXLOCK_ERR_BAD_ARGUMENT, err);
  EXPECT_EQ(-1, ManageLockFile(m_path.c_str(), 7, -1, &err));
  EXPECT_EQ(-1, ManageLockFile(m_path.c_str(), QXLOCK_RELEASE, -1, &err));
  const std::string missing = m_root.path("missing/dir/x.lck");
  EXPECT_EQ(-1, ManageLockFile(missing.c_str(), QXLOCK_TAKE, -1, &err));
  EXPECT_EQ(ENOENT, err);
  int h = ManageLockFile(m_path.c_str(), QXLOCK_TAKE, -1, nullptr);  // err is optional
  EXPECT_GE(h, 0);
  EXPECT_EQ(0, ManageLockFile(nullptr, QXLOCK_RELEASE, h, nullptr));
  EXPECT_EQ(-1, wait_lock(m_path.c_str(), 2, &err));
  EXPECT_EQ(EINVAL, err);
  EXPECT_EQ(-1, wait_unlock(-1, &err));
  {
    QXLockFile lock(missing.c_str(), 10, 5);
    EXPECT_FALSE(lock.isLocked());
    EXPECT_NE(QXLOCK_ERR_HELD, lock.getLastError());
    EXPECT_TRUE(g_sleeps.empty());  // only a held lock is waited for
  }
  QXTFLock shared;
  for (int mode : {2, -1}) EXPECT_EQ(QX_ERR_BAD_ARGUMENT, shared.lock(m_path.c_str(), mode));
  EXPECT_EQ(QX_ERR_LOCK, shared.lock(missing.c_str(), 1));
  EXPECT_FALSE(shared.isLocked());
  int status = -1;
  { QXTFLockHelper none(nullptr, m_path.c_str(), 0, &status); }
  EXPECT_EQ(QX_ERR_LOCK, status);
}

// The platform's locks belong to an open file, so a handle taken here
// contends like another process would. (Ten retries against a stopped
// holder are a row of the fault matrix.)
TEST_F(LockTest, LockFileHolders) {
  int err = 0;
  int other = ManageLockFile(m_path.c_str(), QXLOCK_TAKE, -1, &err);
  ASSERT_NE(-1, other);
  {
    QXLockFile lock(m_path.c_str(), 0, 5);
    EXPECT_FALSE(lock.isLocked());
    EXPECT_EQ(QXLOCK_ERR_HELD, lock.getLastError());
    EXPECT_EQ(std::vector<int>{5}, g_sleeps);
  }
  ASSERT_EQ(0, ManageLockFile(m_path.c_str(), QXLOCK_RELEASE, other, &err));
  {
    QXLockFile lock(m_path.c_str(), 10, 5);
    ASSERT_TRUE(lock.isLocked());
    EXPECT_TRUE(lock.lock_file());  // already held: no second take
    EXPECT_TRUE(lock.unlock_file());
    EXPECT_TRUE(lock.unlock_file());
    EXPECT_TRUE(lock.lock_file());
  }
  EXPECT_EQ('T', takeInOtherProcess(m_path));  // released by the destructor
  QXTFLock shared;
  int status = -1;
  {
    QXTFLockHelper guard(&shared, m_path.c_str(), 1, &status);
    EXPECT_EQ(0, status);
    EXPECT_TRUE(shared.isLocked());
  }
  EXPECT_FALSE(shared.isLocked());
}

}  // namespace
