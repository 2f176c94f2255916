#include "qxcurl/login_with_user_token_manager.h"

#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sstream>

#include "platform/qx_config.h"
#include "platform/qx_log.h"
#include "platform/qx_root.h"
#include "platform/qx_session_store.h"
#include "platform/qx_util.h"
#include "qxcurl/env_var_utilities.h"
#include "qxcurl/exec_custom_script.h"
#include "qxcurl/json_token_manager.h"
#include "qxcurl/qx_status.h"
#include "qxcurl/qxclnt_curl.h"
#include "token/token_guard.h"

using Arvion::Ostrel::TokenMgmt::SessionTokenMgmt;

namespace {
constexpr const char* kLoginPath = "arvion/login";
constexpr const char* kLogoutPath = "arvion/logout";
constexpr const char* kApiKeyVariable = "ARVION_APIKEY";
constexpr const char* kSessionStoreName = "ARVION_OSTREL_USER_TOKEN_MGMT";
constexpr const char* kApplianceKey = "APPLIANCE_HOST";
constexpr int kApiKeyFeature = 1;
constexpr size_t kLocaleBuffer = 256;
// The appliance script prints the session target between these.
constexpr char kTargetBegin = '[';
constexpr char kTargetEnd = ']';
// A key file is a handful of lines; refuse to read megabytes of something else.
constexpr size_t kMaxKeyFileLines = 4096;

std::vector<std::string> stringToVector(const std::string& s, char sep) {
  std::vector<std::string> out;
  std::string item;
  std::istringstream in(s);
  while (std::getline(in, item, sep)) out.push_back(item);
  return out;
}
}  // namespace

LoginWithUserTokenManager::LoginWithUserTokenManager(int port, const std::string& domainType,
                                                     const std::string& domainName,
                                                     const std::string& userName,
                                                     const std::string& password,
                                                     cert_type certType)
    : m_port(port),
      m_sessionStore(new SessionTokenMgmt(kSessionStoreName)),
      m_domainType(domainType),
      m_domainName(domainName),
      m_userName(userName),
      m_password(password),
      m_certType(certType) {
  char messages[kLocaleBuffer], ctype[kLocaleBuffer], ltime[kLocaleBuffer], collate[kLocaleBuffer],
      numeric[kLocaleBuffer];
  ovgetlocaleEx(messages, ctype, ltime, collate, numeric, kLocaleBuffer);
}

LoginWithUserTokenManager::~LoginWithUserTokenManager() = default;

bool LoginWithUserTokenManager::isRetryRequired(int, const std::string&) { return false; }

void LoginWithUserTokenManager::setupCurlOption(QXClientCURL* client) {
  if (client != nullptr) client->addHeaderField("Accept: ", QX_MEDIA_TYPE_VERSION);
}

int LoginWithUserTokenManager::getToken(const std::string& server, std::string& token,
                                        bool forceNew, std::vector<std::string>* certNames) {
  static const char* tag = "LoginWithUserTokenManager::getToken";
  return qxGuardStatus(tag, QX_ERR_TOKEN, [&]() -> int {
    token.clear();
    if (IsFeatureEnabled_c(kApiKeyFeature)) {
      QXLOG(QXLOG_PROGRESS, tag) << "Lookup for APIKEY in environment";
      std::string key = fetchApikeyFromEnv(server);
      if (!key.empty()) {
        token = key;
        return 0;
      }
    }
    if (!forceNew) {
      QXLOG(QXLOG_PROGRESS, tag) << "get existing token from cache for user " << m_userName;
      if (getLocalToken(token) == 0 && !token.empty()) return 0;
      token.clear();
      QXLOG(QXLOG_PROGRESS, tag) << "token not found in cache, calling new token request for user "
                                 << m_userName;
    } else {
      QXLOG(QXLOG_PROGRESS, tag) << "getting new token for user " << m_userName;
    }
    std::string newToken;
    int expireAt = 0;
    int rc = getNewToken(server, newToken, expireAt, certNames);
    if (rc != 0) {
      QXLOG(QXLOG_ERROR, tag) << "get new token failed, retval = " << rc << " for user "
                              << m_userName;
      return rc;
    }
    QXLOG(QXLOG_PROGRESS, tag) << "save newly created token for user " << m_userName;
    rc = saveNewToken(server, newToken, expireAt);
    if (rc != 0) {
      QXLOG(QXLOG_ERROR, tag) << "save new token failed, retval = " << rc << " for user "
                              << m_userName;
      return rc;
    }
    token = newToken;
    return 0;
  });
}

