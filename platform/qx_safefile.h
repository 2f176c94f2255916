// Files in directories that other accounts may be able to write: the token
// directory "<root>/tmp", "/tmp", caches, session stores.
//
// The library runs as root beside other accounts, so a name in such a
// directory proves nothing: another account may have planted a file, a
// symbolic link or a predictable temporary there. Every operation here
//   - never follows a symbolic link at the final component (O_NOFOLLOW),
//   - creates only exclusively (O_CREAT|O_EXCL, mkstemp), mode 0600,
//   - trusts what it opened only when fstat shows a regular file owned by the
//     effective user or root and writable by nobody else,
//   - replaces a file by writing a private temporary and renaming it, so a
//     failure leaves the previous file whole.
//
//   std::string text;
//   if (qxReadTrusted(path, 1 << 20, text) == QX_FILE_OK) parse(text);
//   if (qxReplaceFile(path, newText) != 0) ...;  // old file still intact
#ifndef QXCURL_PLATFORM_QX_SAFEFILE_H
#define QXCURL_PLATFORM_QX_SAFEFILE_H
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string>

enum QXFileTrust {
  QX_FILE_OK = 0,
  QX_FILE_ABSENT,     // no such file
  QX_FILE_UNTRUSTED,  // a link, not a regular file, another owner, or writable by others
  QX_FILE_TOO_LARGE,  // larger than the caller's cap
  QX_FILE_IO_ERROR,   // could not be opened or read for another reason
};
const char* qxFileTrustText(QXFileTrust trust);

// True when st describes a file this process may trust: regular, owned by the
// effective user or root, not writable by group or others.
bool qxTrustedStat(const struct stat& st);

// Opens an existing file with flags (O_RDONLY, O_RDWR, O_WRONLY|O_APPEND ...;
// O_NOFOLLOW and O_CLOEXEC are added, O_CREAT is refused) and checks it.
// Returns the descriptor, or -1 with *trust (may be null) saying why.
int qxOpenTrusted(const std::string& path, int flags, QXFileTrust* trust);

// Reads the whole of a trusted file of at most maxBytes into out.
QXFileTrust qxReadTrusted(const std::string& path, size_t maxBytes, std::string& out);

// Reads at most the first maxBytes of a trusted file into out; *truncated
// says whether more was there.
QXFileTrust qxReadTrustedHead(const std::string& path, size_t maxBytes, std::string& out,
                              bool* truncated);

// Replaces path with data: a new temporary made by mkstemp beside it, written,
// flushed, given mode, then renamed over path. 0, or an errno value; on
// failure the temporary is removed and path is as it was.
int qxReplaceFile(const std::string& path, const std::string& data, mode_t mode = 0600);

// Creates path exclusively (O_CREAT|O_EXCL|O_NOFOLLOW) with mode and returns
// the descriptor opened with flags, or -1 with errno set (EEXIST when
// anything, a link included, is already there).
int qxCreateExclusive(const std::string& path, int flags, mode_t mode = 0600);

// A lock file: opened when present and trusted, created exclusively when
// absent. An untrusted file or a link at path is removed and created anew
// (*replaced, when given, says so: the caller logs it). readOnlyOk lets a
// shared locker open a trusted file it cannot write. Returns the descriptor,
// or -1 with *err an errno value.
int qxOpenLockFile(const std::string& path, bool readOnlyOk, int* err, bool* replaced = nullptr);

// Writes all of data to fd (EINTR resumed). False on any short write.
bool qxWriteAll(int fd, const std::string& data);

// Appends the rest of fd to out (EINTR resumed). False on a read error or
// when out would hold more than cap bytes in all.
bool qxReadAllCapped(int fd, size_t cap, std::string& out);
#endif  // QXCURL_PLATFORM_QX_SAFEFILE_H
