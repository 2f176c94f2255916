#include "qxcurl/qx_app_token_manager.h"

#include <jansson.h>

#include <cstdlib>
#include <memory>

#include "platform/qx_log.h"
#include "platform/qx_util.h"
#include "qxcurl/qx_status.h"
#include "qxcurl/qxclnt_curl.h"
#include "token/token_guard.h"

namespace {
constexpr const char* kLoginPath = "appliance/authservice/api/v1/auth/login";
constexpr size_t kLocaleBuffer = 256;

void initLocale() {
  char messages[kLocaleBuffer], ctype[kLocaleBuffer], ltime[kLocaleBuffer], collate[kLocaleBuffer],
      numeric[kLocaleBuffer];
  ovgetlocaleEx(messages, ctype, ltime, collate, numeric, kLocaleBuffer);
}

struct JsonRelease {
  void operator()(json_t* j) const { json_decref(j); }
};
}  // namespace

qxAppTokenManager::qxAppTokenManager(int port, const std::string& server,
                                     const std::string& applianceConnection,
                                     const std::string& userName, const std::string& password)
    : m_port(port),
      m_server(server),
      m_applianceConnection(applianceConnection),
      m_userName(userName),
      m_password(password) {
  initLocale();
}

qxAppTokenManager::~qxAppTokenManager() = default;

bool qxAppTokenManager::isRetryRequired(int, const std::string&) { return false; }

void qxAppTokenManager::setupCurlOption(QXClientCURL*) {}

int qxAppTokenManager::getToken(const std::string&, std::string& token, bool forceNew,
                                std::vector<std::string>*) {
  static const char* tag = "qxAppTokenManager::getToken";
  return qxGuardStatus(tag, QX_ERR_TOKEN, [&]() -> int {
    int rc = 0;
    if (forceNew) {
      QXLOG(QXLOG_PROGRESS, tag) << "getting new token for user " << m_userName;
      rc = getNewToken();
    } else if (!m_token.empty()) {
      QXLOG(QXLOG_PROGRESS, tag) << "get existing token";
    } else {
      QXLOG(QXLOG_PROGRESS, tag) << "token not found, calling new token request for user "
                                 << m_userName;
      rc = getNewToken();
    }
    if (rc != 0) {
      QXLOG(QXLOG_ERROR, tag) << "get new token failed, retval = " << rc << " for user "
                              << m_userName;
      return rc;
    }
    token = m_token;
    return 0;
  });
}

int qxAppTokenManager::getNewToken() {
  static const char* tag = "qxAppTokenManager::getNewToken";
  return qxGuardStatus(tag, QX_ERR_TOKEN, [&]() -> int { return login(); });
}

int qxAppTokenManager::login() {
  static const char* tag = "qxAppTokenManager::getNewToken";
  QXClientCURL client(m_server, m_port, CERT_TYPE_HOST, QXCURL_GET_NEW_TOKEN, this);
  client.setApplianceConnection(true, m_applianceConnection);
  if (m_operationTimeout != -1) client.setupCurlOperationTimeout(m_operationTimeout);

  std::unique_ptr<json_t, JsonRelease> root(json_object());
  if (!root || json_object_set_new(root.get(), "username", json_string(m_userName.c_str())) != 0 ||
      json_object_set_new(root.get(), "clientId", json_string("appcli")) != 0 ||
      json_object_set_new(root.get(), "clientSecret", json_string("")) != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Json_dumps w/o password returned NULL";
    return QX_ERR_ENCODE;
  }
  char* text = json_dumps(root.get(), JSON_COMPACT);
  if (text == nullptr) {
    QXLOG(QXLOG_ERROR, tag) << "Json_dumps w/o password returned NULL";
    return QX_ERR_ENCODE;
  }
  QXLOG(QXLOG_PROGRESS, tag) << "JSON string (without password)= [" << text << "]";
  free(text);

  if (json_object_set_new(root.get(), "password", json_string(m_password.c_str())) != 0 ||
      (text = json_dumps(root.get(), JSON_COMPACT)) == nullptr) {
    QXLOG(QXLOG_ERROR, tag) << "Json_dumps returned NULL";
    return QX_ERR_ENCODE;
  }
  std::string payload(text);
  free(text);

  int rc = client.Post(kLoginPath, payload);
  if (rc == QX_ERR_HOST_MISMATCH) {
    QXLOG(QXLOG_ERROR, tag) << "The target appliance " << m_server
                            << " could not be authenticated. retval = " << rc;
    return rc;
  }
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "POST failed, retval =  " << rc << ", URL : " << client.m_server_url
                            << kLoginPath;
    return rc;
  }
  const int64_t http = client.getHttpCode();
  if (http < 200 || http > 206) {
    QXLOG(QXLOG_ERROR, tag) << "POST operation failed. HTTP error: " << http;
    return QX_ERR_APPLIANCE_REFUSED;
  }
  const std::string& body = client.getResponseBody();
  json_error_t err;
  // Some appliances append text after the JSON value: ignored.
  std::unique_ptr<json_t, JsonRelease> answer(
      json_loadb(body.data(), body.size(), JSON_DISABLE_EOF_CHECK, &err));
  if (!answer) {
    QXLOG(QXLOG_ERROR, tag)
        << "Unable to load json document: Failed to parse token received list from Appliance.";
    return QX_ERR_BAD_ANSWER;
  }
  if (!json_is_object(answer.get())) {
    QXLOG(QXLOG_ERROR, tag) << "Unable to load json document.";
    return QX_ERR_BAD_ANSWER;
  }
  json_t* access = json_object_get(answer.get(), "accessToken");
  if (!json_is_string(access)) {
    QXLOG(QXLOG_ERROR, tag) << "Unexpected type of json object.";
    return QX_ERR_BAD_ANSWER;
  }
  m_token.assign(json_string_value(access), json_string_length(access));
  QXLOG(QXLOG_PROGRESS, tag) << "Extracted the access token.";
  return 0;
}
