#ifndef QXCURL_PLATFORM_QX_LOCK_H
#define QXCURL_PLATFORM_QX_LOCK_H
// Advisory locks between processes (fcntl record locks on a lock file).
//
// A handle is an open descriptor of the lock file; -1 means "not held".
// The locks are open-file-description locks (F_OFD_SETLK), so they also
// exclude two takers inside one process (threads sharing one lock object) and
// closing another descriptor of the same file does not drop them. They
// conflict with classic POSIX record locks taken by other programs.

// Operations of ManageLockFile.
enum QXLockOperation { QXLOCK_TAKE = 0, QXLOCK_RELEASE = 1 };
// Errors reported in *err (besides errno values for system failures).
constexpr int QXLOCK_ERR_BAD_ARGUMENT = -1;
constexpr int QXLOCK_ERR_HELD = -3;  // another process holds the lock

// operation 0 (take): opens (creating, 0600) the lock file at path and takes an
// exclusive lock without waiting. Returns the new handle, or -1 with *err set:
// -3 when another holder has the lock, an errno value when the file cannot be
// opened or locked, -1 for a null path. The handle argument is ignored.
// operation 1 (release): unlocks and closes handle. Returns 0, or -1 with *err
// set (bad handle). path is not used to find the lock.
// err may be null.
int ManageLockFile(const char* path, int operation, int handle, int* err);

// Waits until a shared (mode 0, reading) or exclusive (mode 1, writing) lock
// on the file at path is held (the file is created 0600 when missing; opened
// read-only when it exists but cannot be written and mode is 0). Returns the
// handle and *err 0, or -1 with *err an errno value (EINVAL for a null path or
// another mode, ETIMEDOUT when the lock was not granted within the wait
// limit). Interrupted waits are resumed.
int wait_lock(const char* path, int mode, int* err);

// Longest wait_lock waits, in milliseconds. These locks guard one file read
// or write; a holder that keeps one longer is stopped or hung, and must not
// hang every other process of the host with it.
constexpr int QXLOCK_WAIT_LIMIT_MS = 30000;
// Test seam: another limit (0 or less restores the default).
void T_setLockWaitLimit(int milliseconds);
// Releases and closes a handle from wait_lock. 0, or -1 with *err set.
int wait_unlock(int handle, int* err);
#endif  // QXCURL_PLATFORM_QX_LOCK_H
