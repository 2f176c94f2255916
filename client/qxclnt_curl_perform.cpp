// Request verbs, the perform loop with its connection retries, the retry
// timer and token refresh. The tunnel road is in tunnel/qxclnt_curl_tunnel.cpp.
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "client/qxclnt_curl_option.h"
#include "client/qxclnt_retry.h"
#include "platform/qx_config.h"
#include "platform/qx_json.h"
#include "platform/qx_log.h"
#include "platform/qx_util.h"
#include "platform/qx_wnet.h"
#include "prefnet/qxclnt_prefnet.h"
#include "qxcurl/qx_status.h"
#include "qxcurl/qxclnt_curl.h"
#include "qxcurl/websvc_tunnel_router.h"

// Post sends line ends escaped; the web service expects them that way.
std::string qxEscapeLineEnds(const std::string& payload) {
  std::string out;
  out.reserve(payload.size());
  for (char c : payload) {
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else {
      out += c;
    }
  }
  return out;
}

namespace {

using qxretry::NEXT_SILENT;
using qxretry::NEXT_TUNNEL;
using qxretry::RETRY_DIRECT;
using qxretry::STOP;

}  // namespace

// ---- verbs ----

int QXClientCURL::setUrlForPath(const std::string& path, const char* failText) {
  // The same URL as the handle's last one is not handed to libcurl again.
  const size_t n = m_server_url.size();
  if (m_handleUrl.size() != n + path.size() || m_handleUrl.compare(0, n, m_server_url) != 0 ||
      m_handleUrl.compare(n, std::string::npos, path) != 0) {
    m_handleUrl.assign(m_server_url).append(path);
    CURLcode rc = curl_easy_setopt(m_curlHandle, CURLOPT_URL, m_handleUrl.c_str());
    if (rc != CURLE_OK) {
      m_handleUrl.clear();
      m_curlError = rc;
      QXLOG(QXLOG_ERROR, "setupURL") << failText << curl_easy_strerror(rc);
      return mapCurlError();
    }
  }
  m_requestPath = path;
  return 0;
}

int QXClientCURL::Get(const std::string& path) {
  return GetWithCache(CACHE_USAGE_NONE, path, WEBSVC_RESPONSE_JSON, 86400);
}

int QXClientCURL::Post(const std::string& path, const std::string& payload) {
  const char* tag = "QXClientCURL::Post";
  if (payload.empty()) {
    QXLOG(QXLOG_ERROR, tag) << "payLoad should not be null";
    return QX_ERR_BAD_ARGUMENT;
  }
  int rc = setUrlForPath(path, "Failed to set url, err = ");
  if (rc != 0) return rc;
  QXLOG(QXLOG_PROGRESS, tag) << "POSTing to URL " << m_server_url << path;
  QXLOG(QXLOG_PROGRESS, tag) << "Sending payload ...";
  rc = setPostOptions(qxEscapeLineEnds(payload));
  if (rc != 0) return rc;
  return performOperation();
}

// Put and Patch hand libcurl the caller's bytes as they are (no copy, no
// rewriting), unlike Post.
int QXClientCURL::setBodyOptions(const char* method, const std::string& payload) {
  m_methodChanged = true;
  int rc = setCurlOptionLogged(CURLOPT_CUSTOMREQUEST, method, "CURLOPT_CUSTOMREQUEST");
  if (rc != 0) return rc;
  m_customRequest = true;
  rc = setCurlOptionLogged(CURLOPT_POSTFIELDSIZE, static_cast<long>(payload.size()),
                           "CURLOPT_POSTFIELDSIZE");
  if (rc != 0) return rc;
  return setCurlOptionLogged(CURLOPT_POSTFIELDS, payload.c_str(), "CURLOPT_POSTFIELDS");
}

int QXClientCURL::Put(const std::string& path, const std::string& payload) {
  const char* tag = "QXClientCURL::Put";
  if (payload.empty()) {
    QXLOG(QXLOG_ERROR, tag) << "payLoad should not be null";
    return QX_ERR_BAD_ARGUMENT;
  }
  int rc = setUrlForPath(path, "Failed to set url, err = ");
  if (rc != 0) return rc;
  QXLOG(QXLOG_PROGRESS, tag) << "PUTing to URL " << m_server_url << path;
  rc = setBodyOptions("PUT", payload);
  if (rc != 0) return rc;
  return performOperation();
}

