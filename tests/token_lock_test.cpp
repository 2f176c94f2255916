// Lock holders over the platform's advisory locks, across processes.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <vector>

#include "qx_lock.h"
#include "qx_lock_file.h"
#include "qx_test_env.h"

namespace {

std::vector<int> g_sleeps;
void recordSleep(int seconds) { g_sleeps.push_back(seconds); }

// A child process that holds an exclusive lock on path until killed (or for
// holdMs, then exits).
class LockHolder {
 public:
  LockHolder(const std::string& path, bool waitLock, int holdMs = -1) {
    int fds[2];
    if (pipe(fds) != 0) return;
    m_pid = fork();
    if (m_pid == 0) {
      int err = 0;
      int h =
          waitLock ? wait_lock(path.c_str(), 1, &err) : ManageLockFile(path.c_str(), 0, -1, &err);
      char c = h != -1 ? 'y' : 'n';
      if (write(fds[1], &c, 1) != 1) _exit(2);
      if (holdMs < 0) pause();
      usleep(static_cast<useconds_t>(holdMs) * 1000);
      _exit(0);
    }
    close(fds[1]);
    char c = 0;
    m_held = read(fds[0], &c, 1) == 1 && c == 'y';
    close(fds[0]);
  }
  ~LockHolder() {
    if (m_pid > 0) {
      kill(m_pid, SIGKILL);
      waitpid(m_pid, nullptr, 0);
    }
  }
  bool held() const { return m_held; }

 private:
  pid_t m_pid = -1;
  bool m_held = false;
};

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

TEST_F(TokenLockTest, ContendedLockFileGivesUpAfterItsRetries) {
  LockHolder other(lockPath(), false);
  ASSERT_TRUE(other.held());
  for (int retries : {0, 1, 3}) {
    g_sleeps.clear();
    QXLockFile lock(lockPath().c_str(), retries, 5);
    EXPECT_FALSE(lock.isLocked());
    EXPECT_EQ(QXLOCK_ERR_HELD, lock.getLastError());
    // The first attempt is always made and every failed attempt sleeps once.
    EXPECT_EQ(std::vector<int>(std::max(retries, 1), 5), g_sleeps) << "retries " << retries;
  }
}

TEST_F(TokenLockTest, LockFileTakenHeldAndReleased) {
  {
    QXLockFile lock(lockPath().c_str(), 10, 5);
    ASSERT_TRUE(lock.isLocked());
    EXPECT_TRUE(lock.lock_file());  // already held: no second take
    QXLockFile second(lockPath().c_str(), 2, 1);
    EXPECT_FALSE(second.isLocked());
    EXPECT_TRUE(lock.unlock_file());
    EXPECT_TRUE(lock.unlock_file());
    EXPECT_TRUE(second.lock_file());
  }
  QXLockFile after(lockPath().c_str(), 1, 1);  // released by the destructor
  EXPECT_TRUE(after.isLocked());
  EXPECT_EQ(std::vector<int>({1, 1}), g_sleeps);  // the contended second holder
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
  EXPECT_EQ(20, lock.lock(lockPath().c_str(), 2));
  EXPECT_EQ(20, lock.lock(lockPath().c_str(), -1));
  EXPECT_EQ(20, lock.lock(nullptr, 0));
  EXPECT_FALSE(lock.isLocked());
  EXPECT_EQ(158, lock.lock(m_root.path("no/such/dir/x.lck").c_str(), 1));
  EXPECT_FALSE(lock.isLocked());
  lock.unlock();  // nothing held: harmless

  int status = -1;
  { QXTFLockHelper none(nullptr, lockPath().c_str(), 0, &status); }
  EXPECT_EQ(158, status);
  {
    QXTFLockHelper guard(&lock, lockPath().c_str(), 1, &status);
    EXPECT_EQ(0, status);
    EXPECT_TRUE(lock.isLocked());
  }
  EXPECT_FALSE(lock.isLocked());
}

TEST_F(TokenLockTest, ReaderWaitsForAnotherProcessWriter) {
  LockHolder writer(lockPath(), true, 300);
  ASSERT_TRUE(writer.held());
  auto start = std::chrono::steady_clock::now();
  int status = -1;
  {
    QXTFLockHelper guard(&JWTLock, lockPath().c_str(), 0, &status);
    EXPECT_EQ(0, status);
  }
  auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(200));
  EXPECT_FALSE(JWTLock.isLocked());
}

}  // namespace
