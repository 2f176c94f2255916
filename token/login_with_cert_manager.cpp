#include "qxcurl/login_with_cert_manager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>

#include "platform/qx_certmap.h"
#include "platform/qx_config.h"
#include "platform/qx_log.h"
#include "platform/qx_process.h"
#include "platform/qx_root.h"
#include "platform/qx_safefile.h"
#include "platform/qx_util.h"
#include "qxcurl/json_token_manager.h"
#include "qxcurl/qx_lock_file.h"
#include "qxcurl/qx_status.h"
#include "qxcurl/qxclnt_curl.h"
#include "token/token_factory.h"
#include "token/token_guard.h"

namespace {

constexpr const char* kPlaceholderToken = "xxxx";
constexpr const char* kLoginPath = "arvion/loginwithcert";
constexpr const char* kCertCmd = "/usr/tarvo/arvion/bin/qxcertcmd";
constexpr int kReadMode = 0;
constexpr int kWriteMode = 1;
// A real cache file is a few kilobytes; anything far larger is not ours.
constexpr size_t kMaxTokenFileSize = 1 << 20;

time_t (*g_clock)() = nullptr;
int (*g_certOpsHook)(std::string) = nullptr;

int64_t timeNow() { return g_clock != nullptr ? g_clock() : time(nullptr); }

// a - b, saturated: times come from a file anyone may have damaged.
int64_t secondsBetween(int64_t a, int64_t b) {
  int64_t r = 0;
  if (__builtin_sub_overflow(a, b, &r)) return a < b ? INT64_MIN : INT64_MAX;
  return r;
}

// Strict decimal: optional sign and digits only, within int64.
bool parseSeconds(const std::string& s, int64_t& value) {
  if (s.empty() || s.size() > 20) return false;
  size_t i = (s[0] == '-' || s[0] == '+') ? 1 : 0;
  if (i == s.size()) return false;
  for (size_t k = i; k < s.size(); ++k) {
    if (s[k] < '0' || s[k] > '9') return false;
  }
  errno = 0;
  char* end = nullptr;
  long long v = strtoll(s.c_str(), &end, 10);
  if (errno != 0 || end == nullptr || *end != '\0') return false;
  value = v;
  return true;
}

}  // namespace

void set_perform_cert_operations_cb(int (*hook)(std::string)) { g_certOpsHook = hook; }

void LoginWithCertManager::T_setClock(time_t (*clock)()) { g_clock = clock; }

LoginWithCertManager::LoginWithCertManager(int port, cert_type certType,
                                           const std::string& directory,
                                           const std::string& tokenFileName,
                                           const std::string& lockFileName,
                                           const bool& skipTrustProcessing)
    : m_lockFilePath(directory + "/" + lockFileName),
      m_tokenFilePath(directory + "/" + tokenFileName),
      m_certType(certType),
      m_port(port),
      m_tsleep(0),
      m_trustProcessed(false),
      m_skipTrustProcessing(skipTrustProcessing) {}

LoginWithCertManager::~LoginWithCertManager() = default;

void LoginWithCertManager::setJWTFilePaths(const std::string& serverName, cert_type certType,
                                           std::ostringstream& tokenFileName,
                                           std::ostringstream& lockFileName, int isServiceAdmin) {
  const char* tokenSuffix = isServiceAdmin ? "qxsvc-webtoken.dat" : "webtoken.dat";
  const char* lockSuffix = isServiceAdmin ? "qxsvc-websession.lck" : "websession.lck";
  tokenFileName << serverName << "." << static_cast<int>(certType) << "." << tokenSuffix;
  lockFileName << serverName << "." << static_cast<int>(certType) << "." << lockSuffix;
}

void LoginWithCertManager::T_setTsleep(int seconds) { m_tsleep = seconds; }

std::string LoginWithCertManager::refreshLockPath() const { return m_lockFilePath + ".refresh"; }

void LoginWithCertManager::updateJWTFailInfo(jwtToken& token) {
  token.tokenLastFailTimeSec = timeNow();
}