int QXClientCURL::Patch(const std::string& path, const std::string& payload) {
  const char* tag = "QXClientCURL::Patch";
  if (payload.empty()) {
    QXLOG(QXLOG_ERROR, tag) << "payLoad should not be null";
    return QX_ERR_BAD_ARGUMENT;
  }
  int rc = setUrlForPath(path, "Failed to set url, err = ");
  if (rc != 0) return rc;
  QXLOG(QXLOG_PROGRESS, tag) << "Patching to URL " << m_server_url << path;
  rc = setBodyOptions("PATCH", payload);
  if (rc != 0) return rc;
  return performOperation();
}

int QXClientCURL::Delete(const std::string& path) {
  const char* tag = "QXClientCURL::Delete";
  QXLOG(QXLOG_PROGRESS, tag) << "DELETEing using URL " << m_server_url << path;
  int rc = setUrlForPath(path, "Failed to set url, err = ");
  if (rc != 0) return rc;
  // Drops a body left on the handle by an earlier Post, Put or Patch.
  setCurlOptionLogged(CURLOPT_HTTPGET, 1L, "CURLOPT_HTTPGET");
  m_methodChanged = true;
  CURLcode crc = curl_easy_setopt(m_curlHandle, CURLOPT_CUSTOMREQUEST, "DELETE");
  if (crc != CURLE_OK) {
    m_curlError = crc;
    QXLOG(QXLOG_DETAIL, tag) << "FAILED to set CURLOPT_CUSTOMREQUEST in cURL. cURL :"
                             << curl_easy_strerror(crc);
    mapCurlError();
  } else {
    m_customRequest = true;
  }
  return performOperation();
}

int QXClientCURL::PostMultipartFile(const std::string& path, const std::string& localfile,
                                    const std::string& remotefile, const std::string& type) {
  const char* tag = "QXClientCURL::PostMultipartFile";
  const struct {
    const std::string& value;
    const char* message;
  } required[] = {{path, "argument list missing path value"},
                  {localfile, "argument list missing localfile value"},
                  {remotefile, "argument list missing remotefile value"},
                  {type, "argument list missing type value"}};
  for (const auto& r : required) {
    if (r.value.empty()) {
      QXLOG(QXLOG_ERROR, tag) << r.message;
      return QX_ERR_BAD_ARGUMENT;
    }
  }
  QXLOG(QXLOG_PROGRESS, tag) << "Multipart Posting to URL " << m_server_url << path;
  int rc = setUrlForPath(path, "Failed to set url, err=");
  if (rc != 0) return rc;

  curl_mime* form = curl_mime_init(m_curlHandle);
  curl_mimepart* part = form ? curl_mime_addpart(form) : nullptr;
  CURLcode crc = CURLE_OUT_OF_MEMORY;
  if (part != nullptr) {
    crc = curl_mime_name(part, "file");
    if (crc == CURLE_OK) crc = curl_mime_filedata(part, localfile.c_str());
    if (crc == CURLE_OK) crc = curl_mime_filename(part, remotefile.c_str());
    if (crc == CURLE_OK) crc = curl_mime_type(part, type.c_str());
  }
  if (crc != CURLE_OK) {
    m_curlError = crc;
    QXLOG(QXLOG_ERROR, tag) << "Failed to add local file to form, err=" << curl_easy_strerror(crc);
    curl_mime_free(form);
    return mapCurlError();
  }

  // libcurl writes the multipart Content-Type with its boundary; ours goes
  // back once the upload is done.
  std::string contentType;
  bool hadContentType = getHTTPRequestHeader("Content-Type:", contentType) == 0;
  deleteHeaderField("Content-Type:");
  if (m_customRequest) {
    curl_easy_setopt(m_curlHandle, CURLOPT_CUSTOMREQUEST, static_cast<char*>(nullptr));
    m_customRequest = false;
  }
  m_methodChanged = true;
  crc = curl_easy_setopt(m_curlHandle, CURLOPT_MIMEPOST, form);
  if (crc != CURLE_OK) {
    m_curlError = crc;
    QXLOG(QXLOG_ERROR, tag) << "Failed to set post action, err=" << curl_easy_strerror(crc);
    rc = mapCurlError();
  } else {
    rc = performOperation();
  }
  crc = curl_easy_setopt(m_curlHandle, CURLOPT_MIMEPOST, static_cast<curl_mime*>(nullptr));
  if (crc != CURLE_OK) {
    QXLOG(QXLOG_ERROR, tag) << "Failed to clear post action, err=" << curl_easy_strerror(crc);
  }
  curl_mime_free(form);
  if (hadContentType) addHeaderField("Content-Type: ", contentType);
  return rc;
}

