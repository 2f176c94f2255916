#include "platform/qx_config.h"

#include <fcntl.h>
#include <pwd.h>
#include <strings.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <vector>

#include "platform/qx_log.h"
#include "platform/qx_root.h"
#include "platform/qx_util.h"
#include "qxcurl/qx_status.h"

namespace {
// Numbers each configuration handed out, so that callers can remember a
// decision per configuration without holding it.
std::atomic<uint64_t> g_configVersions{0};
}  // namespace

struct QXMasterConfig {
  // Values of each key in file order.
  std::map<std::string, std::vector<std::string>> values;
  uint64_t version = ++g_configVersions;
};

namespace {

constexpr size_t kMaxConfigBytes = size_t{1} << 20;
constexpr int kMaxBadLinesLogged = 20;
const char kTag[] = "QX_read_master_config";

const std::shared_ptr<const QXMasterConfig>& emptyConfig() {
  static const std::shared_ptr<const QXMasterConfig> empty = std::make_shared<QXMasterConfig>();
  return empty;
}

// The shared cache: the last file parsed, recognised by its stat data.
struct FileKey {
  std::string path;
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = -1;
  long long mtimeNs = 0;
  long long ctimeNs = 0;
  bool operator==(const FileKey& o) const {
    return path == o.path && dev == o.dev && ino == o.ino && size == o.size &&
           mtimeNs == o.mtimeNs && ctimeNs == o.ctimeNs;
  }
};
std::mutex g_cacheMutex;
FileKey g_cachedKey;
std::string g_cachedText;
std::shared_ptr<const QXMasterConfig> g_cached;

// The last look at the file: within a second of it, readers get what it
// found without looking again.
constexpr int64_t kFreshNs = 1000000000;
struct LastLook {
  std::string path;
  int64_t atNs = 0;
  bool valid = false;
  int status = 0;
  std::shared_ptr<const QXMasterConfig> cfg;
};
LastLook g_lastLook;  // under g_cacheMutex
int64_t (*g_clock)() = nullptr;
// Moves on qxConfigChanged: every thread's own copy of the last look is then
// stale.
std::atomic<uint64_t> g_lookEpoch{1};
// This thread's copy of the last look: a fresh one is used without the lock.
struct ThreadLook {
  uint64_t epoch = 0;
  uint64_t rootVersion = 0;
  int64_t atNs = 0;
  int status = 0;
  std::shared_ptr<const QXMasterConfig> cfg;
};

int64_t monotonicNs() {
  if (g_clock != nullptr) return g_clock();
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

thread_local std::shared_ptr<const QXMasterConfig> t_current;

// A request's snapshot: while one is open on a thread, every read there
// returns the configuration it took.
struct Pin {
  int depth = 0;
  int status = 0;
  std::shared_ptr<const QXMasterConfig> cfg;
};

// One thread-local object for both: in the shared library each thread-local
// costs a lookup per function that touches it, on every request.
struct ThreadConfig {
  Pin pin;
  ThreadLook look;
};
thread_local ThreadConfig t_config;

// The configuration path, rebuilt only when the install root changes.
const std::string& configPath() {
  thread_local uint64_t root = 0;
  thread_local std::string path;
  const uint64_t now = qxInstallRootVersion();
  if (root != now) {
    root = now;
    path = qxInstallRootRef() + "/arvion/arvion.conf";
  }
  return path;
}

long long ns(const struct timespec& ts) {
  return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

bool validKey(const std::string& key) {
  for (unsigned char c : key) {
    if (!(std::isalnum(c) || c == '_' || c == '.' || c == '-')) return false;
  }
  return !key.empty();
}

// 0 with the text, 12 when the file exists but cannot be read as a
// configuration, -1 when there is no file.
int readFile(const std::string& path, struct stat& st, std::string& text) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT || errno == ENOTDIR) return -1;
    QXLOG(QXLOG_ERROR, kTag) << "Cannot open [" << path << "]: " << std::strerror(errno);
    return QX_ERR_FILE_NOT_FOUND;
  }
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    QXLOG(QXLOG_ERROR, kTag) << "[" << path << "] is not a regular file";
    close(fd);
    return QX_ERR_FILE_NOT_FOUND;
  }
  if (static_cast<unsigned long long>(st.st_size) > kMaxConfigBytes) {
    QXLOG(QXLOG_ERROR, kTag) << "[" << path << "] is larger than [" << kMaxConfigBytes
                             << "] bytes; ignored";
    close(fd);
    return QX_ERR_FILE_NOT_FOUND;
  }
  text.clear();
  char buf[16384];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      QXLOG(QXLOG_ERROR, kTag) << "Cannot read [" << path << "]: " << std::strerror(errno);
      close(fd);
      return QX_ERR_FILE_NOT_FOUND;
    }
    if (n == 0) break;
    text.append(buf, static_cast<size_t>(n));
    if (text.size() > kMaxConfigBytes) {  // grew while we read it
      QXLOG(QXLOG_ERROR, kTag) << "[" << path << "] is larger than [" << kMaxConfigBytes
                               << "] bytes; ignored";
      close(fd);
      return QX_ERR_FILE_NOT_FOUND;
    }
  }
  close(fd);
  return 0;
}

}  // namespace

