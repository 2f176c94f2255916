// Plain C entry points: programs that cannot use the class interface set up
// the library, call the web service and get the machine token through these.
#include "client/qxclnt_curl_capi.h"

#include <openssl/ssl.h>

#include <cstring>
#include <memory>
#include <new>
#include <sstream>

#include "client/qxclnt_curl_trace.h"
#include "platform/qx_config.h"
#include "platform/qx_log.h"
#include "platform/qx_root.h"
#include "platform/qx_util.h"
#include "platform/qx_webapi.h"
#include "qxcurl/login_with_cert_manager.h"
#include "qxcurl/qxcurl_c.h"
#include "qxcurl/supplied_token_manager.h"

int web_sync(cache_usage_decision decision, const std::string& server, const std::string& path,
             const std::string& payload, const std::string& token, json_t** out) {
  const char* tag = "web_sync";
  if (out != nullptr) *out = nullptr;
  QXLOG(QXLOG_PROGRESS, tag) << "invoking:"
                             << "https://" << server << ":" << QX_CAPI_PORT << "/" << path;
  std::unique_ptr<SuppliedTokenManager> supplied;
  if (!token.empty()) supplied = std::make_unique<SuppliedTokenManager>(token);
  QXClientCURL client(server, QX_CAPI_PORT, CERT_TYPE_HOST, QXCURL_USE_TOKEN, supplied.get());
  client.setConnectRetryTimeout(QX_CAPI_RETRY_WINDOW);

  int status;
  if (!payload.empty()) {
    QXLOG(QXLOG_PROGRESS, tag) << "performing POST call with payload:"
                               << mask_jwt(qxMaskTraceSecrets(payload.data(), payload.size()));
    status = client.Post(path, payload);
  } else {
    QXLOG(QXLOG_PROGRESS, tag) << "performing GET call";
    status = client.GetWithCache(decision, path, WEBSVC_RESPONSE_JSON, QX_CAPI_DEFAULT_TTL);
  }
  if (status != 0) return status;
  const int64_t http = client.getHttpCode();
  if (http != 200 && http != 201) {
    QXLOG(QXLOG_ERROR, tag) << "Unexpected HTTP status [" << http << "]";
    return QX_ERR_BAD_RESPONSE;
  }
  if (out == nullptr) {
    logmsgf(QXLOG_PROGRESS, QXLOG_CATEGORY, tag, "No API response required");
    return 0;
  }
  const std::string& body = client.getResponseBody();
  json_error_t error;
  json_t* root = json_loadb(body.data(), body.size(), 0, &error);
  if (!json_is_object(root)) {
    logmsgf(QXLOG_ERROR, QXLOG_CATEGORY, tag,
            "Failed to load json from server; Error [%s] at line [%d]",
            root != nullptr ? "not a JSON object" : error.text, root != nullptr ? 1 : error.line);
    json_decref(root);
    return QX_ERR_BAD_RESPONSE;
  }
  *out = root;
  return 0;
}

namespace {

// Argument checks and the exception boundary shared by the two C requests.
int callWebSync(const char* tag, const char* failText, int decision, const char* server,
                const char* path, const char* payload, const char* token, json_t** out) {
  if (out != nullptr) *out = nullptr;
  if (server == nullptr || *server == '\0' || path == nullptr || decision < CACHE_USAGE_NONE ||
      decision > CACHE_USAGE_SECURE_UPDATE) {
    QXLOG(QXLOG_ERROR, tag) << "Invalid argument: server, path or decision [" << decision << "]";
    return QX_ERR_BAD_ARGUMENT;
  }
  int status;
  try {
    return web_sync(static_cast<cache_usage_decision>(decision), server, path,
                    payload != nullptr ? payload : "", token != nullptr ? token : "", out);
  } catch (int thrown) {
    status = thrown;
  } catch (const std::bad_alloc&) {
    status = QX_ERR_NO_MEMORY;
  } catch (...) {
    status = QX_ERR_REQUEST_FAILED;
  }
  QXLOG(QXLOG_ERROR, tag) << failText << status;
  if (out != nullptr && *out != nullptr) {
    json_decref(*out);
    *out = nullptr;
  }
  return status;
}

}  // namespace

extern "C" {

int web_sync_CAPI(int decision, const char* server, const char* path, const char* payload,
                  const char* token, json_t** out) {
  return callWebSync("web_sync_CAPI", "wb_sync() failed with status = ", decision, server, path,
                     payload, token, out);
}

int invoke_curl_api(int decision, const char* server, const char* path, const char* payload,
                    const char* token, json_t** out) {
  QXLOG(QXLOG_PROGRESS, "invoke_curl_api") << "invoking jwt-based curl api";
  return callWebSync("invoke_curl_api", "invoke_curl_api() failed with status = ", decision, server,
                     path, payload, token, out);
}

void init_qxcurllib(void) {
  const char* tag = "init_qxcurllib";
  try {
    OPENSSL_init_ssl(0, nullptr);
    QXClientCURL::initGlobalCurl();
  } catch (int status) {
    QXLOG(QXLOG_ERROR, tag) << "Failed to perform initGlobalCurl() with status = " << status;
    return;
  } catch (...) {
    QXLOG(QXLOG_ERROR, tag) << "Failed to perform initGlobalCurl() with status = "
                            << QX_ERR_CURL_INIT;
    return;
  }
  setWebAPICallback(web_sync_CAPI);
}

char* get_machine_jwt(const char* server) {
  const char* tag = "get_machine_jwt";
  const std::string name = server != nullptr ? server : "";
  std::string token;
  int rc = QX_ERR_BAD_ARGUMENT;
  try {
    if (!name.empty()) {
      std::ostringstream tokenFile, lockFile;
      LoginWithCertManager::setJWTFilePaths(name, CERT_TYPE_HOST, tokenFile, lockFile,
                                            is_current_user_configured_service_admin(0));
      const bool skipTrustProcessing = false;
      LoginWithCertManager manager(QX_CAPI_PORT, CERT_TYPE_HOST, qxRootPath("/usr/tarvo/tmp"),
                                   tokenFile.str(), lockFile.str(), skipTrustProcessing);
      rc = manager.getToken(name, token, false, nullptr);
    }
  } catch (int status) {
    rc = status;
  } catch (...) {
    rc = QX_ERR_REQUEST_FAILED;
  }
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Failed to get machine primary jwt server:" << name;
    token.clear();
  }
  return strdup(token.c_str());
}

}  // extern "C"
