#include "qx_cs_cache.h"

#include <dirent.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "qx_lock.h"
#include "qx_log.h"
#include "qx_root.h"
#include "qx_safefile.h"
#include "qx_status.h"

namespace {

const char kEntrySuffix[] = ".entry";
const char kLockSuffix[] = ".lck";
constexpr int kFormatVersion = 1;
// An entry stored this far in the future means the clock was set back: its
// age is unknown, so it is not trusted to be live.
constexpr long long kClockSlack = 60;

time_t (*g_clock)(time_t*) = nullptr;
void (*g_sleeper)(unsigned) = nullptr;

long long nowSeconds() {
  return static_cast<long long>(g_clock ? g_clock(nullptr) : ::time(nullptr));
}

void pauseMs(unsigned ms) {
  if (g_sleeper) {
    g_sleeper(ms);
    return;
  }
  struct timespec ts;
  ts.tv_sec = ms / 1000;
  ts.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

std::string sha256Hex(const std::string& data) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (EVP_Digest(data.data(), data.size(), md, &len, EVP_sha256(), nullptr) != 1) return "";
  static const char hex[] = "0123456789abcdef";
  std::string out(len * 2, '0');
  for (unsigned int i = 0; i < len; ++i) {
    out[2 * i] = hex[md[i] >> 4];
    out[2 * i + 1] = hex[md[i] & 15];
  }
  return out;
}

std::string baseDir() { return qxRootPath("/usr/tarvo/var/cache/websvc"); }

std::string accountDir() { return baseDir() + "/" + std::to_string(geteuid()); }

// Entry file path without suffix; "" when hashing fails.
std::string entryStem(const std::string& handle, int kind, const std::string& key) {
  std::string name = std::to_string(kind);
  name += '\0';
  name += key;
  std::string hash = sha256Hex(name);
  std::string scope = qxCSCacheScopeDir(handle);
  return hash.empty() || scope.empty() ? std::string() : scope + "/" + hash;
}

// A directory of this account that nobody else can enter: no link, ours,
// no access for group or others.
bool privateDir(const std::string& dir) {
  struct stat st;
  return lstat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == geteuid() &&
         (st.st_mode & 077) == 0;
}

// The shared parent: root's or ours, and either closed to others or sticky
// (others cannot rename or remove what we made in it).
bool sharedParent(const std::string& dir) {
  struct stat st;
  if (lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
  if (st.st_uid != 0 && st.st_uid != geteuid()) return false;
  return (st.st_mode & (S_IWGRP | S_IWOTH)) == 0 || (st.st_mode & S_ISVTX) != 0;
}

bool makeDir(const std::string& dir, mode_t mode) {
  if (mkdir(dir.c_str(), mode) == 0) return chmod(dir.c_str(), mode) == 0;
  return errno == EEXIST;
}

bool makeParents(const std::string& dir) {
  for (size_t pos = 1; pos < dir.size(); ++pos) {
    if (dir[pos] != '/') continue;
    if (!makeDir(dir.substr(0, pos), 0755)) return false;
  }
  return true;
}

// The scope directory, created on demand; false (logged) when it is not safe.
bool ensureScopeDir(const std::string& handle) {
  const char* tag = "fetch_cs_cache_info_or_lock_with_retry";
  std::string scope = qxCSCacheScopeDir(handle);
  if (privateDir(scope) && privateDir(accountDir())) return true;
  std::string base = baseDir();
  std::string account = accountDir();
  if (!makeParents(base) || !makeDir(base, 01777) || !sharedParent(base)) {
    QXLOG(QXLOG_ERROR, tag) << "Cache directory [" << base << "] is unusable";
    return false;
  }
  if (!makeDir(account, 0700) || !privateDir(account) || !makeDir(scope, 0700) ||
      !privateDir(scope)) {
    QXLOG(QXLOG_ERROR, tag) << "Cache directory [" << scope
                            << "] is unusable: it must be the account's own, mode 0700";
    return false;
  }
  return true;
}

bool readAll(int fd, size_t cap, std::string& out) {
  char buf[16384];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    if (out.size() + static_cast<size_t>(n) > cap) return false;
    out.append(buf, static_cast<size_t>(n));
  }
}

// The text of an entry file of this account; false for anything else.
bool readEntryFile(const std::string& path, std::string& text, size_t* size) {
  QXFileTrust trust;
  int fd = qxOpenTrusted(path, O_RDONLY, &trust);
  if (fd < 0) {
    if (trust == QX_FILE_UNTRUSTED) {
      QXLOG(QXLOG_ERROR, "fetch_cs_cache_info_or_lock_with_retry")
          << "Cache entry [" << path << "] is " << qxFileTrustText(trust) << "; ignored";
    }
    return false;
  }
  struct stat st;
  bool ok = fstat(fd, &st) == 0 && st.st_uid == geteuid() &&
            static_cast<unsigned long long>(st.st_size) <= QX_CS_CACHE_MAX_ENTRY;
  if (!ok) {
    QXLOG(QXLOG_ERROR, "fetch_cs_cache_info_or_lock_with_retry")
        << "Cache entry [" << path << "] is not the account's own or too large; ignored";
  }
  ok = ok && readAll(fd, QX_CS_CACHE_MAX_ENTRY, text);
  close(fd);
  if (ok && size != nullptr) *size = text.size();
  return ok;
}

// 0 and *json for a live entry of key; a miss otherwise.
int readLive(const std::string& handle, int kind, const std::string& key, const std::string& path,
             json_t** json) {
  if (!privateDir(accountDir()) || !privateDir(qxCSCacheScopeDir(handle))) return QX_ERR_READ;
  std::string text;
  if (!readEntryFile(path, text, nullptr)) return QX_ERR_READ;
  int rc = qxCSCacheParseEntry(text, handle, kind, &key, nowSeconds(), json, nullptr);
  if (rc == QX_ERR_JSON_PARSE) {
    QXLOG(QXLOG_DETAIL, "fetch_cs_cache_info_or_lock_with_retry")
        << "Cache entry [" << path << "] is damaged; ignored";
  }
  return rc;
}

// Fill locks this process holds, by lock path and thread: a thread that
// missed a key keeps its lock until it stores or gives up.
std::mutex g_heldMutex;
std::map<std::pair<std::string, std::thread::id>, int> g_held;

bool holding(const std::string& lockPath) {
  std::lock_guard<std::mutex> lock(g_heldMutex);
  return g_held.count({lockPath, std::this_thread::get_id()}) != 0;
}

void keepHeld(const std::string& lockPath, int fd) {
  std::lock_guard<std::mutex> lock(g_heldMutex);
  g_held[{lockPath, std::this_thread::get_id()}] = fd;
}

void releaseHeld(const std::string& lockPath) {
  int fd = -1;
  {
    std::lock_guard<std::mutex> lock(g_heldMutex);
    auto it = g_held.find({lockPath, std::this_thread::get_id()});
    if (it == g_held.end()) return;
    fd = it->second;
    g_held.erase(it);
  }
  ManageLockFile(lockPath.c_str(), QXLOCK_RELEASE, fd, nullptr);
}

bool getLongLong(json_t* obj, const char* name, long long& out) {
  json_t* v = json_object_get(obj, name);
  if (!json_is_integer(v)) return false;
  out = json_integer_value(v);
  return true;
}

}  // namespace

