#include "platform/qx_cs_cache.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "platform/qx_lock.h"
#include "platform/qx_log.h"
#include "platform/qx_root.h"
#include "platform/qx_safefile.h"
#include "qxcurl/qx_status.h"

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

// A 128-bit hash as 32 hex digits: file names for scopes and keys. Not a
// cryptographic digest, on purpose: a short-lived program answered from the
// cache would spend far longer setting up a digest than on the hit itself.
// Collisions are harmless: every entry holds its scope and key, compared on
// each read, so a collision could only cost a miss.
std::string hash128Hex(const std::string& data) {
  uint64_t a = 0xcbf29ce484222325ULL;  // FNV-1a
  uint64_t b = 0x9e3779b97f4a7c15ULL ^ data.size();
  for (unsigned char c : data) {
    a = (a ^ c) * 0x100000001b3ULL;
    b = (b ^ c) * 0xff51afd7ed558ccdULL;
    b ^= b >> 29;
  }
  auto mix = [](uint64_t x) {  // splitmix64's finaliser
    x ^= x >> 30;
    x *= 0xbf58476d1ce4e5b9ULL;
    x ^= x >> 27;
    x *= 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
  };
  const uint64_t halves[2] = {mix(a ^ (b << 1)), mix(b + a)};
  static const char hex[] = "0123456789abcdef";
  std::string out(32, '0');
  for (int h = 0; h < 2; ++h) {
    for (int i = 0; i < 16; ++i) out[h * 16 + i] = hex[(halves[h] >> (60 - 4 * i)) & 15];
  }
  return out;
}

std::string baseDir() { return qxRootPath("/usr/tarvo/var/cache/websvc"); }

// Where one key of one handle lives.
struct Paths {
  std::string account;  // the account's directory
  std::string scope;    // the handle's directory in it
  std::string stem;     // the entry's path without suffix
};