std::shared_ptr<const QXMasterConfig> qxParseMasterConfig(const std::string& text,
                                                          const std::string& origin) {
  auto cfg = std::make_shared<QXMasterConfig>();
  size_t pos = 0;
  if (text.compare(0, 3, "\xEF\xBB\xBF") == 0) pos = 3;  // UTF-8 byte-order mark
  int lineNo = 0;
  int bad = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string line = trim(text.substr(pos, end - pos));
    pos = end + 1;
    ++lineNo;
    if (line.empty() || line[0] == '#') continue;

    const char* reason = nullptr;
    std::string key, value;
    if (line.find('\0') != std::string::npos) {
      reason = "NUL byte";
    } else {
      // A '#' after a blank starts a trailing comment.
      for (size_t i = 1; i < line.size(); ++i) {
        if (line[i] == '#' && (line[i - 1] == ' ' || line[i - 1] == '\t')) {
          line = trim(line.substr(0, i));
          break;
        }
      }
      size_t eq = line.find('=');
      if (eq == std::string::npos) {
        reason = "no '='";
      } else {
        key = trim(line.substr(0, eq));
        value = trim(line.substr(eq + 1));
        if (key.empty())
          reason = "empty key";
        else if (!validKey(key))
          reason = "invalid key";
      }
    }
    if (reason != nullptr) {
      // The line itself is not logged: it may hold a secret.
      if (++bad <= kMaxBadLinesLogged) {
        QXLOG(QXLOG_ERROR, kTag) << origin << ":" << lineNo << ": malformed line skipped ("
                                 << reason << ")";
      }
      continue;
    }
    cfg->values[key].push_back(value);
  }
  if (bad > kMaxBadLinesLogged) {
    QXLOG(QXLOG_ERROR, kTag) << origin << ": " << (bad - kMaxBadLinesLogged)
                             << " more malformed lines skipped";
  }
  return cfg;
}

std::shared_ptr<const QXMasterConfig> qxLoadMasterConfigUnlogged(int* status);

std::string qxMasterConfigPath() { return configPath(); }

namespace {
// Hands the configuration's log settings to the logger when the
// configuration handed out changes.
const std::shared_ptr<const QXMasterConfig>& pushLogSettings(
    const std::shared_ptr<const QXMasterConfig>& cfg) {
  // The last one handed over is kept alive, so a new one never shares its
  // address and goes unnoticed.
  static std::mutex s_mutex;
  static std::shared_ptr<const QXMasterConfig> s_pushed;
  {
    std::lock_guard<std::mutex> guard(s_mutex);
    if (s_pushed == cfg) return cfg;
    s_pushed = cfg;
  }
  std::string dest, level;
  if (bpconfGetKeyValue(cfg.get(), "QXCURL_LOG", dest) == 0) {
    dest = trim(dest);
    if (!dest.empty() && dest != "stderr" && dest[0] != '/') dest = qxInstallRoot() + "/" + dest;
  }
  bpconfGetKeyValue(cfg.get(), "QXCURL_LOG_LEVEL", level);
  qxLogConfigure(dest, level);
  return cfg;
}
}  // namespace