void T_setCSCacheClock(time_t (*now)(time_t*)) { g_clock = now; }
void T_setCSCacheSleeper(void (*sleepMs)(unsigned)) { g_sleeper = sleepMs; }

std::string qxCSCacheHandle(const std::string& server, int port) {
  std::string host = server;
  for (char& c : host) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return host + ":" + std::to_string(port);
}

std::string qxCSCacheScopeDir(const std::string& handle) {
  std::string hash = sha256Hex(handle);
  return hash.empty() ? std::string() : accountDir() + "/" + hash.substr(0, 32);
}

std::string qxCSCacheEntryPath(const std::string& handle, int kind, const std::string& key) {
  std::string stem = entryStem(handle, kind, key);
  return stem.empty() ? stem : stem + kEntrySuffix;
}

int qxCSCacheParseEntry(const std::string& text, const std::string& handle, int kind,
                        const std::string* key, long long now, json_t** value,
                        QXCSCacheEntry* info) {
  if (value != nullptr) *value = nullptr;
  json_error_t error;
  json_t* root = json_loadb(text.data(), text.size(), JSON_ALLOW_NUL, &error);
  json_t* scope = json_object_get(root, "scope");
  json_t* k = json_object_get(root, "key");
  json_t* v = json_object_get(root, "value");
  long long version = 0, entryKind = 0, stored = 0, expires = 0;
  bool ok = json_is_object(root) && getLongLong(root, "version", version) &&
            version == kFormatVersion && getLongLong(root, "kind", entryKind) &&
            entryKind == kind && json_is_string(scope) && json_is_string(k) && v != nullptr &&
            getLongLong(root, "stored", stored) && getLongLong(root, "expires", expires) &&
            handle.compare(0, std::string::npos, json_string_value(scope),
                           json_string_length(scope)) == 0 &&
            (key == nullptr ||
             key->compare(0, std::string::npos, json_string_value(k), json_string_length(k)) == 0);
  if (!ok) {
    json_decref(root);
    return QX_ERR_JSON_PARSE;
  }
  if (info != nullptr) {
    info->key.assign(json_string_value(k), json_string_length(k));
    info->stored = stored;
    info->expires = expires;
    info->size = text.size();
  }
  // Live: not expired, not stored in the future, never longer than the cap
  // (the numbers come from a file, so the subtraction is kept in range).
  bool live = now < expires && stored <= now + kClockSlack && stored > 0 &&
              expires - stored <= QX_CS_CACHE_MAX_TTL;
  if (live && value != nullptr) *value = json_incref(v);
  json_decref(root);
  return live ? 0 : QX_ERR_TIMEOUT;
}