bool pathsFor(const std::string& handle, int kind, const std::string& key, Paths& p) {
  if (handle.empty()) return false;
  std::string name = std::to_string(kind);
  name += '\0';
  name += key;
  p.account = baseDir() + "/" + std::to_string(geteuid());
  p.scope = p.account + "/" + hash128Hex(handle);
  p.stem = p.scope + "/" + hash128Hex(name);
  return true;
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
bool ensureScopeDir(const Paths& p) {
  const char* tag = "fetch_cs_cache_info_or_lock_with_retry";
  const std::string& scope = p.scope;
  const std::string& account = p.account;
  if (privateDir(account) && privateDir(scope)) return true;
  std::string base = baseDir();
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

// The text of an entry file of this account; false for anything else.
bool readEntryFile(const std::string& path, std::string& text) {
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
  if (ok) text.reserve(static_cast<size_t>(st.st_size));
  ok = ok && qxReadAllCapped(fd, QX_CS_CACHE_MAX_ENTRY, text);
  close(fd);
  return ok;
}

// 0 and the value's text for a live entry of key; a miss otherwise.
int readLive(const std::string& handle, int kind, const std::string& key, const Paths& p,
             std::string& value) {
  if (!privateDir(p.account) || !privateDir(p.scope)) return QX_ERR_READ;
  const std::string path = p.stem + kEntrySuffix;
  std::string text;
  if (!readEntryFile(path, text)) return QX_ERR_READ;
  int rc = qxCSCacheParseEntry(text, handle, kind, &key, nowSeconds(), &value, nullptr);
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

// A cheap check that a value's text is whole JSON: it opens and closes as
// one value does. Hits hand the text out without loading it.
bool plausibleJson(char first, char last) {
  switch (first) {
    case '{':
      return last == '}';
    case '[':
      return last == ']';
    case '"':
      return last == '"';
    default:
      return (first == '-' || (first >= '0' && first <= '9') || first == 't' || first == 'f' ||
              first == 'n') &&
             (last == 'e' || last == 'l' || (last >= '0' && last <= '9'));
  }
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
  Paths p;
  return pathsFor(handle, QX_CS_CACHE_KIND_WEBSVC, "", p) ? p.scope : std::string();
}

std::string qxCSCacheEntryPath(const std::string& handle, int kind, const std::string& key) {
  Paths p;
  return pathsFor(handle, kind, key, p) ? p.stem + kEntrySuffix : std::string();
}

int qxCSCacheParseEntry(const std::string& text, const std::string& handle, int kind,
                        const std::string* key, long long now, std::string* value,
                        QXCSCacheEntry* info) {
  if (value != nullptr) value->clear();
  const size_t nl = text.find('\n');
  if (nl == std::string::npos) return QX_ERR_JSON_PARSE;
  json_error_t error;
  json_t* root = json_loadb(text.data(), nl, JSON_ALLOW_NUL, &error);
  json_t* scope = json_object_get(root, "scope");
  json_t* k = json_object_get(root, "key");
  long long version = 0, entryKind = 0, stored = 0, expires = 0, length = -1;
  const size_t valueAt = nl + 1;
  bool ok =
      json_is_object(root) && getLongLong(root, "version", version) && version == kFormatVersion &&
      getLongLong(root, "kind", entryKind) && entryKind == kind && json_is_string(scope) &&
      json_is_string(k) && getLongLong(root, "stored", stored) &&
      getLongLong(root, "expires", expires) && getLongLong(root, "length", length) && length > 0 &&
      static_cast<unsigned long long>(length) == text.size() - valueAt &&
      plausibleJson(text[valueAt], text.back()) &&
      handle.compare(0, std::string::npos, json_string_value(scope), json_string_length(scope)) ==
          0 &&
      (key == nullptr ||
       key->compare(0, std::string::npos, json_string_value(k), json_string_length(k)) == 0);
  if (ok && info != nullptr) {
    info->key.assign(json_string_value(k), json_string_length(k));
    info->stored = stored;
    info->expires = expires;
    info->size = text.size();
  }
  json_decref(root);
  if (!ok) return QX_ERR_JSON_PARSE;
  // Live: not expired, not stored in the future, never longer than the cap
  // (the numbers come from a file, so the subtraction is kept in range).
  bool live = now < expires && stored <= now + kClockSlack && stored > 0 &&
              expires - stored <= QX_CS_CACHE_MAX_TTL;
  if (live && value != nullptr) value->assign(text, valueAt, std::string::npos);
  return live ? 0 : QX_ERR_TIMEOUT;
}

namespace {
// The single-flight lookup, giving the value's text.
int fetchText(const std::string& handle, int kind, const std::string& key, std::string& value) {
  const char* tag = "fetch_cs_cache_info_or_lock_with_retry";
  value.clear();
  Paths p;
  if (kind != QX_CS_CACHE_KIND_WEBSVC || !pathsFor(handle, kind, key, p)) {
    return QX_ERR_BAD_ARGUMENT;
  }
  const std::string lockPath = p.stem + kLockSuffix;
  if (readLive(handle, kind, key, p, value) == 0) return 0;

  if (!ensureScopeDir(p)) return QX_ERR_NO_INSTALL_DIR;
  // A fill this thread began and never finished is still its own.
  if (holding(lockPath)) return QX_CS_CACHE_FILL;
  unsigned waited = 0;
  unsigned step = 2;
  for (;;) {
    int err = 0;
    int fd = ManageLockFile(lockPath.c_str(), QXLOCK_TAKE, -1, &err);
    if (fd >= 0) {
      // The previous holder may have stored the entry just before letting go.
      if (readLive(handle, kind, key, p, value) == 0) {
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
    if (readLive(handle, kind, key, p, value) == 0) return 0;
  }
}
}  // namespace

int fetch_cs_cache_info_or_lock_with_retry(const std::string& handle, int kind,
                                           const std::string& key, std::string* text) {
  if (text == nullptr) return QX_ERR_BAD_ARGUMENT;
  return fetchText(handle, kind, key, *text);
}

int fetch_cs_cache_info_or_lock_with_retry(const std::string& handle, int kind,
                                           const std::string& key, json_t** json) {
  if (json == nullptr) return QX_ERR_BAD_ARGUMENT;
  *json = nullptr;
  std::string text;
  int rc = fetchText(handle, kind, key, text);
  if (rc != 0) return rc;
  json_error_t error;
  *json = json_loadb(text.data(), text.size(), JSON_DECODE_ANY | JSON_ALLOW_NUL, &error);
  if (*json != nullptr) return 0;
  // Live by its header, yet its value does not load: a miss, and nobody's
  // fill (the entry expires in its time).
  QXLOG(QXLOG_DETAIL, "fetch_cs_cache_info_or_lock_with_retry")
      << "Cache entry for [" << key << "] is damaged; ignored";
  return QX_ERR_JSON_PARSE;
}

int update_cs_cache_info(const std::string& handle, int kind, const std::string& key, json_t* json,
                         int ttl) {
  const char* tag = "update_cs_cache_info";
  Paths p;
  const bool named = pathsFor(handle, kind, key, p);
  struct Release {
    std::string lockPath;
    Release(const Release&) = delete;
    Release& operator=(const Release&) = delete;
    ~Release() {
      if (!lockPath.empty()) releaseHeld(lockPath);
    }
  } release{named ? p.stem + kLockSuffix : std::string()};
  if (json == nullptr || !named || kind != QX_CS_CACHE_KIND_WEBSVC || ttl < 1) {
    return QX_ERR_BAD_ARGUMENT;
  }
  if (!ensureScopeDir(p)) return QX_ERR_NO_INSTALL_DIR;
  const std::string& stem = p.stem;
  long long now = nowSeconds();
  long long life = std::min(ttl, QX_CS_CACHE_MAX_TTL);
  // The value as GetWithCache answers it (json_dumps, flags 0), so that a hit
  // hands the text out without loading and dumping it again.
  char* value = json_dumps(json, JSON_ENCODE_ANY);
  json_t* head = json_object();
  bool ok = value != nullptr && *value != '\0' && head != nullptr &&
            json_object_set_new(head, "version", json_integer(kFormatVersion)) == 0 &&
            json_object_set_new(head, "scope", json_stringn(handle.data(), handle.size())) == 0 &&
            json_object_set_new(head, "kind", json_integer(kind)) == 0 &&
            json_object_set_new(head, "key", json_stringn(key.data(), key.size())) == 0 &&
            json_object_set_new(head, "stored", json_integer(now)) == 0 &&
            json_object_set_new(head, "expires", json_integer(now + life)) == 0 &&
            json_object_set_new(head, "length",
                                json_integer(static_cast<json_int_t>(std::strlen(value)))) == 0;
  char* headText = ok ? json_dumps(head, JSON_COMPACT) : nullptr;
  json_decref(head);
  std::string data;
  if (headText != nullptr) data = std::string(headText) + "\n" + value;
  free(headText);
  free(value);
  if (data.empty()) {
    QXLOG(QXLOG_ERROR, tag) << "Cannot serialise the entry for [" << key << "]";
    return QX_ERR_WRITE;
  }
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
  Paths p;
  if (pathsFor(handle, kind, key, p)) releaseHeld(p.stem + kLockSuffix);
}

namespace {
// Calls fn(name) for every file name in a handle's scope directory.
template <class Fn>
int forEachName(const std::string& handle, Fn fn) {
  Paths p;
  if (!pathsFor(handle, QX_CS_CACHE_KIND_WEBSVC, "", p)) return QX_ERR_BAD_ARGUMENT;
  const std::string& scope = p.scope;
  if (!privateDir(p.account) || !privateDir(scope)) return 0;
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
    if (!readEntryFile(scope + "/" + name, text)) return;
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