std::shared_ptr<const QXMasterConfig> qxLoadMasterConfig(int* status) {
  ThreadConfig& t = t_config;
  if (t.pin.depth > 0) {
    if (status != nullptr) *status = t.pin.status;
    return t.pin.cfg;
  }
  // The install root is still read on every call; within a second of the
  // last look nothing else is, and no lock is taken.
  const uint64_t root = qxInstallRootVersion();
  const int64_t now = monotonicNs();
  const uint64_t epoch = g_lookEpoch.load(std::memory_order_acquire);
  ThreadLook& look = t.look;
  if (look.epoch == epoch && look.rootVersion == root && now >= look.atNs &&
      now - look.atNs < kFreshNs) {
    if (status != nullptr) *status = look.status;
    return look.cfg;
  }
  const std::string& path = configPath();
  int rc = 0;
  int64_t at = now;
  std::shared_ptr<const QXMasterConfig> cfg;
  {
    std::lock_guard<std::mutex> guard(g_cacheMutex);
    if (g_lastLook.valid && now - g_lastLook.atNs < kFreshNs && now >= g_lastLook.atNs &&
        g_lastLook.path == path) {
      rc = g_lastLook.status;
      at = g_lastLook.atNs;
      cfg = g_lastLook.cfg;
    }
  }
  if (!cfg) {
    cfg = pushLogSettings(qxLoadMasterConfigUnlogged(&rc));
    std::lock_guard<std::mutex> guard(g_cacheMutex);
    g_lastLook.path = path;
    g_lastLook.atNs = now;
    g_lastLook.status = rc;
    g_lastLook.cfg = cfg;
    g_lastLook.valid = true;
  }
  // The thread's copy keeps the look's own time: a second from the stat.
  look.epoch = epoch;
  look.rootVersion = root;
  look.atNs = at;
  look.status = rc;
  look.cfg = cfg;
  if (status != nullptr) *status = rc;
  return cfg;
}

uint64_t qxConfigVersion(int* status) {
  const Pin& pin = t_config.pin;
  if (pin.depth > 0) {
    if (status != nullptr) *status = pin.status;
    return pin.cfg->version;
  }
  return qxLoadMasterConfig(status)->version;
}

void qxConfigChanged() {
  std::lock_guard<std::mutex> guard(g_cacheMutex);
  g_lastLook.valid = false;
  g_lookEpoch.fetch_add(1, std::memory_order_release);
}

void qxConfigT_setClock(int64_t (*nowNs)()) {
  std::lock_guard<std::mutex> guard(g_cacheMutex);
  g_clock = nowNs;
  g_lastLook.valid = false;
  g_lookEpoch.fetch_add(1, std::memory_order_release);
}

QXConfigSnapshot::QXConfigSnapshot() {
  Pin& pin = t_config.pin;
  if (pin.depth == 0) {
    int rc = 0;
    pin.cfg = qxLoadMasterConfig(&rc);
    pin.status = rc;
  }
  ++pin.depth;
}

QXConfigSnapshot::~QXConfigSnapshot() {
  Pin& pin = t_config.pin;
  if (--pin.depth == 0) pin.cfg.reset();
}

