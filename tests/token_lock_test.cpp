// Lock holders over the platform's advisory locks.
#include <gtest/gtest.h>

#include <vector>

#include "platform/qx_lock.h"
#include "qxcurl/qx_lock_file.h"
#include "qxcurl/qx_status.h"
#include "testing/fixture/qx_test_env.h"

namespace {

std::vector<int> g_sleeps;
void recordSleep(int seconds) { g_sleeps.push_back(seconds); }

class TokenLockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_root.ok()) << m_root.error();
    g_sleeps.clear();
    QXLockFile::T_setSleeper(recordSleep);
  }
  void TearDown() override { QXLockFile::T_setSleeper(nullptr); }
  std::string lockPath() const { return m_root.path("tmp/t.lck"); }
  QXTestRoot m_root;
};

// The platform's locks belong to an open file, so a handle taken here
// contends like another process would. (Ten retries against a stopped
// holder are a row of the fault matrix.)
TEST_F(TokenLockTest, ContendedLockIsTriedOnceWithoutRetries) {
  int err = 0;
  int other = ManageLockFile(lockPath().c_str(), QXLOCK_TAKE, -1, &err);
  ASSERT_NE(-1, other);
  {
    QXLockFile lock(lockPath().c_str(), 0, 5);
    EXPECT_FALSE(lock.isLocked());
    EXPECT_EQ(QXLOCK_ERR_HELD, lock.getLastError());
    EXPECT_EQ(std::vector<int>{5}, g_sleeps);
  }
  ASSERT_EQ(0, ManageLockFile(lockPath().c_str(), QXLOCK_RELEASE, other, &err));
  {
    QXLockFile lock(lockPath().c_str(), 10, 5);
    ASSERT_TRUE(lock.isLocked());
    EXPECT_TRUE(lock.lock_file());  // already held: no second take
    EXPECT_TRUE(lock.unlock_file());
    EXPECT_TRUE(lock.unlock_file());
    EXPECT_TRUE(lock.lock_file());
  }
  // Released by the destructor.
  EXPECT_NE(-1, other = ManageLockFile(lockPath().c_str(), QXLOCK_TAKE, -1, &err));
  ManageLockFile(lockPath().c_str(), QXLOCK_RELEASE, other, &err);
}

TEST_F(TokenLockTest, OtherErrorsAreNotRetried) {
  QXLockFile lock(m_root.path("no/such/dir/x.lck").c_str(), 10, 5);
  EXPECT_FALSE(lock.isLocked());
  EXPECT_NE(0, lock.getLastError());
  EXPECT_NE(QXLOCK_ERR_HELD, lock.getLastError());
  EXPECT_TRUE(g_sleeps.empty());
}

TEST_F(TokenLockTest, SharedLockArgumentsAndNullHolder) {
  QXTFLock lock;
  for (int mode : {2, -1}) EXPECT_EQ(QX_ERR_BAD_ARGUMENT, lock.lock(lockPath().c_str(), mode));
  EXPECT_EQ(QX_ERR_BAD_ARGUMENT, lock.lock(nullptr, 0));
  EXPECT_FALSE(lock.isLocked());
  EXPECT_EQ(QX_ERR_LOCK, lock.lock(m_root.path("no/such/dir/x.lck").c_str(), 1));
  EXPECT_FALSE(lock.isLocked());
  lock.unlock();  // nothing held: harmless

  int status = -1;
  { QXTFLockHelper none(nullptr, lockPath().c_str(), 0, &status); }
  EXPECT_EQ(QX_ERR_LOCK, status);
  {
    QXTFLockHelper guard(&lock, lockPath().c_str(), 1, &status);
    EXPECT_EQ(0, status);
    EXPECT_TRUE(lock.isLocked());
  }
  EXPECT_FALSE(lock.isLocked());
}

}  // namespace
