#include "platform/qx_session_store.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "platform/qx_config.h"
#include "platform/qx_log.h"
#include "platform/qx_root.h"
#include "platform/qx_safefile.h"
#include "platform/qx_util.h"
#include "qxcurl/qx_status.h"

namespace Arvion {
namespace Ostrel {
namespace TokenMgmt {

namespace {

const char kMagic[] = "ARVION-SESSION 1\n";
constexpr size_t kMaxEntryBytes = size_t{4} << 20;
constexpr long kAbsoluteExpiryFloor = 1000000000L;  // below: seconds from now

std::string homeDir() {
  const char* home = std::getenv("HOME");
  if (home != nullptr && *home == '/') return home;
  long bufSize = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buf(bufSize > 0 ? static_cast<size_t>(bufSize) : 16384);
  struct passwd pw;
  struct passwd* found = nullptr;
  if (getpwuid_r(geteuid(), &pw, buf.data(), buf.size(), &found) == 0 && found != nullptr &&
      found->pw_dir != nullptr && found->pw_dir[0] == '/') {
    return found->pw_dir;
  }
  return std::string();
}

// The calling user's session directory ("" when there is none).
std::string sessionDir() {
  std::shared_ptr<const QXMasterConfig> cfg = qxLoadMasterConfig(nullptr);
  std::string dir;
  if (bpconfGetKeyValue(cfg.get(), "SESSION_TOKEN_DIR", dir) == 0 && !trim(dir).empty()) {
    dir = trim(dir);
    if (dir[0] != '/') dir = qxInstallRoot() + "/" + dir;
    // A shared directory keeps one subdirectory per user.
    return dir + "/" + std::to_string(static_cast<unsigned long>(geteuid()));
  }
  std::string home = homeDir();
  return home.empty() ? std::string() : home + "/.arvion/sessions";
}

bool makeDirs(const std::string& dir) {
  for (size_t pos = 1; pos <= dir.size(); ++pos) {
    if (pos != dir.size() && dir[pos] != '/') continue;
    std::string part = dir.substr(0, pos);
    if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) return false;
  }
  return true;
}

// Only a directory of our own that nobody else can write to holds entries.
bool safeDir(const std::string& dir) {
  struct stat st;
  if (lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
  return st.st_uid == geteuid() && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::string sha256Hex(const std::string& data) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (EVP_Digest(data.data(), data.size(), md, &len, EVP_sha256(), nullptr) != 1) return "";
  static const char hex[] = "0123456789abcdef";
  std::string out;
  for (unsigned int i = 0; i < len; ++i) {
    out += hex[md[i] >> 4];
    out += hex[md[i] & 15];
  }
  return out;
}

// Reads "<decimal>\n" at pos; false on anything else. At most 18 digits, so
// the value cannot overflow.
bool readNumberLine(const std::string& s, size_t& pos, long long& value) {
  size_t nl = s.find('\n', pos);
  if (nl == std::string::npos || nl == pos || nl - pos > 18) return false;
  value = 0;
  for (size_t i = pos; i < nl; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
    value = value * 10 + (s[i] - '0');
  }
  pos = nl + 1;
  return true;
}

}  // namespace

SessionTokenMgmt::SessionTokenMgmt(const char* name) : m_name(name != nullptr ? name : "") {}

int SessionTokenMgmt::setTarget(const char* target) {
  m_target = target != nullptr ? target : "";
  return 0;
}

std::string SessionTokenMgmt::T_entryPath() const {
  std::string dir = sessionDir();
  if (dir.empty()) return std::string();
  std::string key = m_name;
  key += '\0';
  key += m_target;
  // The environment variable of the same name, when set, selects a separate
  // session (two shells of one user can hold two logins).
  if (const char* env = m_name.empty() ? nullptr : std::getenv(m_name.c_str())) {
    key += '\0';
    key += env;
  }
  std::string hash = sha256Hex(key);
  return hash.empty() ? std::string() : dir + "/" + hash + ".session";
}

std::string SessionTokenMgmt::readSessionToken() {
  const char* tag = "SessionTokenMgmt::readSessionToken";
  std::string path = T_entryPath();
  if (path.empty()) return std::string();
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) return std::string();
  struct stat st;
  std::string data;
  bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  if (ok && (st.st_uid != geteuid() || (st.st_mode & (S_IWGRP | S_IWOTH)) != 0)) {
    QXLOG(QXLOG_ERROR, tag) << "Session file [" << path
                            << "] is not the user's own or others can write it; ignored";
    ok = false;
  }
  ok = ok && qxReadAllCapped(fd, kMaxEntryBytes, data);
  close(fd);
  if (!ok) return std::string();

  size_t pos = sizeof kMagic - 1;
  long long expiry = 0, length = 0;
  if (data.compare(0, pos, kMagic) != 0 || !readNumberLine(data, pos, expiry) ||
      !readNumberLine(data, pos, length) ||
      static_cast<unsigned long long>(length) != data.size() - pos) {
    QXLOG(QXLOG_DETAIL, tag) << "Session file [" << path << "] is damaged; ignored";
    return std::string();
  }
  if (expiry <= static_cast<long long>(std::time(nullptr))) {
    QXLOG(QXLOG_PROGRESS, tag) << "Session expired at [" << expiry << "]";
    unlink(path.c_str());
    return std::string();
  }
  return data.substr(pos);
}

int SessionTokenMgmt::writeSessionToken(const std::string& text, long expiry) {
  const char* tag = "SessionTokenMgmt::writeSessionToken";
  long long now = static_cast<long long>(std::time(nullptr));
  long long until = expiry < kAbsoluteExpiryFloor ? now + expiry : expiry;
  if (until <= now || text.size() > kMaxEntryBytes) {
    QXLOG(QXLOG_ERROR, tag) << "Refusing an entry with expiry [" << expiry << "]";
    return QX_ERR_BAD_ARGUMENT;
  }
  std::string path = T_entryPath();
  std::string dir = path.substr(0, path.rfind('/') + 1);
  if (path.empty() || !makeDirs(dir.substr(0, dir.size() - 1)) ||
      !safeDir(dir.substr(0, dir.size() - 1))) {
    QXLOG(QXLOG_ERROR, tag) << "No usable session directory [" << dir << "]";
    return QX_ERR_FILE_NOT_FOUND;
  }

  std::string data = kMagic;
  data += std::to_string(until) + "\n" + std::to_string(text.size()) + "\n";
  data += text;
  int err = qxReplaceFile(path, data, 0600);
  if (err != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Cannot write [" << path << "]: " << std::strerror(err);
    return QX_ERR_WRITE;
  }
  return 0;
}

int SessionTokenMgmt::deleteSessionToken() {
  std::string path = T_entryPath();
  if (path.empty()) return 0;
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    QXLOG(QXLOG_ERROR, "SessionTokenMgmt::deleteSessionToken")
        << "Cannot remove [" << path << "]: " << std::strerror(errno);
    return QX_ERR_WRITE;
  }
  return 0;
}

}  // namespace TokenMgmt
}  // namespace Ostrel
}  // namespace Arvion
