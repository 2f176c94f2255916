// Locks between processes around shared files: QXLockFile takes a lock file
// with bounded retries (the tunnel cache), QXTFLock a shared or exclusive
// lock (the token cache, through the process-wide JWTLock). Neither logs.
//
//   QXLockFile lock(path.c_str(), 10, 5);   // 10 attempts, 5 s apart
//   if (!lock.isLocked()) return QX_ERR_LOCK;
//   ...                                      // released by the destructor
//   int st; QXTFLockHelper g(&JWTLock, lockPath.c_str(), 0, &st);  // 0 shared, 1 exclusive
#ifndef QXCURL_QX_LOCK_FILE_H
#define QXCURL_QX_LOCK_FILE_H
#include <string>

#include "qxcurl/qxcurl_export.h"

// A named lock file taken in the constructor (with bounded retries while
// another holder has it) and released in the destructor.
class QX_API QXLockFile {
 public:
  QXLockFile(const char* path, int retries, int sleepSeconds);
  ~QXLockFile();
  QXLockFile(const QXLockFile&) = delete;
  QXLockFile& operator=(const QXLockFile&) = delete;

  // True when the lock is held afterwards. The first attempt is always made;
  // only "held elsewhere" is retried, after a pause of sleepSeconds.
  bool lock_file();
  // True when the lock is not held afterwards.
  bool unlock_file();

  bool isLocked() const { return m_handle != -1; }
  int getLastError() const { return m_lastError; }

  // Test seam: replaces sleep() between attempts (null restores it).
  static void T_setSleeper(void (*sleeper)(int seconds));

 private:
  int m_handle;
  std::string m_path;
  int m_lastError;
  int m_retries;
  int m_sleepSeconds;
};

// Shared (mode 0) or exclusive (mode 1) lock on a file, waiting until it is
// granted (a bounded wait: 158 when a holder keeps it too long). Does not
// release in its destructor: JWTLock lives for the process.
//
// One object may be used by many threads at once: each thread holds its own
// handle (two readers of JWTLock hold two shared locks), so lock(), unlock()
// and isLocked() concern the calling thread only. A thread that calls lock()
// while holding the object releases its earlier lock first. Handles a thread
// still holds when it ends are released then.
class QX_API QXTFLock {
 public:
  QXTFLock();
  ~QXTFLock() = default;  // releases nothing: JWTLock lives for the process
  // 0; 20 for a null path or a mode other than 0 and 1; 158 when the lock
  // could not be taken.
  int lock(const char* path, int mode);
  void unlock();
  // Whether the calling thread holds the lock.
  bool isLocked() const;

 private:
  // Unused since handles are per thread; kept so the object keeps its size.
  [[maybe_unused]] int m_handle;
  [[maybe_unused]] int m_reserved;
};

// Holds a QXTFLock for one scope; *status receives the result of taking it
// (158 for a null lock).
class QX_API QXTFLockHelper {
 public:
  QXTFLockHelper(QXTFLock* lock, const char* path, int mode, int* status);
  ~QXTFLockHelper();
  QXTFLockHelper(const QXTFLockHelper&) = delete;
  QXTFLockHelper& operator=(const QXTFLockHelper&) = delete;

 private:
  QXTFLock* m_lock;
};

// Guards every read and write of the certificate-login token cache files.
extern QX_API QXTFLock JWTLock;
#endif  // QXCURL_QX_LOCK_FILE_H