int LoginWithCertManager::getToken(const std::string& server, std::string& token, bool forceNew,
                                   std::vector<std::string>* certNames) {
  static const char* tag = "LoginWithCertManager::getToken";
  return qxGuardStatus(tag, QX_ERR_TOKEN, [&]() -> int {
    jwtToken record;
    const int64_t asked = timeNow();
    const int readStatus = forceNew ? 0 : getLocalToken(record);
    if (!forceNew && readStatus == 0) {
      int decision = isJWTRefreshRequired(record, server);
      if (decision == QX_JWT_REFRESH_AVOID) {
        QXLOG(QXLOG_ERROR, tag) << "Avoiding token refresh: " << QX_ERR_TOKEN;
        return QX_ERR_TOKEN;
      }
      if (decision != QX_JWT_REFRESH_NOW) {
        token = record.token;
        return 0;
      }
    }
    // One login per refresh for the whole host: the first process (or
    // thread) to want a new token logs in under this lock; the others wait
    // and take its token. A holder that keeps the lock past the wait limit
    // (a slow login) is not waited for any longer: we log in ourselves.
    QXTFLock refreshLock;
    int lockStatus = 0;
    QXTFLockHelper refreshGuard(&refreshLock, refreshLockPath().c_str(), kWriteMode, &lockStatus);
    // A forced refresh takes only a token issued after it was asked for: the
    // cached one is the token the server has just refused. A cache whose lock
    // just timed out is not waited for a second time.
    if (lockStatus == 0 && readStatus != QX_ERR_LOCK && getLocalToken(record) == 0 &&
        (!forceNew || record.tokenIssueTimeSec > asked)) {
      int decision = isJWTRefreshRequired(record, server);
      if (decision == QX_JWT_CACHED_GOOD) {
        token = record.token;
        return 0;
      }
      if (decision == QX_JWT_REFRESH_AVOID && !forceNew) {
        QXLOG(QXLOG_ERROR, tag) << "Avoiding token refresh: " << QX_ERR_TOKEN;
        return QX_ERR_TOKEN;
      }
    }
    int rc = getNewToken(server, record, certNames);
    if (rc != 0) {
      QXLOG(QXLOG_ERROR, tag) << "get new token failed with error: " << rc;
      return rc;
    }
    rc = saveNewToken(record);
    if (rc != 0) {
      QXLOG(QXLOG_ERROR, tag) << "save new token failed with error: " << rc;
      return rc;
    }
    token = record.token;
    return 0;
  });
}

int LoginWithCertManager::isJWTRefreshRequired(const jwtToken& token,
                                               const std::string& server) const {
  static const char* tag = "LoginWithCertManager::isJWTRefreshRequired";
  const int64_t now = timeNow();
  const int64_t failed = token.tokenLastFailTimeSec;
  if (failed != 0 && secondsBetween(now, failed) <= kFailBackoffSec && now > failed) {
    int caMode = 0;
    int rc = getCAModeByServer(m_certType, server.c_str(), &caMode);
    if (rc != 0) {
      QXLOG(QXLOG_ERROR, tag) << "Failed to detemine CA mode, avoiding token request. Error : "
                              << rc;
      return QX_JWT_REFRESH_AVOID;
    }
    time_t modTime = 0;
    // Only a host on the product's own CA alone replaces its certificate in
    // a way that can cure a refused login.
    if (caMode == 0 && getCertModTime(m_certType, server.c_str(), &modTime) != 0) modTime = 0;
    if (failed < static_cast<int64_t>(modTime)) {
      QXLOG(QXLOG_PROGRESS, tag) << "tokenlastFailTimeSec = " << failed << ", timeNow = " << now
                                 << ", but cert recently modified at" << modTime;
      return QX_JWT_REFRESH_NOW;
    }
    QXLOG(QXLOG_PROGRESS, tag) << "tokenlastFailTimeSec = " << failed << ", timeNow = " << now
                               << ", will fail more for = " << (failed + kFailBackoffSec - now);
    return QX_JWT_REFRESH_AVOID;
  }
  const int64_t left = secondsBetween(token.tokenExpTimeSec, now);
  QXLOG(QXLOG_PROGRESS, tag) << "tokenExpTimeSec = " << token.tokenExpTimeSec
                             << ", timeNow = " << now << ", (tokenExpTimeSec-timeNow) = " << left;
  if (left <= kRefreshMarginSec) {
    QXLOG(QXLOG_PROGRESS, tag) << "Token-refresh IS required";
    return QX_JWT_REFRESH_NOW;
  }
  QXLOG(QXLOG_PROGRESS, tag) << "Token-refresh IS NOT required";
  return QX_JWT_CACHED_GOOD;
}

