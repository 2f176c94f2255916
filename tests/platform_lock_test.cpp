#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "qx_lock.h"
#include "qx_test_env.h"

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

// Takes a wait_lock on a thread; got() turns true once it is granted.
class Waiter {
 public:
  Waiter(const std::string& path, int mode)
      : m_thread([this, path, mode] {
          int err = 0;
          m_handle = wait_lock(path.c_str(), mode, &err);
          m_got = true;
        }) {}
  ~Waiter() { release(); }
  void release() {
    if (!m_thread.joinable()) return;
    m_thread.join();
    int err = 0;
    wait_unlock(m_handle, &err);
  }
  // Whether it is granted within waitMs.
  bool got(int waitMs) {
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
    while (!m_got.load() && std::chrono::steady_clock::now() < until) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return m_got.load();
  }

 private:
  std::atomic<bool> m_got{false};
  int m_handle = -1;
  std::thread m_thread;
};

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
  EXPECT_EQ(-1, ManageLockFile(m_path.c_str(), QXLOCK_TAKE, -1, &err));  // another handle too
  EXPECT_EQ(QXLOCK_ERR_HELD, err);
  EXPECT_EQ(0, ManageLockFile(m_path.c_str(), QXLOCK_RELEASE, h, &err));
  EXPECT_EQ(-1, ManageLockFile(m_path.c_str(), QXLOCK_RELEASE, h, &err));  // already closed
  EXPECT_EQ('T', takeInOtherProcess(m_path));
}

// Handles of one process exclude each other as other processes do, which is
// what keeps the threads sharing JWTLock apart.
TEST_F(LockTest, ReadersShareAndWritersExclude) {
  int err = -9;
  int shared = wait_lock(m_path.c_str(), 0, &err);
  ASSERT_GE(shared, 0);
  EXPECT_EQ(0, err);
  EXPECT_EQ('H', takeInOtherProcess(m_path));
  {
    Waiter reader(m_path, 0);
    EXPECT_TRUE(reader.got(5000));  // a second reader gets in at once
  }
  {
    Waiter writer(m_path, 1);
    EXPECT_FALSE(writer.got(200));  // blocks behind the reader
    EXPECT_EQ(0, wait_unlock(shared, &err));
    EXPECT_TRUE(writer.got(5000));  // and gets it once released
    Waiter lateReader(m_path, 0);
    EXPECT_FALSE(lateReader.got(200));  // readers wait for the writer
    writer.release();
    EXPECT_TRUE(lateReader.got(5000));
  }
}

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