std::shared_ptr<const QXMasterConfig> qxLoadMasterConfigUnlogged(int* status) {
  if (status != nullptr) *status = 0;
  FileKey key;
  key.path = configPath();
  struct stat st;
  if (stat(key.path.c_str(), &st) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return emptyConfig();
    if (status != nullptr) *status = QX_ERR_FILE_NOT_FOUND;
    return emptyConfig();
  }
  key.dev = st.st_dev;
  key.ino = st.st_ino;
  key.size = st.st_size;
  key.mtimeNs = ns(st.st_mtim);
  key.ctimeNs = ns(st.st_ctim);

  // A file changed twice within one timestamp tick keeps its stat data; so a
  // recently written file is compared by content rather than trusted.
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  bool recent = ns(now) - key.mtimeNs < 2000000000LL;

  {
    std::lock_guard<std::mutex> guard(g_cacheMutex);
    if (g_cached && !recent && key == g_cachedKey) return g_cached;
  }

  // Reading and parsing log, and logging may read the configuration: no lock
  // is held here.
  std::string text;
  int rc = readFile(key.path, st, text);
  if (rc == -1) return emptyConfig();
  if (rc != 0) {
    if (status != nullptr) *status = rc;
    return emptyConfig();
  }
  key.ino = st.st_ino;  // what was actually read
  key.dev = st.st_dev;
  {
    std::lock_guard<std::mutex> guard(g_cacheMutex);
    if (g_cached && key.path == g_cachedKey.path && text == g_cachedText) {
      g_cachedKey = key;
      return g_cached;
    }
  }
  std::shared_ptr<const QXMasterConfig> parsed = qxParseMasterConfig(text, key.path);
  std::lock_guard<std::mutex> guard(g_cacheMutex);
  g_cached = parsed;
  g_cachedText.swap(text);
  g_cachedKey = key;
  return parsed;
}

int QX_read_master_config() {
  int status = 0;
  std::shared_ptr<const QXMasterConfig> cfg = qxLoadMasterConfig(&status);
  t_current = cfg;
  return status;
}

QXConfigHandle get_master_config_ptr() { return t_current ? t_current.get() : emptyConfig().get(); }

namespace {
const std::vector<std::string>* lookup(QXConfigHandle cfg, const char* key) {
  if (cfg == nullptr || key == nullptr) return nullptr;
  auto it = cfg->values.find(key);
  if (it == cfg->values.end() || it->second.empty()) return nullptr;
  return &it->second;
}
}  // namespace

int qxParseYesNo(const std::string& text, bool* value) {
  static const char* const yes[] = {"YES", "TRUE", "ON", "1"};
  static const char* const no[] = {"NO", "FALSE", "OFF", "0"};
  for (const char* w : yes) {
    if (strcasecmp(text.c_str(), w) == 0 && text.size() == std::strlen(w)) {
      if (value != nullptr) *value = true;
      return 0;
    }
  }
  for (const char* w : no) {
    if (strcasecmp(text.c_str(), w) == 0 && text.size() == std::strlen(w)) {
      if (value != nullptr) *value = false;
      return 0;
    }
  }
  return 2;
}

int bpconfGetKeyValPairAsBool(QXConfigHandle cfg, const char* key, bool* value) {
  const std::vector<std::string>* v = lookup(cfg, key);
  if (v == nullptr) return 1;
  bool b = false;
  if (qxParseYesNo(v->back(), &b) != 0) {
    QXLOG(QXLOG_ERROR, "bpconfGetKeyValPairAsBool")
        << "Value of [" << key << "] is not a yes/no word; ignored";
    return 2;
  }
  if (value != nullptr) *value = b;
  return 0;
}

int bpconfGetKeyValue(QXConfigHandle cfg, const char* key, std::string& value) {
  const std::vector<std::string>* v = lookup(cfg, key);
  if (v == nullptr) return 1;
  value = v->back();
  return 0;
}

std::vector<std::string> bpconfGetKeyValues(QXConfigHandle cfg, const char* key) {
  const std::vector<std::string>* v = lookup(cfg, key);
  return v != nullptr ? *v : std::vector<std::string>();
}

int bpconfGetKeyValueAsInt(QXConfigHandle cfg, const char* key, long* value) {
  const std::vector<std::string>* v = lookup(cfg, key);
  if (v == nullptr) return 1;
  const std::string& s = v->back();
  errno = 0;
  char* end = nullptr;
  long n = std::strtol(s.c_str(), &end, 10);
  bool digits = !s.empty() && (std::isdigit(static_cast<unsigned char>(s[0])) ||
                               ((s[0] == '-' || s[0] == '+') && s.size() > 1 &&
                                std::isdigit(static_cast<unsigned char>(s[1]))));
  if (!digits || errno == ERANGE || end == nullptr || *end != '\0' || end != s.c_str() + s.size()) {
    QXLOG(QXLOG_ERROR, "bpconfGetKeyValueAsInt")
        << "Value of [" << key << "] is not a decimal integer; ignored";
    return 2;
  }
  if (value != nullptr) *value = n;
  return 0;
}

