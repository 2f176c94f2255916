#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "platform_test_root.h"
#include "qx_lock.h"

namespace {

// A forked helper process that takes a lock, reports over a pipe and holds
// it until told to release (or exits at once with its result).
class LockHolder {
 public:
  // kind: 'M' ManageLockFile, 'S' wait_lock shared, 'X' wait_lock exclusive.
  LockHolder(const std::string& path, char kind) {
    if (pipe(m_toParent) != 0 || pipe(m_toChild) != 0) std::abort();
    m_pid = fork();
    if (m_pid == 0) {
      int err = 0;
      int h = kind == 'M' ? ManageLockFile(path.c_str(), QXLOCK_TAKE, -1, &err)
                          : wait_lock(path.c_str(), kind == 'S' ? 0 : 1, &err);
      char r = h >= 0 ? 'T' : (err == QXLOCK_ERR_HELD ? 'H' : 'E');
      if (write(m_toParent[1], &r, 1) != 1) _exit(2);
      char go;
      if (read(m_toChild[0], &go, 1) != 1) _exit(3);
      _exit(0);  // exiting releases the lock
    }
  }
  // 'T' taken, 'H' held elsewhere, 'E' error; 0 when nothing arrived in time.
  char result(int timeoutMs = 5000) {
    struct timeval tv = {timeoutMs / 1000, (timeoutMs % 1000) * 1000};
    fd_set set;
    FD_ZERO(&set);
    FD_SET(m_toParent[0], &set);
    if (select(m_toParent[0] + 1, &set, nullptr, nullptr, &tv) != 1) return 0;
    char r = 0;
    return read(m_toParent[0], &r, 1) == 1 ? r : 0;
  }
  void release() {
    if (m_pid <= 0) return;
    char go = 'g';
    if (write(m_toChild[1], &go, 1) != 1) kill(m_pid, SIGKILL);
    int st;
    waitpid(m_pid, &st, 0);
    m_pid = -1;
  }
  ~LockHolder() {
    release();
    for (int fd : {m_toParent[0], m_toParent[1], m_toChild[0], m_toChild[1]}) close(fd);
  }

 private:
  pid_t m_pid = -1;
  int m_toParent[2] = {-1, -1};
  int m_toChild[2] = {-1, -1};
};

class LockTest : public ::testing::Test {
 protected:
  PlatformTestRoot m_root;
  std::string m_path = m_root.path("test.lck");
};

TEST_F(LockTest, ManageLockFileReportsHeldWhileAnotherProcessHasIt) {
  LockHolder other(m_path, 'M');
  ASSERT_EQ('T', other.result());
  int err = 0;
  EXPECT_EQ(-1, ManageLockFile(m_path.c_str(), QXLOCK_TAKE, -1, &err));
  EXPECT_EQ(QXLOCK_ERR_HELD, err);
  other.release();
  int h = ManageLockFile(m_path.c_str(), QXLOCK_TAKE, -1, &err);
  ASSERT_GE(h, 0);
  EXPECT_EQ(0, err);
  LockHolder late(m_path, 'M');
  EXPECT_EQ('H', late.result());
  EXPECT_EQ(0, ManageLockFile(m_path.c_str(), QXLOCK_RELEASE, h, &err));
  EXPECT_EQ(-1, ManageLockFile(m_path.c_str(), QXLOCK_RELEASE, h, &err));  // already closed
}

TEST_F(LockTest, ReadersShareAndWritersExclude) {
  int err = -9;
  int shared = wait_lock(m_path.c_str(), 0, &err);
  ASSERT_GE(shared, 0);
  EXPECT_EQ(0, err);
  {
    LockHolder reader(m_path, 'S');
    EXPECT_EQ('T', reader.result());  // a second reader gets in at once
  }
  LockHolder taker(m_path, 'M');
  EXPECT_EQ('H', taker.result());
  LockHolder writer(m_path, 'X');
  EXPECT_EQ(0, writer.result(300));  // blocks behind the reader
  EXPECT_EQ(0, wait_unlock(shared, &err));
  EXPECT_EQ('T', writer.result());  // and gets it once released

  LockHolder lateReader(m_path, 'S');
  EXPECT_EQ(0, lateReader.result(300));  // readers wait for the writer
  writer.release();
  EXPECT_EQ('T', lateReader.result());
}

TEST_F(LockTest, ThreadsOfOneProcessExcludeEachOther) {
  int err = 0;
  int first = wait_lock(m_path.c_str(), 1, &err);
  ASSERT_GE(first, 0);
  std::atomic<bool> got{false};
  std::thread second([&] {
    int e = 0;
    int h = wait_lock(m_path.c_str(), 1, &e);
    got = true;
    wait_unlock(h, &e);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_FALSE(got.load());
  EXPECT_EQ(-1, ManageLockFile(m_path.c_str(), QXLOCK_TAKE, -1, &err));
  EXPECT_EQ(QXLOCK_ERR_HELD, err);
  wait_unlock(first, &err);
  second.join();
  EXPECT_TRUE(got.load());
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
  EXPECT_EQ(-1, wait_unlock(12345, nullptr));
}

}  // namespace