// ---- encoding ----

int QXClientCURL::encodeUriString(const std::string& in, std::string& out) {
  char* enc = curl_easy_escape(m_curlHandle, in.c_str(), static_cast<int>(in.size()));
  if (enc == nullptr) {
    QXLOG(QXLOG_ERROR, "QXClientCURL::encodeUriString")
        << "Failed to convert input string to encoded value";
    return QX_ERR_ENCODE;
  }
  out = enc;
  curl_free(enc);
  return 0;
}

int percentEncodeUriPart(const std::string& in, std::string& out) {
  if (in.empty()) return QX_ERR_BAD_ARGUMENT;
  char* enc = curl_easy_escape(nullptr, in.c_str(), static_cast<int>(in.size()));
  if (enc == nullptr) return QX_ERR_ENCODE;
  out = enc;
  curl_free(enc);
  return 0;
}

int percentDecodeUriPart(const std::string& in, std::string& out) {
  if (in.empty()) {
    out.clear();
    return 0;
  }
  int len = 0;
  char* dec = curl_easy_unescape(nullptr, in.c_str(), static_cast<int>(in.size()), &len);
  if (dec == nullptr) return QX_ERR_ENCODE;
  out.assign(dec, static_cast<size_t>(len));
  curl_free(dec);
  return 0;
}

// ---- token ----

int QXClientCURL::refreshToken() {
  const char* tag = "QXClientCURL::refreshToken";
  QXLOG(QXLOG_PROGRESS, tag) << "Refreshing token";
  std::string token;
  int rc = m_tokenManager ? m_tokenManager->getToken(m_server, token, true, nullptr)
                          : QX_ERR_BAD_ARGUMENT;
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Failed to refresh authorization token. Actual Error code :" << rc
                            << "return code :" << QX_ERR_TOKEN;
    return QX_ERR_TOKEN;
  }
  deleteHeaderField("Authorization:");
  addHeaderField("Authorization: ", (m_useBearer ? "Bearer " : "") + token);
  QXLOG(QXLOG_PROGRESS, tag) << "New token saved";
  return 0;
}

// ---- retry window and timer ----

int QXClientCURL::startConnectionRetries() {
  m_retrying = true;
  m_retryCount = 0;
  return 0;
}

int QXClientCURL::stopConnectionRetries() {
  m_retryCount = 0;
  m_retrying = false;
  return 0;
}

bool QXClientCURL::isConnectionRetryWindowOver() {
  time_t now = T_time();
  QXLOG(QXLOG_PROGRESS, "QXClientCURL::isConnectionRetryWindowOver")
      << "current_time = " << now << " | m_connection_start_time = " << m_connection_start_time
      << " | m_connectionTimeout = " << m_connectionTimeout;
  return (now - m_connection_start_time) >= m_connectionTimeout;
}

int QXClientCURL::getNextConnectionRetryTime() {
  if (m_retryTimerQueue.empty()) {
    populateTimerQueue(
        static_cast<int>(m_connectionTimeout - (T_time() - m_connection_start_time)));
  }
  if (m_retryTimerQueue.empty()) return 1;
  int next = m_retryTimerQueue.front();
  m_retryTimerQueue.pop();
  return next;
}

void QXClientCURL::populateTimerQueue(int seconds) {
  if (seconds <= 0) return;
  std::srand(static_cast<unsigned>(T_time()));
  qxretry::Plan p = qxretry::plan(seconds);
  generateRandomSleep(p.count, p.interval);
  if (p.remainder != 0) m_retryTimerQueue.push(p.remainder);
}

// Each retry lands at a random second inside its own interval; the queue
// holds the gaps between those moments.
void QXClientCURL::generateRandomSleep(int count, int interval) {
  QXLOG(QXLOG_PROGRESS, "QXClientCURL::generateRandomSleep")
      << "NoOfRetry:[" << count << "], RetryInterval:[" << interval << "]";
  for (int gap : qxretry::randomGaps(count, interval, [] { return std::rand(); }))
    m_retryTimerQueue.push(gap);
}

