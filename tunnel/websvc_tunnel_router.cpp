#include "qxcurl/websvc_tunnel_router.h"

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/qx_config.h"
#include "platform/qx_log.h"
#include "platform/qx_root.h"
#include "platform/qx_safefile.h"
#include "platform/qx_util.h"
#include "platform/qx_wnet.h"
#include "qxcurl/qx_lock_file.h"
#include "qxcurl/qx_status.h"
#include "tunnel/qxwebsvcpxy_bpconf.h"

namespace {

enum LookupState {
  STATE_START = 0,
  STATE_MEMORY = 1,
  STATE_ADDITIONAL = 2,
  STATE_OVERRIDES = 3,
  STATE_CACHE_FILE = 4,
  STATE_DIRECT = 5,
  STATE_SERVER_LIST = 6,
  STATE_EXHAUSTED = 7,
};

constexpr int kLockRetries = 10;
constexpr int kLockSleepSeconds = 5;
// The cache holds a few host names per master; anything near this size is
// damage or an attack, and only its first complete lines are used.
constexpr size_t kCacheReadCap = 1 << 20;
// Cache files are readable by every account of the host: they name hosts
// only, and services of other accounts consult the same file.
constexpr mode_t kCacheFileMode = 0644;

const char* const kCacheFileName = "websvctunnels.cache";
const char* const kLockFileName = "websvctunnels.lck";
const char* const kAdditionalServersMsg =
    "Additional servers specified by caller. Hence treating this as a special case and skipping "
    "reading QXU configuration.";

// "/tmp" unless a test relocated it.
std::string& fallbackDir() {
  static std::string dir = "/tmp";
  return dir;
}

// strcasecmp that also compares bytes after a NUL (cache lines may hold any).
bool sameName(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  }
  return true;
}

// Reads the cache file at path when it is trusted (no link, regular, ours or
// root's, writable by nobody else). A file over the cap is cut to its first
// complete lines.
QXFileTrust readCacheText(const std::string& path, std::string& out, const char* tag) {
  bool truncated = false;
  QXFileTrust trust = qxReadTrustedHead(path, kCacheReadCap, out, &truncated);
  if (trust != QX_FILE_OK) return trust;
  if (truncated) {
    size_t nl = out.rfind('\n');
    out.erase(nl == std::string::npos ? 0 : nl + 1);
    QXLOG(QXLOG_DETAIL, tag) << "Cache file " << path << " is larger than " << kCacheReadCap
                             << " bytes; only its first lines are used.";
  }
  return QX_FILE_OK;
}

// Calls fn(line) for each line of text (split at line feeds).
template <class Fn>
void forEachLine(const std::string& text, Fn fn) {
  size_t start = 0;
  while (start <= text.size()) {
    size_t nl = text.find('\n', start);
    if (nl == std::string::npos) nl = text.size();
    fn(text.substr(start, nl - start));
    start = nl + 1;
  }
}

void logUnreadable(const char* tag, const std::string& path, QXFileTrust trust, int level,
                   const char* message) {
  QXLOG(level, tag) << "File " << path << message;
  if (trust == QX_FILE_UNTRUSTED) {
    QXLOG(QXLOG_ERROR, tag) << "Cache file " << path << " is " << qxFileTrustText(trust)
                            << "; it is ignored.";
  }
}

// A name that cannot round-trip through one "master = tunnel" line.
bool storableName(const std::string& name) {
  if (name.empty()) return false;
  for (char c : name) {
    unsigned char u = static_cast<unsigned char>(c);
    if (u <= ' ' || u == 0x7f || c == '=') return false;
  }
  return true;
}

}  // namespace

// ---- cache file location and lines ----

void QXWebsvcTunnelRouter::T_setFallbackDir(const char* dir) { fallbackDir() = dir ? dir : "/tmp"; }