int getCrlCheckLevelFromConfig(unsigned int* level) {
  if (level == nullptr) return QX_ERR_BAD_ARGUMENT;
  int status = 0;
  std::shared_ptr<const QXMasterConfig> cfg = qxLoadMasterConfig(&status);
  if (status != 0) return status;
  long n = 1;
  int rc = bpconfGetKeyValueAsInt(cfg.get(), "CRL_CHECK_LEVEL", &n);
  if (rc == 1)
    n = 1;
  else if (rc != 0 || n < 0 || n > 2) {
    QXLOG(QXLOG_ERROR, "getCrlCheckLevelFromConfig") << "CRL_CHECK_LEVEL must be 0, 1 or 2";
    return QX_ERR_BAD_ARGUMENT;
  }
  *level = static_cast<unsigned int>(n);
  return 0;
}

namespace {

char* dupString(const std::string& s) {
  char* p = static_cast<char*>(std::malloc(s.size() + 1));
  if (p == nullptr) throw QX_ERR_NO_MEMORY;
  std::memcpy(p, s.c_str(), s.size() + 1);
  return p;
}

void freeServers(qxconf_server_entry* e) {
  while (e != nullptr) {
    qxconf_server_entry* next = e->next;
    std::free(e->name);
    delete e;
    e = next;
  }
}

void freeTunnels(qxconf_tunnel_entry* e) {
  while (e != nullptr) {
    qxconf_tunnel_entry* next = e->next;
    std::free(e->host);
    std::free(e->tunnel);
    delete e;
    e = next;
  }
}

qxconf_server_entry* serverList(const std::vector<std::string>& names) {
  qxconf_server_entry* head = nullptr;
  qxconf_server_entry** tail = &head;
  try {
    for (const std::string& n : names) {
      if (n.empty()) continue;
      *tail = new qxconf_server_entry{nullptr, nullptr};
      (*tail)->name = dupString(n);
      tail = &(*tail)->next;
    }
  } catch (...) {
    freeServers(head);
    throw;
  }
  return head;
}

// Splits "<master> <tunnel>" at blanks; false unless exactly two words.
bool splitTunnelLine(const std::string& line, std::string& host, std::string& tunnel) {
  std::vector<std::string> words;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
    size_t start = i;
    while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
    if (i > start) words.push_back(line.substr(start, i - start));
  }
  if (words.size() != 2) return false;
  host = words[0];
  tunnel = words[1];
  return true;
}

}  // namespace

namespace {
int buildInfo(const QXMasterConfig* c, qxconf_info** info) {
  const char* tag = "qxconf_get_info";

  qxconf_info* rec = new (std::nothrow) qxconf_info{};
  if (rec == nullptr) return QX_ERR_NO_MEMORY;
  try {
    rec->server_list = serverList(bpconfGetKeyValues(c, "SERVER"));
    rec->media_server_list = serverList(bpconfGetKeyValues(c, "MEDIA_SERVER"));

    long n = 0;
    rec->websvr_connect_timeout = 0;
    if (bpconfGetKeyValueAsInt(c, "WEB_SERVER_CONNECT_TIMEOUT", &n) == 0) {
      if (n >= 0 && n <= INT_MAX)
        rec->websvr_connect_timeout = static_cast<int>(n);
      else
        QXLOG(QXLOG_ERROR, tag) << "WEB_SERVER_CONNECT_TIMEOUT out of range; ignored";
    }
    rec->tunnel_use = 2;
    if (bpconfGetKeyValueAsInt(c, "WEB_SERVER_TUNNEL_USE", &n) == 0) {
      if (n >= 0 && n <= INT_MAX)
        rec->tunnel_use = static_cast<int>(n);
      else
        QXLOG(QXLOG_ERROR, tag) << "WEB_SERVER_TUNNEL_USE out of range; ignored";
    }
    bool enabled = false;
    bpconfGetKeyValPairAsBool(c, "WEB_SERVER_TUNNEL_ENABLE", &enabled);
    rec->tunnel_enabled = enabled ? 1 : 0;

    qxconf_tunnel_entry** tail = &rec->tunnel_overrides;
    int index = 0;
    for (const std::string& line : bpconfGetKeyValues(c, "WEB_SERVER_TUNNEL")) {
      ++index;
      std::string host, tunnel;
      if (!splitTunnelLine(line, host, tunnel)) {
        QXLOG(QXLOG_ERROR, tag) << "WEB_SERVER_TUNNEL entry [" << index
                                << "] is not \"<master> <tunnel>\"; skipped";
        continue;
      }
      *tail = new qxconf_tunnel_entry{nullptr, nullptr, nullptr};
      (*tail)->host = dupString(host);
      (*tail)->tunnel = dupString(tunnel);
      tail = &(*tail)->next;
    }
  } catch (...) {
    qxconf_free_info(&rec);
    return QX_ERR_NO_MEMORY;
  }
  *info = rec;
  return 0;
}
}  // namespace