// One step of the retry window: 0 when it is closed (retries stopped).
int QXClientCURL::retryUnderWindow() {
  const char* tag = "QXClientCURL::performOperation";
  if (!m_retrying) {
    startConnectionRetries();
    QXLOG(QXLOG_PROGRESS, tag) << "STARTing retrying the connection...";
  }
  if (isConnectionRetryWindowOver()) {
    stopConnectionRetries();
    QXLOG(QXLOG_PROGRESS, tag) << "STOPping retrying the connection.";
    return 0;
  }
  int wait = getNextConnectionRetryTime();
  if (wait > 0) T_sleep(static_cast<unsigned>(wait));
  QXLOG(QXLOG_PROGRESS, tag) << "Making Retry #" << (m_retryCount + 1) << " ...";
  ++m_retryCount;
  return 1;
}

int QXClientCURL::decideNextConnectRetryAction(int status, bool tunnelUsed) {
  return qxretry::decideNextAction(
      qxretry::Attempt{status, m_curlError, m_httpCode, tunnelUsed},
      [this] { return isTunnelConnectedToRightMaster(); },
      "QXClientCURL::decideNextConnectRetryAction");
}

// ---- perform ----

int QXClientCURL::performOperation() {
  const char* tag = "QXClientCURL::performOperation";
  // Every decision of this request reads the same configuration.
  QXConfigSnapshot config;
  m_connectHost = m_server;
  m_tunnelUsed.clear();
  bool localIsServer = wnet_is_server("localhost");
  if (!m_routeOnServer && localIsServer) return performCurlOperation();
  if (m_tunnelRouter == nullptr) return QX_ERR_NO_MEMORY;
  stopConnectionRetries();
  m_triedTunnels.clear();

  if (localIsServer || !m_tunnelRouter->useHttpTunnel() || !m_tunnelAllowed) {
    m_connection_start_time = T_time();
    for (;;) {
      int status = performCurlOperation();
      if (status == 0) return 0;
      if (decideNextConnectRetryAction(status, false) != RETRY_DIRECT) return status;
      QXLOG(QXLOG_PROGRESS, tag) << "NEXT action: Retrying the connection.";
      if (!retryUnderWindow()) return status;
    }
  }

  return performThroughTunnels();
}