int getCacheFilePath(std::string& path, bool lockFile, bool allowTmp) {
  const char* tag = "getCacheFilePath";
  path.clear();
  char root[1024];
  int rc = getQXInstallDir(root, sizeof root);
  std::string dir;
  bool fallback = false;
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Retrieval of QXU installed dir "
                            << "failed with error: " << rc;
    // Without the fallback the bare name is used, relative to the current
    // directory.
    fallback = allowTmp;
  } else {
    dir = std::string(root) + "arvion" + "/";
    if (access(dir.c_str(), W_OK) != 0) {
      if (!allowTmp) {
        QXLOG(QXLOG_ERROR, tag) << "QXU installation directory does not exist : " << dir;
        return QX_ERR_NO_INSTALL_DIR;
      }
      fallback = true;
    }
  }
  if (fallback) dir = fallbackDir() + "/";
  path = dir + (lockFile ? kLockFileName : kCacheFileName);
  return 0;
}

int get_cache_file_names(std::string& cacheFile, std::string& lockFile, bool allowTmp) {
  int rc = getCacheFilePath(cacheFile, false, allowTmp);
  if (rc != 0) return rc;
  return getCacheFilePath(lockFile, true, allowTmp);
}

bool parse_cache_line(std::string line, std::string& key, std::string& value) {
  const char* tag = "parse_cache_line";
  line = trim(line);
  if (line.empty()) return false;
  size_t first = line.find('=');
  if (first == std::string::npos) {
    QXLOG(QXLOG_ERROR, tag)
        << "Cache file corruption: Line with invalid formatting encountered. Missing '=' sign.";
    return false;
  }
  if (first != line.rfind('=')) {
    QXLOG(QXLOG_ERROR, tag)
        << "Cache file corruption: Line with invalid formatting encountered. Multiple '=' signs.";
    return false;
  }
  key = trim(line.substr(0, first));
  value = trim(line.substr(first + 1));
  return true;
}

// ---- router ----

QXWebsvcTunnelRouter::QXWebsvcTunnelRouter() = default;

QXWebsvcTunnelRouter::~QXWebsvcTunnelRouter() {
  m_additionalServers.clear();
  m_lastTunnel.clear();
}

int QXWebsvcTunnelRouter::setAdditionalTunnelServers(const std::list<std::string>& servers) {
  if (servers.empty()) return 0;
  m_additionalServers = servers;
  m_hasAdditionalServers = true;
  return 0;
}

int QXWebsvcTunnelRouter::readConfig() {
  int use = 0;
  int rc = getTunnelUse(use);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, "QXWebsvcTunnelRouter::readConfig")
        << "Master config read failed with error: " << rc;
    return 0;
  }
  if (use != m_tunnelUse) {
    m_tunnelUse = use;
    m_lookupState = STATE_START;
  }
  return 0;
}

void QXWebsvcTunnelRouter::resetState() {
  QXLOG(QXLOG_PROGRESS, "QXWebsvcTunnelRouter::resetState")
      << "Tunnel Router's current state = [" << m_lookupState << "].";
  m_lookupState = STATE_START;
  QXLOG(QXLOG_PROGRESS, "QXWebsvcTunnelRouter::resetState")
      << "Tunnel Router's state reset to [" << m_lookupState << "].";
}

bool QXWebsvcTunnelRouter::useHttpTunnel() {
  const char* tag = "QXWebsvcTunnelRouter::useHttpTunnel";
  // The answer depends on the configuration alone: it is worked out once per
  // configuration, not per request. An unreadable one is never remembered,
  // so its error is logged each time.
  int status = 0;
  const uint64_t version = qxConfigVersion(&status);
  if (status != 0 || version != m_decidedConfig) {
    m_decidedConfig = 0;
    m_decidedServer = wnet_is_server("localhost");
  }
  if (m_decidedServer) return false;
  if (m_hasAdditionalServers) {
    QXLOG(QXLOG_PROGRESS, tag) << kAdditionalServersMsg;
    return true;
  }
  if (m_decidedConfig == 0) {
    int use = 0;
    int rc = getTunnelUse(use);
    if (rc != 0) {
      QXLOG(QXLOG_ERROR, tag) << "Master config read failed with error: " << rc;
      return false;
    }
    m_decidedUse = use;
    m_decidedConfig = status == 0 ? version : 0;
  }
  m_tunnelUse = m_decidedUse;
  return m_tunnelUse == 0 || m_tunnelUse == 1;
}