int LoginWithCertManager::getLocalToken(jwtToken& token) {
  static const char* tag = "LoginWithCertManager::getLocalToken";
  try {
    token = jwtToken();
    int status = 0;
    QXTFLockHelper guard(&JWTLock, m_lockFilePath.c_str(), kReadMode, &status);
    if (status != 0) {
      QXLOG(QXLOG_ERROR, tag) << "File " << m_lockFilePath << " could not be locked.";
      return status;
    }
    if (access(m_tokenFilePath.c_str(), F_OK) != 0) {
      QXLOG(QXLOG_PROGRESS, tag) << "Access of token lock file " << m_tokenFilePath
                                 << " failed: " << strerror(errno);
      return QX_ERR_FILE_NOT_FOUND;
    }
    readTokenFile(token);
    return 0;
  } catch (int status) {
    token = jwtToken();
    QXLOG(QXLOG_ERROR, tag) << "Exception encountered, status code: " << status;
    return status;
  } catch (...) {
    token = jwtToken();
    QXLOG(QXLOG_ERROR, tag) << "Unknown exception encountered";
    return QX_ERR_FILE_OPEN;
  }
}

// Throws 13 for a file that cannot be read or cannot be trusted.
void LoginWithCertManager::readTokenFile(jwtToken& token) {
  static const char* tag = "LoginWithCertManager::getLocalToken";
  std::string text;
  QXFileTrust trust = qxReadTrusted(m_tokenFilePath, kMaxTokenFileSize, text);
  if (trust == QX_FILE_IO_ERROR || trust == QX_FILE_ABSENT) {
    QXLOG(QXLOG_ERROR, tag) << "File " << m_tokenFilePath
                            << " exists, but could not be opened for reading";
    throw QX_ERR_FILE_OPEN;
  }
  if (trust != QX_FILE_OK) {
    // Planted by another account, or writable by one: its token or back-off
    // record is never used; the next save replaces it.
    QXLOG(QXLOG_ERROR, tag) << "File " << m_tokenFilePath << " is " << qxFileTrustText(trust)
                            << "; ignored";
    throw QX_ERR_FILE_OPEN;
  }

  std::vector<std::string> lines;
  size_t start = 0;
  while (lines.size() < 4 && start < text.size()) {
    size_t nl = text.find('\n', start);
    if (nl == std::string::npos) nl = text.size();
    lines.push_back(text.substr(start, nl - start));
    start = nl + 1;
  }
  lines.resize(4);
  token.token = lines[0];

  struct Field {
    int64_t* value;
    const char* name;
    const char* emptyMessage;
  };
  const Field fields[] = {
      {&token.tokenIssueTimeSec, "tokenIssueTimeSec = ",
       "Empty token issue-time string in cache. Setting tokenIssueTimeSec = 0"},
      {&token.tokenExpTimeSec, "tokenExpTimeSec = ",
       "Empty token expiration-time string in cache. Setting tokenExpTimeSec = 0"},
      {&token.tokenLastFailTimeSec, "tokenLastFailTimeSec = ",
       "Empty token lastFailTimeSec string in cache. Setting tokenLastFailTimeSec = 0"},
  };
  for (int i = 0; i < 3; ++i) {
    const std::string& line = lines[i + 1];
    if (line.empty()) {
      *fields[i].value = 0;
      QXLOG(QXLOG_PROGRESS, tag) << fields[i].emptyMessage;
      continue;
    }
    if (!parseSeconds(line, *fields[i].value)) {
      QXLOG(QXLOG_ERROR, tag) << "File " << m_tokenFilePath << " holds a malformed "
                              << fields[i].name << "line";
      throw QX_ERR_FILE_OPEN;
    }
    QXLOG(QXLOG_PROGRESS, tag) << fields[i].name << *fields[i].value;
  }
}

