#include "platform/qx_lock.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "platform/qx_log.h"
#include "platform/qx_safefile.h"

namespace {

std::atomic<int> g_waitLimitMs{QXLOCK_WAIT_LIMIT_MS};

void setErr(int* err, int value) {
  if (err != nullptr) *err = value;
}

long long monotonicMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Whole-file lock on fd. Falls back to process-owned record locks on kernels
// without open-file-description locks.
int lockFd(int fd, short type, bool wait) {
  struct flock fl {};
  fl.l_type = type;
  fl.l_whence = SEEK_SET;
  fl.l_start = 0;
  fl.l_len = 0;
  for (;;) {
    int rc = fcntl(fd, wait ? F_OFD_SETLKW : F_OFD_SETLK, &fl);
    if (rc == 0) return 0;
    if (errno == EINTR) continue;
    if (errno != EINVAL) return -1;
    fl.l_pid = 0;
    rc = fcntl(fd, wait ? F_SETLKW : F_SETLK, &fl);
    if (rc == 0) return 0;
    if (errno == EINTR) continue;
    return -1;
  }
}

// Takes the lock, waiting at most the wait limit: polls without blocking,
// 1 ms at first and doubling to 32 ms, since a blocking fcntl wait cannot
// be given a deadline. -1 with errno ETIMEDOUT when the limit passes.
int lockFdBounded(int fd, short type) {
  const long long deadline = monotonicMs() + g_waitLimitMs.load();
  long pauseUs = 1000;
  for (;;) {
    if (lockFd(fd, type, false) == 0) return 0;
    if (errno != EAGAIN && errno != EACCES) return -1;
    long long left = deadline - monotonicMs();
    if (left <= 0) {
      errno = ETIMEDOUT;
      return -1;
    }
    long us = pauseUs < left * 1000 ? pauseUs : static_cast<long>(left * 1000);
    struct timespec ts = {us / 1000000, (us % 1000000) * 1000};
    nanosleep(&ts, nullptr);
    if (pauseUs < 32000) pauseUs *= 2;
  }
}

// Lock files live in directories others can write: no link is followed and
// a file that is not our own is replaced rather than locked.
int openLockFile(const char* path, bool readOnlyOk, int* err) {
  int e = 0;
  bool replaced = false;
  int fd = qxOpenLockFile(path, readOnlyOk, &e, &replaced);
  if (replaced) {
    QXLOG(QXLOG_ERROR, "ManageLockFile")
        << "Lock file [" << path << "] was a link or not a private file of ours; replaced";
  }
  if (fd < 0) setErr(err, e);
  return fd;
}

int release(int handle, int* err) {
  if (handle < 0 || fcntl(handle, F_GETFD) < 0) {
    setErr(err, EBADF);
    return -1;
  }
  lockFd(handle, F_UNLCK, false);
  close(handle);  // closing drops the lock in any case
  setErr(err, 0);
  return 0;
}

}  // namespace

int ManageLockFile(const char* path, int operation, int handle, int* err) {
  if (operation == QXLOCK_RELEASE) return release(handle, err);
  if (operation != QXLOCK_TAKE || path == nullptr || *path == '\0') {
    setErr(err, QXLOCK_ERR_BAD_ARGUMENT);
    return -1;
  }
  int fd = openLockFile(path, false, err);
  if (fd < 0) return -1;
  if (lockFd(fd, F_WRLCK, false) != 0) {
    int e = errno;
    close(fd);
    setErr(err, (e == EAGAIN || e == EACCES) ? QXLOCK_ERR_HELD : e);
    return -1;
  }
  setErr(err, 0);
  return fd;
}

int wait_lock(const char* path, int mode, int* err) {
  if (path == nullptr || *path == '\0' || (mode != 0 && mode != 1)) {
    setErr(err, EINVAL);
    return -1;
  }
  int fd = openLockFile(path, mode == 0, err);
  if (fd < 0) return -1;
  if (lockFdBounded(fd, mode == 0 ? F_RDLCK : F_WRLCK) != 0) {
    int e = errno;
    close(fd);
    setErr(err, e);
    return -1;
  }
  setErr(err, 0);
  return fd;
}

int wait_unlock(int handle, int* err) { return release(handle, err); }

void T_setLockWaitLimit(int milliseconds) {
  g_waitLimitMs = milliseconds > 0 ? milliseconds : QXLOCK_WAIT_LIMIT_MS;
}