int QXWebsvcTunnelRouter::getWebServerConnectTimeout() {
  const char* tag = "QXWebsvcTunnelRouter::getWebServerConnectTimeout";
  if (wnet_is_server("localhost")) return 0;
  if (m_hasAdditionalServers) {
    QXLOG(QXLOG_PROGRESS, tag) << kAdditionalServersMsg;
    return 0;
  }
  int seconds = 0;
  int rc = getWebServerConnectionTimeout(seconds);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Master config read failed with error: " << rc;
    return 0;
  }
  return seconds;
}

std::list<std::string> QXWebsvcTunnelRouter::getWebsvcTunnelServers(std::string& master) {
  const char* tag = "QXWebsvcTunnelRouter::getWebsvcTunnelServers";
  std::list<std::string> result;
  if (!m_hasAdditionalServers) {
    readConfig();
    QXLOG(QXLOG_PROGRESS, tag) << "Read QXU configuration settings.";
  }
  if (m_tunnelUse > 1 && !m_hasAdditionalServers) return std::list<std::string>(1, std::string());

  for (;;) {
    result.clear();
    switch (m_lookupState) {
      case STATE_START:
        m_lookupState = STATE_MEMORY;
        break;

      case STATE_MEMORY:
        m_lookupState = m_hasAdditionalServers ? STATE_CACHE_FILE : STATE_OVERRIDES;
        if (!m_lastTunnel.empty()) {
          result.push_back(m_lastTunnel);
          QXLOG(QXLOG_PROGRESS, tag)
              << "Returning [" << 1 << "] tunnel server from in-memory cache.";
          return result;
        }
        QXLOG(QXLOG_PROGRESS, tag) << "Returning [" << 0 << "] tunnel server from in-memory cache.";
        break;

      case STATE_ADDITIONAL:
        result = m_additionalServers;
        m_lookupState = STATE_EXHAUSTED;
        QXLOG(QXLOG_PROGRESS, tag)
            << "Returning [" << result.size()
            << "] tunnel servers from user-specified Additional servers' list.";
        return result;

      case STATE_OVERRIDES: {
        int rc = getTunnelOverrides(master, result);
        if (rc != 0) {
          // The state stays: a configuration that stays unreadable keeps the
          // lookup here until it can be read again.
          QXLOG(QXLOG_ERROR, tag) << "Master config read failed with error: " << rc;
          break;
        }
        m_lookupState = STATE_CACHE_FILE;
        QXLOG(QXLOG_PROGRESS, tag)
            << "Returning [" << result.size()
            << "] tunnel servers from user-specified (override) settings in QXU Configuration.";
        if (!result.empty()) return result;
        break;
      }

      case STATE_CACHE_FILE:
        getTunnelsFromCache(master, result);
        m_lookupState = m_tunnelUse == 1 ? STATE_SERVER_LIST : STATE_DIRECT;
        QXLOG(QXLOG_PROGRESS, tag)
            << "Returning [" << result.size()
            << "] tunnel servers from Client router's tunnel servers' cache.";
        if (!result.empty()) return result;
        break;

      case STATE_DIRECT:
        result.push_back(std::string());
        QXLOG(QXLOG_PROGRESS, tag)
            << "Returning [0] tunnel servers. Will try to directly connect to the Web service.";
        m_lookupState = m_hasAdditionalServers ? STATE_ADDITIONAL : STATE_SERVER_LIST;
        return result;

      case STATE_SERVER_LIST: {
        getServersListFromConfig(result, false);
        if (!result.empty() && strcasecmp(result.front().c_str(), master.c_str()) == 0) {
          result.pop_front();  // the master is no tunnel to itself
        }
        std::list<std::string> media;
        getServersListFromConfig(media, true);
        addMediaServersToServers(result, media);
        m_lookupState = STATE_EXHAUSTED;
        QXLOG(QXLOG_PROGRESS, tag) << "Returning [" << result.size()
                                   << "] tunnel servers from SERVER list in QXU Configuration.";
        return result;
      }

      case STATE_EXHAUSTED:
        return result;

      default:
        // Dispatching an unknown state again would never end: the walk ends
        // here instead, until resetState().
        QXLOG(QXLOG_ERROR, tag)
            << "Fatal error: Unknown Router lookup state encountrered. state = [" << m_lookupState
            << "].";
        return result;
    }
  }
}