int LoginWithCertManager::saveNewToken(const jwtToken& token) {
  static const char* tag = "LoginWithCertManager::saveNewToken";
  if (token.token.empty()) {
    QXLOG(QXLOG_ERROR, tag) << "Token is empty so could not be updated with the new token";
    return QX_ERR_BAD_ARGUMENT;
  }
  // A line break inside the token would shift the times into other lines.
  if (token.token.find_first_of(std::string("\r\n\0", 3)) != std::string::npos) {
    QXLOG(QXLOG_ERROR, tag) << "Token holds a line break so could not be saved";
    return QX_ERR_BAD_ARGUMENT;
  }
  int status = 0;
  QXTFLockHelper guard(&JWTLock, m_lockFilePath.c_str(), kWriteMode, &status);
  if (status != 0) {
    QXLOG(QXLOG_ERROR, tag) << "File " << m_lockFilePath << " could not be locked.";
    return status;
  }
  if (m_tsleep != 0) {
    QXLOG(QXLOG_PROGRESS, tag) << "Waiting for " << m_tsleep << "second for comptest";
    sleep(static_cast<unsigned>(m_tsleep));
  }

  std::ostringstream body;
  body << token.token << "\n"
       << token.tokenIssueTimeSec << "\n"
       << token.tokenExpTimeSec << "\n"
       << token.tokenLastFailTimeSec << "\n";

  // Written whole to a private temporary file (mkstemp) and renamed into
  // place, so a reader or a crash never sees half a record and a name planted
  // by another account is never written through.
  mode_t oldMask = umask(0177);
  int err = qxReplaceFile(m_tokenFilePath, body.str(), 0600);
  umask(oldMask);
  if (err != 0) {
    QXLOG(QXLOG_ERROR, tag) << "File " << m_tokenFilePath
                            << " could not be updated with the new token";
    return QX_ERR_WRITE;
  }
  QXLOG(QXLOG_PROGRESS, tag) << "tokenIssueTimeSec = " << token.tokenIssueTimeSec
                             << ", tokenExpTimeSec = " << token.tokenExpTimeSec
                             << ", tokenLastFailTimeSec = " << token.tokenLastFailTimeSec;
  return 0;
}

int LoginWithCertManager::clearToken() {
  jwtToken cleared;
  cleared.token = kPlaceholderToken;
  return saveNewToken(cleared);
}

bool LoginWithCertManager::isRetryRequired(int httpCode, const std::string& responseBody) {
  static const char* tag = "LoginWithCertManager::isRetryRequired";
  if (httpCode != 401) return false;
  int errorCode = 0;
  std::string message;
  if (extractErrorFromJSON(responseBody, errorCode, message) != 0) {
    QXLOG(QXLOG_PROGRESS, tag) << "Unable to extract error code.";
    return false;
  }
  // 117: the token presented has expired.
  bool retry = errorCode == QX_ERR_TOKEN_EXPIRED;
  QXLOG(QXLOG_PROGRESS, tag) << "Webserver returned QX error code: " << errorCode
                             << (retry ? " retry." : " do not retry.");
  return retry;
}

void LoginWithCertManager::setupCurlOption(QXClientCURL* client) {
  if (client != nullptr) client->setupAcceptCurlOption("Accept: */*");
}

int LoginWithCertManager::getNewToken(const std::string& server, jwtToken& token,
                                      std::vector<std::string>* certNames) {
  static const char* tag = "LoginWithCertManager::getNewToken";
  return qxGuardStatus(tag, QX_ERR_TOKEN, [&]() -> int {
    QXClientCURL client(server, m_port, m_certType, QXCURL_GET_NEW_TOKEN);
    int rc = client.setupHostCertCurlOptionByCAType();
    if (rc != 0) {
      QXLOG(QXLOG_ERROR, tag) << "setupHostCertCurlOptionByCAType failed. error = " << rc;
      return rc;
    }
    if (m_operationTimeout != -1) client.setupCurlOperationTimeout(m_operationTimeout);
    token = jwtToken();

    // The CA mode this login is made under: a refusal is recorded for every
    // process only if the mode is still the same when the answer arrives.
    int loginCaMode = -1;
    if (getCAModeByServer(m_certType, server.c_str(), &loginCaMode) != 0) loginCaMode = -1;

    rc = client.Post(kLoginPath, "{}");
    if (rc == QX_ERR_HOST_MISMATCH) {
      QXLOG(QXLOG_ERROR, tag) << "The target server " << server << "could not be authenticated.";
      QXLOG(QXLOG_ERROR, tag) << "The server name does not match any of the host names listed "
                                 "in the server's certificate. retval = "
                              << rc;
      std::vector<std::string> names;
      client.getExtendedErrorInfo(rc, &names);
      std::ostringstream listed;
      for (const auto& n : names) listed << " " << n;
      QXLOG(QXLOG_ERROR, tag) << "Names listed in the server's certificate are:" << listed.str();
      if (certNames != nullptr) *certNames = names;
      return rc;
    }
    if (rc != 0) {
      QXLOG(QXLOG_ERROR, tag) << "POST failed with error: " << rc
                              << ", URL : " << client.m_server_url << kLoginPath;
      return rc;
    }
    const std::string body = client.getResponseBody();
    if (client.getHttpCode() == 401) {
      int caMode = -1;
      if (loginCaMode != -1 && getCAModeByServer(m_certType, server.c_str(), &caMode) == 0 &&
          caMode == loginCaMode) {
        jwtToken failed;
        failed.token = kPlaceholderToken;
        updateJWTFailInfo(failed);
        saveNewToken(failed);
      }
      QXLOG(QXLOG_ERROR, tag) << "Authorization error while trying to obtain a token "
                              << QX_ERR_TOKEN;
      return QX_ERR_TOKEN;
    }
    int validity = 0;
    std::string newToken;
    rc = extractAuthTokenFromJSON(body, newToken, validity);
    if (rc != 0) {
      QXLOG(QXLOG_ERROR, tag) << "Auth-token parsing failed with error: " << rc;
      return rc;
    }

    QXLOG(QXLOG_PROGRESS, tag) << "Skip trustversion processing: "
                               << (m_skipTrustProcessing ? 1 : 0);
    if (!m_trustProcessed && !m_skipTrustProcessing) {
      m_trustProcessed = true;
      std::string version;
      rc = client.getServerAPIVersion(version);
      if (rc != 0) {
        QXLOG(QXLOG_ERROR, tag) << "Couldn't retrieve the server API version, error = " << rc;
      } else if (compare_api_version(version.c_str(), "4.0") < 0) {
        QXLOG(QXLOG_PROGRESS, tag) << "Server " << server << " API version is " << version;
      } else {
        rc = performCertOperations(server, body);
        if (rc != 0) {
          QXLOG(QXLOG_ERROR, tag) << "Certificate operations couldn't be executed: " << rc;
          if (rc != QX_ERR_EXEC) return rc;
        }
      }
    }
    const int64_t now = timeNow();
    token.token = newToken;
    token.tokenIssueTimeSec = now;
    token.tokenExpTimeSec = now + validity;
    token.tokenLastFailTimeSec = 0;
    return 0;
  });
}