int fetch_cs_cache_info_or_lock_with_retry(const std::string& handle, int kind,
                                           const std::string& key, json_t** json) {
  const char* tag = "fetch_cs_cache_info_or_lock_with_retry";
  if (json == nullptr || handle.empty() || kind != QX_CS_CACHE_KIND_WEBSVC) {
    return QX_ERR_BAD_ARGUMENT;
  }
  *json = nullptr;
  std::string stem = entryStem(handle, kind, key);
  if (stem.empty()) return QX_ERR_BAD_ARGUMENT;
  const std::string path = stem + kEntrySuffix;
  const std::string lockPath = stem + kLockSuffix;
  if (readLive(handle, kind, key, path, json) == 0) return 0;

  if (!ensureScopeDir(handle)) return QX_ERR_NO_INSTALL_DIR;
  // A fill this thread began and never finished is still its own.
  if (holding(lockPath)) return QX_CS_CACHE_FILL;
  unsigned waited = 0;
  unsigned step = 2;
  for (;;) {
    int err = 0;
    int fd = ManageLockFile(lockPath.c_str(), QXLOCK_TAKE, -1, &err);
    if (fd >= 0) {
      // The previous holder may have stored the entry just before letting go.
      if (readLive(handle, kind, key, path, json) == 0) {
        ManageLockFile(lockPath.c_str(), QXLOCK_RELEASE, fd, nullptr);
        return 0;
      }
      keepHeld(lockPath, fd);
      QXLOG(QXLOG_PROGRESS, tag) << "Cache miss for [" << key << "]; this caller fills it";
      return QX_CS_CACHE_FILL;
    }
    if (err != QXLOCK_ERR_HELD) {
      QXLOG(QXLOG_ERROR, tag) << "Cannot lock [" << lockPath
                              << "]: " << (err > 0 ? std::strerror(err) : "bad argument");
      return QX_ERR_LOCK;
    }
    if (waited >= QX_CS_CACHE_WAIT_MS) {
      QXLOG(QXLOG_DETAIL, tag) << "Gave up waiting [" << waited << "] ms for the fill of [" << key
                               << "]";
      return QX_ERR_LOCK;
    }
    pauseMs(step);
    waited += step;
    step = std::min(step * 2, 100u);
    if (readLive(handle, kind, key, path, json) == 0) return 0;
  }
}