int QXWebsvcTunnelRouter::getTunnelsFromCache(std::string& master,
                                              std::list<std::string>& tunnels) {
  const char* tag = "QXWebsvcTunnelRouter::getTunnelsFromCache";
  std::string cacheFile, lockFile;
  int rc = get_cache_file_names(cacheFile, lockFile, m_hasAdditionalServers);
  if (rc != 0) return rc;
  if (!fileExists(cacheFile)) {
    QXLOG(QXLOG_PROGRESS, tag) << "Cache File " << cacheFile << " does not exist.";
    return 0;
  }
  QXLockFile lock(lockFile.c_str(), kLockRetries, kLockSleepSeconds);
  if (!lock.isLocked()) {
    QXLOG(QXLOG_ERROR, tag) << "Failed to lock the cache file.";
    return QX_ERR_LOCK;
  }
  std::string text;
  QXFileTrust trust = readCacheText(cacheFile, text, tag);
  if (trust != QX_FILE_OK) {
    logUnreadable(tag, cacheFile, trust, QXLOG_ERROR,
                  " exists, but could not be opened for reading.");
    lock.unlock_file();
    return QX_ERR_FILE_OPEN;
  }
  forEachLine(text, [&](const std::string& line) {
    std::string key, value;
    if (parse_cache_line(line, key, value) && sameName(key, master)) tunnels.push_back(value);
  });
  lock.unlock_file();
  return 0;
}

bool QXWebsvcTunnelRouter::isTunnelServerCached(std::string& master, std::string& tunnel) {
  const char* tag = "QXWebsvcTunnelRouter::isTunnelServerCached";
  std::string cacheFile, lockFile;
  if (get_cache_file_names(cacheFile, lockFile, m_hasAdditionalServers) != 0) return false;
  std::string text;
  if (readCacheText(cacheFile, text, tag) != QX_FILE_OK) return false;
  bool found = false;
  forEachLine(text, [&](const std::string& line) {
    std::string key, value;
    if (!found && parse_cache_line(line, key, value) && sameName(key, master) &&
        sameName(value, tunnel))
      found = true;
  });
  return found;
}

int QXWebsvcTunnelRouter::addTunnelServerToCache(std::string& master, std::string& tunnel) {
  const char* tag = "QXWebsvcTunnelRouter::addTunnelServerToCache";
  // A name with blanks, control characters or '=' would write a line that
  // reads back differently, or several lines.
  if (!storableName(master) || !storableName(tunnel)) {
    QXLOG(QXLOG_ERROR, tag) << "Tunnel server [" << tunnel << "] of master [" << master
                            << "] cannot be written to the cache.";
    return QX_ERR_BAD_ARGUMENT;
  }
  std::string cacheFile, lockFile;
  int rc = get_cache_file_names(cacheFile, lockFile, m_hasAdditionalServers);
  if (rc != 0) return rc;
  QXLockFile lock(lockFile.c_str(), kLockRetries, kLockSleepSeconds);
  if (!lock.isLocked()) {
    QXLOG(QXLOG_ERROR, tag) << "Failed to lock the cache file.";
    return QX_ERR_LOCK;
  }
  if (isTunnelServerCached(master, tunnel)) return 0;

  // Append only to a trusted file; create a missing one exclusively, so a
  // link or another account's file planted at the path is never written.
  QXFileTrust trust = QX_FILE_OK;
  int fd = qxOpenTrusted(cacheFile, O_WRONLY | O_APPEND, &trust);
  if (fd < 0 && trust == QX_FILE_ABSENT) {
    fd = qxCreateExclusive(cacheFile, O_WRONLY | O_APPEND, kCacheFileMode);
    if (fd < 0 && errno == EEXIST) fd = qxOpenTrusted(cacheFile, O_WRONLY | O_APPEND, &trust);
  }
  if (fd < 0) {
    logUnreadable(tag, cacheFile, trust, QXLOG_ERROR,
                  " exists, but could not be opened for writing.");
    return QX_ERR_FILE_OPEN;
  }
  // The line end goes before the entry: "\r\n%s = %s".
  bool written = qxWriteAll(fd, "\r\n" + master + " = " + tunnel);
  close(fd);
  if (!written) {
    QXLOG(QXLOG_ERROR, tag) << "File " << cacheFile << " opened, but could not be written to.";
    return QX_ERR_WRITE;
  }
  QXLOG(QXLOG_PROGRESS, tag) << "Tunnel server [" << tunnel
                             << "] has been successfully added to the cache.";
  lock.unlock_file();
  return 0;
}