int LoginWithUserTokenManager::getNewToken(const std::string& server, std::string& token,
                                           int& expireAt, std::vector<std::string>* certNames) {
  static const char* tag = "LoginWithUserTokenManager::getNewToken";
  std::string payload;
  int rc = getUserLoginPayload(m_domainType, m_domainName, m_userName, m_password, payload);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "getUserLoginPayload failed, retval = " << rc;
    return rc;
  }
  return qxGuardStatus(tag, QX_ERR_TOKEN, [&]() -> int {
    QXClientCURL client(server, m_port, m_certType, QXCURL_GET_NEW_TOKEN, this);
    if (m_operationTimeout != -1) client.setupCurlOperationTimeout(m_operationTimeout);
    rc = client.Post(kLoginPath, payload);
    if (rc == QX_ERR_HOST_MISMATCH) {
      QXLOG(QXLOG_ERROR, tag) << "The target master " << server
                              << " could not be authenticated. retval = " << rc;
      client.getExtendedErrorInfo(rc, certNames);
      return rc;
    }
    if (rc != 0) {
      QXLOG(QXLOG_ERROR, tag) << "POST failed, retval =  " << rc
                              << ", URL : " << client.m_server_url << kLoginPath;
      return rc;
    }
    const int64_t http = client.getHttpCode();
    const std::string& body = client.getResponseBody();
    if (http == 201) {
      int validity = 0;
      rc = extractAuthTokenFromJSON(body, token, validity);
      if (rc != 0) {
        QXLOG(QXLOG_ERROR, tag) << "Auth-token parsing failed, retval = " << rc;
        token.clear();
        return rc;
      }
      expireAt = validity;
      return 0;
    }
    if (http == 401) {
      int errorCode = 0;
      std::string message;
      rc = extractErrorFromJSON(body, errorCode, message);
      if (rc != 0) {
        QXLOG(QXLOG_ERROR, tag) << "parsing of Error Response from JSON failed, retval = " << rc;
        return QX_ERR_REQUEST_FAILED;
      }
      QXLOG(QXLOG_ERROR, tag) << "Login refused: " << message << " (" << errorCode << ")";
      // A zero from the server would read as success.
      return errorCode != 0 ? errorCode : QX_ERR_REQUEST_FAILED;
    }
    QXLOG(QXLOG_ERROR, tag) << "Login failed, http_status = " << http;
    return QX_ERR_REQUEST_FAILED;
  });
}

int LoginWithUserTokenManager::saveNewToken(const std::string&, const std::string& token,
                                            int& expireAt) {
  static const char* tag = "LoginWithUserTokenManager::saveNewToken";
  setCredCacheKeyIfAppliance();
  // A huge validity from the server must not wrap into a time in the past,
  // nor a negative one land below the store's "seconds from now" range.
  const int64_t expiry = static_cast<int64_t>(time(nullptr)) + (expireAt < 0 ? 0 : expireAt);
  expireAt = expiry > INT_MAX ? INT_MAX : static_cast<int>(expiry);
  std::string json;
  int rc =
      getUserLoginDetailsAsJson(m_userName, m_domainName, "", m_domainType, token, expireAt, json);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "getUserLoginDetailsAsJson() failed, retval = " << rc;
    return rc;
  }
  rc = m_sessionStore->writeSessionToken(json, expireAt);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "writeSessionToken failed, retval = " << rc;
    return rc;
  }
  return 0;
}

int LoginWithUserTokenManager::getLocalToken(std::string& token) {
  static const char* tag = "LoginWithUserTokenManager::getLocalToken";
  std::string userName, domainName, issuedBy, domainType;
  int expireAt = 0;
  int rc = getLoggedInUserDetails(userName, domainName, issuedBy, domainType, token, expireAt);
  if (rc != 0) {
    QXLOG(QXLOG_PROGRESS, tag) << "getLoggedInUserDetails() failed, retval = " << rc;
    token.clear();
  }
  return rc;
}

int LoginWithUserTokenManager::getLoggedInUserDetails(std::string& userName,
                                                      std::string& domainName,
                                                      std::string& issuedBy,
                                                      std::string& domainType, std::string& token,
                                                      int& expireAt) {
  static const char* tag = "LoginWithUserTokenManager::getLoggedInUserDetails";
  setCredCacheKeyIfAppliance();
  std::string json = m_sessionStore->readSessionToken();
  if (json.empty()) {
    QXLOG(QXLOG_PROGRESS, tag) << "readSessionToken() returned empty user data";
    return QX_ERR_FILE_NOT_FOUND;
  }
  int rc =
      extractUserDetailsFromJson(json, userName, domainName, issuedBy, domainType, token, expireAt);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "extractUserDetailsFromJson() failed, retval = " << rc;
  }
  return rc;
}