int LoginWithCertManager::performCertOperations(const std::string& server,
                                                const std::string& loginResponse) {
  static const char* tag = "LoginWithCertManager::performCertOperations";
  std::string trustVersion;
  int rc = extractTrustVersionFromJSON(loginResponse, trustVersion);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "TrustVersion required - parsing failed with error: " << rc;
    return rc;
  }
  int renewRequired = 0;
  rc = extractRenewReqdFromJSON(loginResponse, renewRequired);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Renew required - parsing failed with error: " << rc;
    return rc;
  }
  int trustCurrent = 0;
  if (compareTrustVersion(m_certType, trustVersion.c_str(), server.c_str(), &trustCurrent) != 0) {
    trustCurrent = 0;
  }
  std::vector<std::string> operations;
  operations.push_back(trustCurrent ? "IsSyncTrustStoreRequired" : "SetupTrust");
  if (renewRequired) {
    operations.push_back("GetCRL");
    operations.push_back("RenewRequired");
  }
  QXLOG(QXLOG_PROGRESS, tag) << "Setup trust required: " << (trustCurrent ? "NO" : "YES")
                             << " with response trustversion: [" << trustVersion
                             << "] Renew required: " << (renewRequired ? "YES" : "NO");
  std::string json;
  rc = writeServerCertsOpsJson({{"server", server}}, operations, json);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Couldn't build JSON from operations: " << getECmsg(rc);
    return rc;
  }
  QXLOG(QXLOG_PROGRESS, tag) << "Json formed: " << json;
  if (g_certOpsHook != nullptr) return g_certOpsHook(json);

  std::vector<std::string> args;
  args.push_back("-performOperations");
  if (m_certType == CERT_TYPE_GLOBAL) args.push_back("-cluster");
  args.push_back("-jsonIn");
  // One argument, no shell: the text needs no escaping.
  args.push_back(json);
  QXLOG(QXLOG_PROGRESS, tag) << "Json formed after escaping: " << json;
  QXChildInfo child;
  rc = ProcessExec::executeCommand(qxRootPath(kCertCmd), args, child, true);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Failed to perform cert related operations: "
                            << ProcessExec::getErrorReason(rc, &child);
    return rc;
  }
  return 0;
}

std::unique_ptr<TokenManager_Base> qxNewCertLoginManager(const std::string& server, int port,
                                                         cert_type certType,
                                                         bool skipTrustProcessing) {
  std::ostringstream tokenFile, lockFile;
  LoginWithCertManager::setJWTFilePaths(server, certType, tokenFile, lockFile,
                                        is_current_user_configured_service_admin(0));
  return std::make_unique<LoginWithCertManager>(port, certType, qxRootPath("/usr/tarvo/tmp"),
                                                tokenFile.str(), lockFile.str(),
                                                skipTrustProcessing);
}
