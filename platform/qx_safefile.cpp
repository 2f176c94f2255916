#include "platform/qx_safefile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

const char* qxFileTrustText(QXFileTrust trust) {
  switch (trust) {
    case QX_FILE_OK:
      return "trusted";
    case QX_FILE_ABSENT:
      return "absent";
    case QX_FILE_UNTRUSTED:
      return "a link, not a regular file, owned by another account or writable by others";
    case QX_FILE_TOO_LARGE:
      return "too large";
    case QX_FILE_IO_ERROR:
      return "unreadable";
  }
  return "unreadable";
}

bool qxTrustedStat(const struct stat& st) {
  return S_ISREG(st.st_mode) && (st.st_uid == geteuid() || st.st_uid == 0) &&
         (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

int qxOpenTrusted(const std::string& path, int flags, QXFileTrust* trust) {
  QXFileTrust dummy;
  QXFileTrust& t = trust != nullptr ? *trust : dummy;
  if (flags & O_CREAT) {
    t = QX_FILE_IO_ERROR;
    errno = EINVAL;
    return -1;
  }
  // O_NONBLOCK: a FIFO planted at the path must not block the open.
  int fd = open(path.c_str(), flags | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) {
    t = errno == ENOENT || errno == ENOTDIR ? QX_FILE_ABSENT
        : errno == ELOOP                    ? QX_FILE_UNTRUSTED
                                            : QX_FILE_IO_ERROR;
    return -1;
  }
  struct stat st;
  if (fstat(fd, &st) != 0 || !qxTrustedStat(st)) {
    close(fd);
    t = QX_FILE_UNTRUSTED;
    errno = EPERM;
    return -1;
  }
  // Back to blocking I/O for the caller.
  int fl = fcntl(fd, F_GETFL);
  if (fl >= 0) fcntl(fd, F_SETFL, fl & ~O_NONBLOCK);
  t = QX_FILE_OK;
  return fd;
}

namespace {
// Appends at most cap bytes from fd to out; *over says whether more was there.
QXFileTrust readCapped(int fd, size_t cap, std::string& out, bool* over) {
  *over = false;
  char buf[8192];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return QX_FILE_IO_ERROR;
    if (n == 0) return QX_FILE_OK;
    size_t room = cap - out.size();
    if (static_cast<size_t>(n) > room) {  // also a file that grew while we read it
      out.append(buf, room);
      *over = true;
      return QX_FILE_OK;
    }
    out.append(buf, static_cast<size_t>(n));
  }
}
}  // namespace

bool qxReadAllCapped(int fd, size_t cap, std::string& out) {
  bool over = false;
  return out.size() <= cap && readCapped(fd, cap, out, &over) == QX_FILE_OK && !over;
}

QXFileTrust qxReadTrusted(const std::string& path, size_t maxBytes, std::string& out) {
  out.clear();
  QXFileTrust trust;
  int fd = qxOpenTrusted(path, O_RDONLY, &trust);
  if (fd < 0) return trust;
  struct stat st;
  if (fstat(fd, &st) == 0 && static_cast<unsigned long long>(st.st_size) > maxBytes) {
    close(fd);
    return QX_FILE_TOO_LARGE;
  }
  bool over = false;
  QXFileTrust rc = readCapped(fd, maxBytes, out, &over);
  close(fd);
  if (rc == QX_FILE_OK && over) rc = QX_FILE_TOO_LARGE;
  if (rc != QX_FILE_OK) out.clear();
  return rc;
}

QXFileTrust qxReadTrustedHead(const std::string& path, size_t maxBytes, std::string& out,
                              bool* truncated) {
  out.clear();
  *truncated = false;
  QXFileTrust trust;
  int fd = qxOpenTrusted(path, O_RDONLY, &trust);
  if (fd < 0) return trust;
  QXFileTrust rc = readCapped(fd, maxBytes, out, truncated);
  close(fd);
  if (rc != QX_FILE_OK) out.clear();
  return rc;
}

bool qxWriteAll(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

int qxReplaceFile(const std::string& path, const std::string& data, mode_t mode) {
  std::vector<char> tmpl(path.begin(), path.end());
  static const char kSuffix[] = ".XXXXXX";
  tmpl.insert(tmpl.end(), kSuffix, kSuffix + sizeof kSuffix);  // with the NUL
  // mkstemp: O_CREAT|O_EXCL with an unpredictable name, mode 0600.
  int fd = mkostemp(tmpl.data(), O_CLOEXEC);
  if (fd < 0) return errno;
  int err = 0;
  if (fchmod(fd, mode) != 0 || !qxWriteAll(fd, data) || fsync(fd) != 0) err = errno ? errno : EIO;
  if (close(fd) != 0 && err == 0) err = errno;
  if (err == 0 && rename(tmpl.data(), path.c_str()) != 0) err = errno;
  if (err != 0) unlink(tmpl.data());
  return err;
}

int qxCreateExclusive(const std::string& path, int flags, mode_t mode) {
  int fd = open(path.c_str(), flags | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY, mode);
  if (fd < 0) return -1;
  // The creation mask may have narrowed mode; never widen beyond it though.
  if (fchmod(fd, mode) != 0) {
    int e = errno;
    close(fd);
    unlink(path.c_str());
    errno = e;
    return -1;
  }
  return fd;
}

int qxOpenLockFile(const std::string& path, bool readOnlyOk, int* err, bool* replaced) {
  if (replaced != nullptr) *replaced = false;
  auto fail = [err](int e) {
    if (err != nullptr) *err = e;
    return -1;
  };
  for (int attempt = 0; attempt < 3; ++attempt) {
    QXFileTrust trust;
    int fd = qxOpenTrusted(path, O_RDWR, &trust);
    if (fd < 0 && trust == QX_FILE_IO_ERROR && readOnlyOk && (errno == EACCES || errno == EROFS))
      fd = qxOpenTrusted(path, O_RDONLY, &trust);
    if (fd >= 0) return fd;
    if (trust == QX_FILE_IO_ERROR) return fail(errno);
    if (trust == QX_FILE_UNTRUSTED) {
      if (replaced != nullptr) *replaced = true;
      if (unlink(path.c_str()) != 0 && errno != ENOENT) return fail(errno);
    }
    fd = qxCreateExclusive(path, O_RDWR, 0600);
    if (fd >= 0) return fd;
    if (errno != EEXIST) return fail(errno);
    // Another process created it between our two calls: open it again.
  }
  return fail(EAGAIN);
}