int update_cs_cache_info(const std::string& handle, int kind, const std::string& key, json_t* json,
                         int ttl) {
  const char* tag = "update_cs_cache_info";
  std::string stem = handle.empty() ? std::string() : entryStem(handle, kind, key);
  struct Release {
    std::string lockPath;
    ~Release() {
      if (!lockPath.empty()) releaseHeld(lockPath);
    }
  } release{stem.empty() ? std::string() : stem + kLockSuffix};
  if (json == nullptr || stem.empty() || kind != QX_CS_CACHE_KIND_WEBSVC || ttl < 1) {
    return QX_ERR_BAD_ARGUMENT;
  }
  if (!ensureScopeDir(handle)) return QX_ERR_NO_INSTALL_DIR;
  long long now = nowSeconds();
  long long life = std::min(ttl, QX_CS_CACHE_MAX_TTL);
  json_t* env = json_object();
  bool ok = env != nullptr &&
            json_object_set_new(env, "version", json_integer(kFormatVersion)) == 0 &&
            json_object_set_new(env, "scope", json_stringn(handle.data(), handle.size())) == 0 &&
            json_object_set_new(env, "kind", json_integer(kind)) == 0 &&
            json_object_set_new(env, "key", json_stringn(key.data(), key.size())) == 0 &&
            json_object_set_new(env, "stored", json_integer(now)) == 0 &&
            json_object_set_new(env, "expires", json_integer(now + life)) == 0 &&
            json_object_set(env, "value", json) == 0;
  char* text = ok ? json_dumps(env, JSON_COMPACT) : nullptr;
  json_decref(env);
  if (text == nullptr) {
    QXLOG(QXLOG_ERROR, tag) << "Cannot serialise the entry for [" << key << "]";
    return QX_ERR_WRITE;
  }
  std::string data(text);
  free(text);
  if (data.size() > QX_CS_CACHE_MAX_ENTRY) {
    QXLOG(QXLOG_DETAIL, tag) << "Entry for [" << key << "] is too large to cache [" << data.size()
                             << "] bytes";
    return QX_ERR_WRITE;
  }
  int err = qxReplaceFile(stem + kEntrySuffix, data, 0600);
  if (err != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Cannot write [" << stem << kEntrySuffix
                            << "]: " << std::strerror(err);
    return QX_ERR_WRITE;
  }
  return 0;
}

void release_cs_cache_lock(const std::string& handle, int kind, const std::string& key) {
  if (handle.empty()) return;
  std::string stem = entryStem(handle, kind, key);
  if (!stem.empty()) releaseHeld(stem + kLockSuffix);
}

namespace {
// Calls fn(name) for every file name in a handle's scope directory.
template <class Fn>
int forEachName(const std::string& handle, Fn fn) {
  if (handle.empty()) return QX_ERR_BAD_ARGUMENT;
  std::string scope = qxCSCacheScopeDir(handle);
  if (!privateDir(accountDir()) || !privateDir(scope)) return 0;
  DIR* dir = opendir(scope.c_str());
  if (dir == nullptr) return 0;
  while (struct dirent* d = readdir(dir)) fn(scope, std::string(d->d_name));
  closedir(dir);
  return 0;
}

bool endsWith(const std::string& s, const char* suffix) {
  size_t n = std::strlen(suffix);
  return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}
}  // namespace

int qxCSCacheList(const std::string& handle, std::vector<QXCSCacheEntry>& out) {
  out.clear();
  long long now = nowSeconds();
  int rc = forEachName(handle, [&](const std::string& scope, const std::string& name) {
    if (!endsWith(name, kEntrySuffix)) return;
    std::string text;
    QXCSCacheEntry info;
    if (!readEntryFile(scope + "/" + name, text, nullptr)) return;
    int prc =
        qxCSCacheParseEntry(text, handle, QX_CS_CACHE_KIND_WEBSVC, nullptr, now, nullptr, &info);
    if (prc == 0 || prc == QX_ERR_TIMEOUT) out.push_back(info);
  });
  std::sort(out.begin(), out.end(),
            [](const QXCSCacheEntry& a, const QXCSCacheEntry& b) { return a.key < b.key; });
  return rc;
}

int qxCSCacheClear(const std::string& handle, int* removed) {
  int count = 0;
  int failed = 0;
  int rc = forEachName(handle, [&](const std::string& scope, const std::string& name) {
    // Entries, and temporaries a crashed writer left beside them. Lock files
    // stay: a filler may hold one right now.
    bool entry = endsWith(name, kEntrySuffix);
    if (!entry && name.find(std::string(kEntrySuffix) + ".") == std::string::npos) return;
    if (unlink((scope + "/" + name).c_str()) == 0) {
      if (entry) ++count;
    } else if (errno != ENOENT) {
      ++failed;
    }
  });
  if (removed != nullptr) *removed = count;
  if (rc != 0) return rc;
  return failed != 0 ? QX_ERR_WRITE : 0;
}