bool LoginWithUserTokenManager::isApplianceHost() {
  static const char* tag = "LoginWithUserTokenManager::isApplianceHost";
  int rc = QX_read_master_config();
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Master config read failed with error: " << rc;
    return false;
  }
  bool appliance = false;
  if (bpconfGetKeyValPairAsBool(get_master_config_ptr(), kApplianceKey, &appliance) != 0) {
    appliance = false;
  }
  QXLOG(QXLOG_PROGRESS, tag) << (appliance ? "This is an appliance host."
                                           : "Not an appliance host.");
  return appliance;
}

int LoginWithUserTokenManager::setCredCacheKeyIfAppliance() {
  static const char* tag = "LoginWithUserTokenManager::setCredCacheKeyIfAppliance";
  if (!isApplianceHost()) {
    QXLOG(QXLOG_PROGRESS, tag) << "Not setting Appliance session token target.";
    return 0;
  }
  QXLOG(QXLOG_PROGRESS, tag) << "Login user euid[" << geteuid() << "]";
  std::string target;
  int rc = getSessionTokenTarget(target);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "getSessionTokenTarget() failed, retval = " << rc;
    return rc;
  }
  m_sessionStore->setTarget(target.c_str());
  QXLOG(QXLOG_PROGRESS, tag) << "Successfully set the Appliance session token target=" << target;
  return 0;
}

int LoginWithUserTokenManager::getSessionTokenTarget(std::string& target) {
  static const char* tag = "LoginWithUserTokenManager::getSessionTokenTarget";
  const std::string installDir = qxRootPath("/usr/tarvo/arvion");
  // The path is quoted for the shell; a quote inside it cannot be.
  if (installDir.find('\'') != std::string::npos) return QX_ERR_BAD_ARGUMENT;
  char cmd[4096];
  int len = snprintf(cmd, sizeof cmd, "%s%s%s%s%s", "'", installDir.c_str(), "/bin/", "qxa' ",
                     "qxuserid");
  // A cut command line would run something else.
  if (len < 0 || static_cast<size_t>(len) >= sizeof cmd) return QX_ERR_BAD_ARGUMENT;
  std::string output;
  ExecCustomScript script;
  int rc = script.run(cmd, output);
  QXLOG(QXLOG_PROGRESS, tag) << "Appliance script output=" << output << " retval=" << rc;
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Appliance script failed to execute, retval = " << rc;
    return rc;
  }
  return validateCmdOutput(output, kTargetBegin, kTargetEnd, target);
}

int LoginWithUserTokenManager::validateCmdOutput(const std::string& output, char begin, char end,
                                                 std::string& result) {
  static const char* tag = "LoginWithUserTokenManager::validateCmdOutput";
  std::string text = output;
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  bool ok = text.size() >= 3 && text.front() == begin && text.back() == end;
  if (ok) {
    for (size_t i = 1; i + 1 < text.size(); ++i) {
      unsigned char c = static_cast<unsigned char>(text[i]);
      if (c < 0x21 || c == 0x7f || c == static_cast<unsigned char>(begin) ||
          c == static_cast<unsigned char>(end)) {
        ok = false;
        break;
      }
    }
  }
  if (!ok) {
    QXLOG(QXLOG_ERROR, tag) << "Output::" << text << " not in expected format.";
    QXLOG(QXLOG_ERROR, tag) << "cmd output=" << text << " validation failed";
    return QX_ERR_BAD_RESPONSE;
  }
  result = text.substr(1, text.size() - 2);
  QXLOG(QXLOG_PROGRESS, tag) << "cmd output=" << text << " validated successfully....";
  return 0;
}

std::string LoginWithUserTokenManager::fetchApikeyFromEnv(const std::string& server) {
  static const char* tag = "LoginWithUserTokenManager::fetchApikeyFromEnv";
  QXLOG(QXLOG_PROGRESS, tag) << "Lookup for Environment Variable : " << kApiKeyVariable
                             << " for Server : " << server;
  std::string value;
  if (!EnvVarUtilities::getEnv(kApiKeyVariable, value)) {
    QXLOG(QXLOG_PROGRESS, tag) << "Environment variable " << kApiKeyVariable << " not set";
    return "";
  }
  QXLOG(QXLOG_PROGRESS, tag) << "Environment variable " << kApiKeyVariable << " is set";
  if (!value.empty() && value[0] == '@') return parseApiKeyFromFile(value.substr(1), server);
  return parseApiKeyFromEnvValue(value, server);
}