void QXWebsvcTunnelRouter::updateWebsvcTunnelServersCache(std::string& master,
                                                          std::string& tunnel) {
  if (m_lastTunnel.empty() || strcasecmp(m_lastTunnel.c_str(), tunnel.c_str()) != 0) {
    m_lastTunnel = tunnel;
  }
  if (addTunnelServerToCache(master, tunnel) != 0) {
    QXLOG(QXLOG_ERROR, "QXWebsvcTunnelRouter::updateWebsvcTunnelServersCache")
        << "Failed to add Tunnel server [" << tunnel << "] to the cache.";
  }
}

int QXWebsvcTunnelRouter::resetWebsvcTunnelServersCache(const std::string& master) {
  const char* tag = "QXWebsvcTunnelRouter::resetWebsvcTunnelServersCache";
  std::string cacheFile, lockFile;
  int rc = get_cache_file_names(cacheFile, lockFile, m_hasAdditionalServers);
  if (rc != 0) return rc;
  QXLockFile lock(lockFile.c_str(), kLockRetries, kLockSleepSeconds);
  if (!lock.isLocked()) {
    QXLOG(QXLOG_ERROR, tag) << "Failed to lock the cache file.";
    return QX_ERR_LOCK;
  }
  std::string text;
  QXFileTrust trust = readCacheText(cacheFile, text, tag);
  if (trust != QX_FILE_OK) {
    logUnreadable(tag, cacheFile, trust, QXLOG_DETAIL, " could not be opened for reading.");
    // No file: nothing to forget, and no empty file to leave behind.
    if (trust == QX_FILE_ABSENT) return 0;
  }
  std::string kept;
  forEachLine(text, [&](const std::string& line) {
    std::string key, value;
    if (parse_cache_line(line, key, value) && !sameName(key, master)) kept += trim(line) + "\n";
  });

  // Remove, then create anew: exclusively, so that whatever appears at the
  // path in between (a link, another account's file) makes this fail
  // instead of being written through.
  if (std::remove(cacheFile.c_str()) != 0 && errno != ENOENT) {
    QXLOG(QXLOG_ERROR, tag) << "Unable to delete " << cacheFile << ": " << std::strerror(errno);
  }
  int fd = qxCreateExclusive(cacheFile, O_WRONLY, kCacheFileMode);
  if (fd < 0) {
    QXLOG(QXLOG_ERROR, tag) << "Unable to open " << cacheFile << " for rewriting";
    return QX_ERR_FILE_OPEN;
  }
  bool written = qxWriteAll(fd, kept);
  close(fd);
  if (!written) {
    QXLOG(QXLOG_ERROR, tag) << "File " << cacheFile << " opened, but could not be written to.";
    return QX_ERR_WRITE;
  }
  lock.unlock_file();
  return 0;
}

bool QXWebsvcTunnelRouter::fileExists(std::string& path) {
  // O_NONBLOCK: a FIFO planted at the path must not hang the check.
  int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return errno == ELOOP;
  close(fd);
  return true;
}
