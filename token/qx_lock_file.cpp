#include "qxcurl/qx_lock_file.h"

#include <unistd.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "platform/qx_lock.h"
#include "qxcurl/qx_status.h"

namespace {

void realSleep(int seconds) {
  if (seconds > 0) sleep(static_cast<unsigned>(seconds));
}
void (*g_sleeper)(int) = realSleep;

// The handles this thread holds, by lock object. A thread holds few locks at
// a time (one JWTLock read or write), so a short vector does.
struct ThreadHandles {
  std::vector<std::pair<const QXTFLock*, int>> held;
  ThreadHandles() = default;
  ThreadHandles(const ThreadHandles&) = delete;
  ThreadHandles& operator=(const ThreadHandles&) = delete;
  ~ThreadHandles() {
    for (auto& h : held) {
      int err = 0;
      wait_unlock(h.second, &err);
    }
  }
  int* find(const QXTFLock* lock) {
    auto it =
        std::find_if(held.begin(), held.end(), [lock](const auto& h) { return h.first == lock; });
    return it == held.end() ? nullptr : &it->second;
  }
  void forget(const QXTFLock* lock) {
    held.erase(
        std::remove_if(held.begin(), held.end(), [lock](const auto& h) { return h.first == lock; }),
        held.end());
  }
};
thread_local ThreadHandles t_handles;
}  // namespace

QXTFLock JWTLock;

void QXLockFile::T_setSleeper(void (*sleeper)(int)) {
  g_sleeper = sleeper != nullptr ? sleeper : realSleep;
}

QXLockFile::QXLockFile(const char* path, int retries, int sleepSeconds)
    : m_handle(-1),
      m_path(path != nullptr ? path : ""),
      m_lastError(0),
      m_retries(retries),
      m_sleepSeconds(sleepSeconds) {
  lock_file();
}

QXLockFile::~QXLockFile() { unlock_file(); }

bool QXLockFile::lock_file() {
  m_lastError = 0;
  if (m_handle != -1) return true;
  int attempts = 0;
  for (;;) {
    int err = 0;
    m_handle = ManageLockFile(m_path.c_str(), QXLOCK_TAKE, -1, &err);
    if (m_handle != -1) return true;
    m_lastError = err;
    if (err != QXLOCK_ERR_HELD) return false;
    g_sleeper(m_sleepSeconds);
    if (++attempts >= m_retries) return false;
  }
}

bool QXLockFile::unlock_file() {
  if (m_handle == -1) return true;
  int err = 0;
  if (ManageLockFile(m_path.c_str(), QXLOCK_RELEASE, m_handle, &err) == -1) {
    m_lastError = err;
    return false;
  }
  m_handle = -1;
  return true;
}

QXTFLock::QXTFLock() : m_handle(-1), m_reserved(0) {}

int QXTFLock::lock(const char* path, int mode) {
  if (path == nullptr || (mode != 0 && mode != 1)) return QX_ERR_BAD_ARGUMENT;
  // Our own earlier lock would conflict with the new one taken through
  // another descriptor, and leak.
  unlock();
  int err = 0;
  int handle = wait_lock(path, mode, &err);
  if (handle == -1) return QX_ERR_LOCK;
  // A handle that came with an error is kept so that unlock() releases it.
  t_handles.held.emplace_back(this, handle);
  return err == 0 ? 0 : QX_ERR_LOCK;
}

void QXTFLock::unlock() {
  int* handle = t_handles.find(this);
  if (handle == nullptr) return;
  int err = 0;
  wait_unlock(*handle, &err);
  t_handles.forget(this);
}

bool QXTFLock::isLocked() const { return t_handles.find(this) != nullptr; }

QXTFLockHelper::QXTFLockHelper(QXTFLock* lock, const char* path, int mode, int* status)
    : m_lock(lock) {
  int result = m_lock != nullptr ? m_lock->lock(path, mode) : QX_ERR_LOCK;
  if (status != nullptr) *status = result;
}

QXTFLockHelper::~QXTFLockHelper() {
  if (m_lock != nullptr) m_lock->unlock();
}