std::string LoginWithUserTokenManager::parseApiKeyFromEnvValue(const std::string& value,
                                                               const std::string& server) {
  QXLOG(QXLOG_PROGRESS, "LoginWithUserTokenManager::parseApiKeyFromEnvValue")
      << "Reading APIKey value directly from environment variable";
  for (const auto& entry : stringToVector(value, ',')) {
    std::string key = extractApikey(entry, server);
    if (!key.empty()) return key;
  }
  return "";
}

std::string LoginWithUserTokenManager::parseApiKeyFromFile(const std::string& fileName,
                                                           const std::string& server) {
  static const char* tag = "LoginWithUserTokenManager::parseApiKeyFromFile";
  QXLOG(QXLOG_PROGRESS, tag) << "Filename extracted from Environment variable = " << fileName;
  QXLOG(QXLOG_PROGRESS, tag)
      << "Reading APIKey value from the file specified in environment variable";
  FILE* f = fopen(fileName.c_str(), "re");
  if (f == nullptr) {
    QXLOG(QXLOG_ERROR, tag) << "Could not open the file in read mode. Error : " << strerror(errno);
    return "";
  }
  std::string key;
  char* line = nullptr;
  size_t cap = 0;
  ssize_t len;
  size_t count = 0;
  while (key.empty() && count++ < kMaxKeyFileLines && (len = getline(&line, &cap, f)) != -1) {
    std::string entry(line, static_cast<size_t>(len));
    if (entry.empty() || (entry.back() != '\n' && entry.back() != '\r')) {
      // The last line may lack its line end; it is used all the same.
      QXLOG(QXLOG_DETAIL, tag) << "This line does not end with \\n or \\r";
    }
    key = extractApikey(entry, server);
  }
  free(line);
  if (fclose(f) != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Could not close file: " << fileName
                            << " , error: " << strerror(errno);
  }
  return key;
}

std::string LoginWithUserTokenManager::extractApikey(const std::string& line,
                                                     const std::string& server) {
  size_t colon = line.find(':');
  if (colon == std::string::npos) return "";
  std::string name = trim(line.substr(0, colon));
  std::string key = trim(line.substr(colon + 1));
  QXLOG(QXLOG_PROGRESS, "LoginWithUserTokenManager::extractApikey")
      << "Server name extracted from environment variable = " << name;
  if (name.empty() || strcasecmp(name.c_str(), server.c_str()) != 0) return "";
  return key;
}

int LoginWithUserTokenManager::deleteToken(const std::string& server,
                                           std::vector<std::string>* certNames) {
  static const char* tag = "LoginWithUserTokenManager::deleteToken";
  try {
    setCredCacheKeyIfAppliance();
    int rc = logout(server, certNames);
    int removed = m_sessionStore->deleteSessionToken();
    if (removed != 0) {
      QXLOG(QXLOG_ERROR, tag) << "swallowed error : deleteSessionToken() failed to delete client "
                                 "side cached token, retval = "
                              << removed;
    }
    return rc;
  } catch (int status) {
    QXLOG(QXLOG_ERROR, tag) << "Caught exception, status = " << status;
    return status;
  } catch (...) {
    QXLOG(QXLOG_ERROR, tag) << "Caught unknown exception";
    return QX_ERR_TOKEN;
  }
}

int LoginWithUserTokenManager::logout(const std::string& server,
                                      std::vector<std::string>* certNames) {
  static const char* tag = "LoginWithUserTokenManager::deleteToken";
  QXClientCURL client(server, m_port, m_certType, QXCURL_USE_TOKEN, this);
  if (m_operationTimeout != -1) client.setupCurlOperationTimeout(m_operationTimeout);
  int rc = client.Post(kLogoutPath, "{}");
  if (rc == QX_ERR_HOST_MISMATCH) {
    QXLOG(QXLOG_ERROR, tag) << "The target master " << server
                            << " could not be authenticated. retval = " << rc;
    client.getExtendedErrorInfo(rc, certNames);
    return rc;
  }
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "POST:" << client.m_server_url << kLogoutPath
                            << " failed, retval = " << rc;
    return rc;
  }
  const int64_t http = client.getHttpCode();
  if (http == 200) {
    QXLOG(QXLOG_PROGRESS, tag) << "user session token deleted from server, http_status = " << http;
    return 0;
  }
  if (http == 401) {
    QXLOG(QXLOG_PROGRESS, tag)
        << "unauthorized request OR user session token already deleted from server, http_status = "
        << http;
    return 0;
  }
  QXLOG(QXLOG_ERROR, tag) << "POST:" << kLogoutPath << " failed, http_status = " << http;
  return QX_ERR_REQUEST_FAILED;
}