int qxconf_get_info(qxconf_info** info) {
  if (info == nullptr) return QX_ERR_BAD_ARGUMENT;
  int status = 0;
  std::shared_ptr<const QXMasterConfig> cfg = qxLoadMasterConfig(&status);
  if (status != 0) return status;
  return buildInfo(cfg.get(), info);
}

std::shared_ptr<const qxconf_info> qxconf_current_info(int* status) {
  int rc = 0;
  std::shared_ptr<const QXMasterConfig> cfg = qxLoadMasterConfig(&rc);
  if (status != nullptr) *status = rc;
  if (rc != 0) return nullptr;
  static std::mutex s_mutex;
  static std::shared_ptr<const QXMasterConfig> s_cfg;
  static std::shared_ptr<const qxconf_info> s_info;
  {
    std::lock_guard<std::mutex> guard(s_mutex);
    if (s_info && s_cfg == cfg) return s_info;
  }
  // Building logs about bad entries: no lock held.
  qxconf_info* raw = nullptr;
  rc = buildInfo(cfg.get(), &raw);
  if (rc != 0) {
    if (status != nullptr) *status = rc;
    return nullptr;
  }
  std::shared_ptr<const qxconf_info> info(raw, [](const qxconf_info* p) {
    qxconf_info* q = const_cast<qxconf_info*>(p);
    qxconf_free_info(&q);
  });
  std::lock_guard<std::mutex> guard(s_mutex);
  s_cfg = cfg;
  s_info = info;
  return info;
}

void qxconf_free_info(qxconf_info** info) {
  if (info == nullptr || *info == nullptr) return;
  freeServers((*info)->server_list);
  freeServers((*info)->media_server_list);
  freeTunnels((*info)->tunnel_overrides);
  delete *info;
  *info = nullptr;
}

int IsFeatureEnabled_c(int feature) {
  std::shared_ptr<const QXMasterConfig> cfg = qxLoadMasterConfig(nullptr);
  std::string key = "FEATURE_" + std::to_string(feature);
  bool on = false;
  return bpconfGetKeyValPairAsBool(cfg.get(), key.c_str(), &on) == 0 && on ? 1 : 0;
}

int is_current_user_configured_service_admin(int /*reserved*/) {
  std::shared_ptr<const QXMasterConfig> cfg = qxLoadMasterConfig(nullptr);
  std::string user;
  if (bpconfGetKeyValue(cfg.get(), "SERVICE_USER", user) != 0 || user.empty()) return 0;
  uid_t euid = geteuid();

  bool numeric = user.find_first_not_of("0123456789") == std::string::npos && user.size() < 10;
  if (numeric) return static_cast<uid_t>(std::strtoul(user.c_str(), nullptr, 10)) == euid;

  long bufSize = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buf(bufSize > 0 ? static_cast<size_t>(bufSize) : 16384);
  struct passwd pw;
  struct passwd* found = nullptr;
  if (getpwnam_r(user.c_str(), &pw, buf.data(), buf.size(), &found) != 0 || found == nullptr) {
    return 0;
  }
  return found->pw_uid == euid ? 1 : 0;
}