int QXClientCURL::performCurlOperation() {
  const char* tag = "QXClientCURL::performCurlOperation";
  m_httpCode = 0;
  if (m_connectionsDisabled) {
    QXLOG(QXLOG_ERROR, tag) << "HTTP connections are disabled";
    return QX_ERR_RESOLVE;
  }
  const bool tokenSession =
      m_sessionType == QXCURL_USE_TOKEN || m_sessionType == QXCURL_USE_TPCA_CERT;
  if (tokenSession) {
    std::string token;
    int rc = m_tokenManager ? m_tokenManager->getToken(m_server, token, false, nullptr)
                            : QX_ERR_BAD_ARGUMENT;
    if (rc != 0) {
      if (m_sessionType == QXCURL_USE_TOKEN) {
        QXLOG(QXLOG_ERROR, tag) << "Failed to fetch authorization token. Actual Error code " << rc
                                << "return code :" << QX_ERR_TOKEN;
        return QX_ERR_TOKEN;
      }
      // Not even an earlier operation's token goes out.
      deleteHeaderField("Authorization:");
    } else {
      QXLOG(QXLOG_PROGRESS, tag) << "Obtained login token";
      deleteHeaderField("Authorization:");
      addHeaderField("Authorization: ", (m_useBearer ? "Bearer " : "") + token);
    }
  }

  bool refreshed = false;
  bool renegotiated = false;
  for (;;) {
    m_responseHeaders.clear();
    // libcurl reads the list at each transfer: only a new list is handed over.
    if (m_headersOnHandle != m_headerList || m_headerList == nullptr) {
      if (setCurlOptionLogged(CURLOPT_HTTPHEADER, static_cast<void*>(m_headerList),
                              "CURLOPT_HTTPHEADER") == 0)
        m_headersOnHandle = m_headerList;
    }
    m_responseBody.clear();

    const time_t start = T_time();
    if (!m_preferredNetworksDisabled) connectToPBXExchange();
    CURLcode rc = T_curl_easy_perform(m_curlHandle);
    while (rc == CURLE_SSL_CONNECT_ERROR && (T_time() - start) < m_connectionTimeout) {
      QXLOG(QXLOG_PROGRESS, tag) << "CONNECTION RETRY after CURLE_SSL_CONNECT_ERROR";
      QXLOG(QXLOG_PROGRESS, tag) << "CONNECTION RETRY m_connectionTimeout: " << m_connectionTimeout;
      T_sleep(1);
      if (!m_preferredNetworksDisabled) connectToPBXExchange();
      QXLOG(QXLOG_PROGRESS, tag) << "CONNECTION RETRY with current time: " << T_time()
                                 << " connectionStartTime: " << start;
      m_responseHeaders.clear();
      m_responseBody.clear();
      rc = T_curl_easy_perform(m_curlHandle);
    }
    if (rc == CURLE_SSL_CONNECT_ERROR) {
      QXLOG(QXLOG_PROGRESS, tag) << "CONNECTION RETRY timeout: " << m_connectionTimeout
                                 << " seconds reached with current time: " << T_time()
                                 << " connectionStartTime: " << start;
    }
    m_curlError = rc;
    if (rc != CURLE_OK) {
      QXLOG(QXLOG_ERROR, tag) << "Failed to perform operation: " << curl_easy_strerror(rc);
      int status = mapCurlError();
      long connectCode = 0;
      CURLcode irc = curl_easy_getinfo(m_curlHandle, CURLINFO_HTTP_CONNECTCODE, &connectCode);
      if (irc != CURLE_OK) {
        QXLOG(QXLOG_ERROR, tag) << "Failed to get http response code: " << curl_easy_strerror(irc);
      }
      m_httpCode = connectCode;
      return status;
    }

    if (qxLogWanted(QXLOG_DETAIL))
      QXLOG(QXLOG_DETAIL, tag) << "HTTP response header : " << mask_jwt(m_responseHeaders);
    long code = 0;
    CURLcode irc = curl_easy_getinfo(m_curlHandle, CURLINFO_RESPONSE_CODE, &code);
    if (irc != CURLE_OK) {
      m_curlError = irc;
      QXLOG(QXLOG_ERROR, tag) << "Failed to get http response code: " << curl_easy_strerror(irc);
      return mapCurlError();
    }
    m_httpCode = code;
    QXLOG(QXLOG_PROGRESS, tag) << "Fetched data = [xxxxx], httpcode = " << code;

    if (code == 503) {
      int errorCode = 0;
      std::string errorMessage;
      if (extractErrorFromJSON(m_responseBody, errorCode, errorMessage) == 0 && errorCode != 0) {
        return errorCode;
      }
      return QX_ERR_SERVICE_UNAVAILABLE;
    }

    if (tokenSession && m_tokenManager != nullptr &&
        m_tokenManager->isRetryRequired(static_cast<int>(code), m_responseBody)) {
      if (refreshed) return 0;
      refreshed = true;
      std::string token;
      int trc = m_tokenManager->getToken(m_server, token, true, nullptr);
      if (trc != 0) {
        if (m_sessionType == QXCURL_USE_TOKEN) {
          QXLOG(QXLOG_ERROR, tag) << "Failed to refresh authorization token. Actual Error code :"
                                  << trc << "return code :" << QX_ERR_TOKEN;
          return QX_ERR_TOKEN;
        }
        deleteHeaderField("Authorization:");
        continue;
      }
      QXLOG(QXLOG_PROGRESS, tag) << "Using refreshed token";
      deleteHeaderField("Authorization:");
      addHeaderField("Authorization: ", (m_useBearer ? "Bearer " : "") + token);
      m_tokenRefreshed = true;
      continue;
    }

    if (renegotiated || m_versionProbe || (code != 406 && code != 415)) return 0;
    QXLOG(QXLOG_ERROR, tag) << "Http code indicates invalid API version. Trying again with "
                               "Server API version or minimum version";
    int vrc = setClientRequestHeaderAsPerServerVersion();
    if (vrc != 0) {
      QXLOG(QXLOG_ERROR, tag) << "Failed to connect to server while setting client request header";
      return vrc;
    }
    QXLOG(QXLOG_PROGRESS, tag) << "Setting flag isVersionMismatchHonoured as true";
    renegotiated = true;
    QXLOG(QXLOG_PROGRESS, tag) << "Fetched httpcode = " << code;
  }
}
