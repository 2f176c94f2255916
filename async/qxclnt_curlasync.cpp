// The asynchronous client: one request as a state machine over libcurl's
// multi interface, advanced by the caller's event loop (fd_set or poll).
//
// One exchange (connect, transfer, answer) is in flight at a time; the phases
// of a request chain exchanges: a login when no token is cached, a version
// fetch after a 406 or 415, the caller's request, one retry with a fresh
// token. Between exchanges the easy handle leaves the multi handle; the
// connection it used stays in the multi handle's pool and is reused by the
// next exchange when it can be.
#include "qxcurl/qxclnt_curlasync.h"

#include <openssl/x509_vfy.h>
#include <strings.h>

#include <cstring>
#include <new>

#include "client/qxclnt_curl_option.h"
#include "client/qxclnt_retry.h"
#include "platform/qx_certmap.h"
#include "platform/qx_log.h"
#include "platform/qx_util.h"
#include "prefnet/qxclnt_prefnet.h"
#include "qxcurl/json_token_manager.h"
#include "qxcurl/login_with_cert_manager.h"
#include "qxcurl/qx_status.h"
#include "qxcurl/websvc_tunnel_iterator.h"
#include "qxcurl/websvc_tunnel_router.h"

namespace {

const char* const kLoginPath = "arvion/loginwithcert";
const char* const kPlaceholderToken = "xxxx";
// Sleep after ASYNC_RETRY_WAIT when the schedule has nothing left.
constexpr int kDefaultRetrySleepSec = 2;
// The router's lookup ends after a handful of batches; only a tunnel-use
// setting that keeps changing during the request could make it go on.
constexpr int kMaxLookupPasses = 32;

CURLMsg* (*g_multiInfoReader)(CURLM*, int*) = nullptr;

// Connector steps, as the flow reads them.
constexpr int kNioConnecting = -1;
constexpr int kNioConnected = 0;
constexpr int kNioGaveUp = -3;

bool needsBody(REQTYPE t) { return t == REQTYPE_POST || t == REQTYPE_PUT || t == REQTYPE_PATCH; }

bool validType(REQTYPE t) {
  std::underlying_type<REQTYPE>::type raw;
  std::memcpy(&raw, &t, sizeof raw);
  return raw >= REQTYPE_GET && raw <= REQTYPE_DELETE;
}

short pollEvents(short curlEvents) {
  short ev = 0;
  if (curlEvents & CURL_WAIT_POLLIN) ev |= POLLIN;
  if (curlEvents & CURL_WAIT_POLLPRI) ev |= POLLPRI;
  if (curlEvents & CURL_WAIT_POLLOUT) ev |= POLLOUT;
  return ev;
}

}  // namespace

AsyncCURL::~AsyncCURL() = default;
AsyncCURLFactory::~AsyncCURLFactory() = default;

// ---- construction ----

QXClientAsyncCURL::QXClientAsyncCURL(const std::string& server, int port,
                                     const std::string& urlPath, const std::string& payload,
                                     REQTYPE reqType, cert_type certType,
                                     QXCurlSessionType sessionType, TokenManager_Base* tokenManager,
                                     const std::string& caType)
    : QXClientCURL(server, port, certType, sessionType, tokenManager, "", true, false, false,
                   caType),
      m_reqType(reqType),
      m_reqPath(urlPath),
      m_reqPayload(payload) {
  const char* tag = "QXClientAsyncCURL::QXClientAsyncCURL";
  if (!validType(reqType)) {
    QXLOG(QXLOG_ERROR, tag) << "Invalid request type [" << static_cast<int>(reqType) << "]";
    throw QX_ERR_BAD_ARGUMENT;
  }
  for (fd_set& s : m_unusedSets) FD_ZERO(&s);
  m_revocationCache = &m_revocationVerdicts;
  setCertInfo();
  m_multiHandle = curl_multi_init();
  if (m_multiHandle == nullptr) {
    QXLOG(QXLOG_ERROR, tag) << "curl_multi_init failed";
    throw QX_ERR_NO_MEMORY;
  }
}

// The multi handle goes before the easy handle (the base's): it closes the
// connections of its pool, and a transfer under way with them.
QXClientAsyncCURL::~QXClientAsyncCURL() {
  if (m_inMulti) curl_multi_remove_handle(m_multiHandle, m_curlHandle);
  curl_multi_cleanup(m_multiHandle);
  curl_slist_free_all(m_fetchHeaders);
  delete m_tunnelIterator;
}

int QXClientAsyncCURL::setAsyncRequest(REQTYPE reqType, const std::string& urlPath,
                                       const std::string& payload) {
  if (m_run == RUN_ACTIVE) return QX_ERR_IN_PROGRESS;
  if (!validType(reqType)) return QX_ERR_BAD_ARGUMENT;
  m_reqType = reqType;
  m_reqPath = urlPath;
  m_reqPayload = payload;
  return 0;
}

// libcurl turns every certificate of every handshake into text when asked
// for certificate information (some 300 000 instructions a connection). Only
// the names of a certificate that did not match the
// server are ever read, so the information is asked for only to learn them.
void QXClientAsyncCURL::setCertInfo() {
  setCurlOptionLogged(CURLOPT_CERTINFO, m_certInfoWanted ? 1L : 0L, "CURLOPT_CERTINFO",
                      QXLOG_DETAIL);
}

int QXClientAsyncCURL::resetHandle() {
  int rc = resetCurl();
  if (rc == 0) setCertInfo();
  return rc;
}

// ---- results ----

int QXClientAsyncCURL::getQxuErrorCode() { return m_qxuErrorCode; }
long QXClientAsyncCURL::getHttpResponseStatusCode() { return static_cast<long>(m_httpCode); }
const std::string& QXClientAsyncCURL::getResponseData() { return m_responseBody; }

int QXClientAsyncCURL::getRetrySleepTime() {
  if (m_retrySleepQueue.empty()) return kDefaultRetrySleepSec;
  int next = m_retrySleepQueue.front();
  m_retrySleepQueue.pop_front();
  return next;
}

long QXClientAsyncCURL::getAsyncWaitTimeoutMs() {
  if (m_nioWaitMs >= 0) return m_nioWaitMs;
  long ms = -1;
  if (m_inMulti) curl_multi_timeout(m_multiHandle, &ms);
  return ms;
}

int QXClientAsyncCURL::mapMultiCurlError() {
  int status;
  switch (m_curlMultiError) {
    case CURLM_BAD_HANDLE:
    case CURLM_BAD_EASY_HANDLE:
    case CURLM_UNKNOWN_OPTION:
      status = QX_ERR_MULTI_INTERNAL;
      break;
    case CURLM_OUT_OF_MEMORY:
      status = QX_ERR_NO_MEMORY;
      break;
    case CURLM_BAD_SOCKET:
      status = QX_ERR_BAD_SOCKET;
      break;
    case CURLM_ADDED_ALREADY:
      status = QX_ERR_IN_PROGRESS;
      break;
    default:  // only called after a failure: 0 and internal errors alike
      status = QX_ERR_REQUEST_FAILED;
      break;
  }
  QXLOG(QXLOG_PROGRESS, "QXClientAsyncCURL::mapMultiCurlError")
      << "Translating multi curl code " << m_curlMultiError << " to Arvion code " << status;
  return status;
}

// ---- test seams ----

CURLMsg* QXClientAsyncCURL::T_curl_multi_info_read(CURLM* multi, int* queued) {
  return g_multiInfoReader ? g_multiInfoReader(multi, queued) : curl_multi_info_read(multi, queued);
}

void QXClientAsyncCURL::T_setcurlMultiInfoReader(CURLMsg* (*reader)(CURLM*, int*)) {
  g_multiInfoReader = reader;
}

CURLcode QXClientAsyncCURL::T_curl_easy_getinfo(CURL* handle, long* httpCode) {
  if (m_mockResponse) {
    *httpCode = m_mockResponseCode;
    return CURLE_OK;
  }
  return curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, httpCode);
}

void QXClientAsyncCURL::mockResponseCode(bool enable, int code) {
  m_mockResponse = enable;
  m_mockResponseCode = code;
}

// ---- entry points ----

int QXClientAsyncCURL::performAsyncRequest(fd_set& read, fd_set& write, fd_set& except,
                                           int& maxfd) {
  if (m_run == RUN_ACTIVE) {
    QXLOG(QXLOG_ERROR, "QXClientAsyncCURL::performAsyncRequest")
        << "A request is already in progress on this client";
    m_curlMultiError = CURLM_ADDED_ALREADY;
    m_qxuErrorCode = mapMultiCurlError();
    return ASYNC_FAILED;
  }
  int st = start(read, write, except, maxfd);
  return ended(st, maxfd);
}

int QXClientAsyncCURL::isAsyncOperationCompleted(fd_set& read, fd_set& write, fd_set& except,
                                                 int& maxfd) {
  if (m_run == RUN_DONE) return ended(m_final, maxfd);
  if (m_run == RUN_IDLE) {
    QXLOG(QXLOG_ERROR, "QXClientAsyncCURL::isAsyncOperationCompleted")
        << "No request started: call performAsyncRequest first";
    m_qxuErrorCode = QX_ERR_BAD_ARGUMENT;
    return ASYNC_FAILED;
  }
  int st = advance(read, write, except, maxfd);
  return ended(st, maxfd);
}

int QXClientAsyncCURL::performAsyncRequestPoll(std::vector<struct pollfd>& fds, int& timeoutMs) {
  return pollCall(true, fds, timeoutMs);
}

int QXClientAsyncCURL::isAsyncOperationCompletedPoll(std::vector<struct pollfd>& fds,
                                                     int& timeoutMs) {
  return pollCall(false, fds, timeoutMs);
}

// The same flow with the descriptors collected into fds instead of fd_sets.
int QXClientAsyncCURL::pollCall(bool starting, std::vector<struct pollfd>& fds, int& timeoutMs) {
  m_pollFds = &fds;
  int maxfd = -1;
  int st = starting ? performAsyncRequest(m_unusedSets[0], m_unusedSets[1], m_unusedSets[2], maxfd)
                    : isAsyncOperationCompleted(m_unusedSets[0], m_unusedSets[1], m_unusedSets[2],
                                                maxfd);
  m_pollFds = nullptr;
  timeoutMs = st == ASYNC_WAIT_FDS      ? static_cast<int>(getAsyncWaitTimeoutMs())
              : st == ASYNC_IN_PROGRESS ? 0
                                        : -1;
  return st;
}

int QXClientAsyncCURL::ended(int asyncStatus, int maxfd) {
  if (asyncStatus == ASYNC_COMPLETED || asyncStatus == ASYNC_FAILED) {
    if (asyncStatus == ASYNC_COMPLETED) m_qxuErrorCode = 0;
    m_run = RUN_DONE;
    m_final = asyncStatus;
    m_nioWaitMs = -1;
  }
  if (qxLogWanted(QXLOG_PROGRESS)) {
    QXLOG(QXLOG_PROGRESS, "QXClientAsyncCURL::isAsyncOperationCompleted")
        << "Returning async status:[" << asyncStatus << "]"
        << ", maxfd:" << maxfd;
  }
  return asyncStatus;
}

int QXClientAsyncCURL::fail(int status) {
  m_qxuErrorCode = status;
  return ASYNC_FAILED;
}

int QXClientAsyncCURL::start(fd_set& read, fd_set& write, fd_set& except, int& maxfd) {
  QXLOG(QXLOG_PROGRESS, "QXClientAsyncCURL::performAsyncRequest") << "performAsyncRequest started";
  // A request that failed may have left any phase's options on the handle.
  bool dirty = m_run == RUN_DONE && m_final == ASYNC_FAILED;
  m_run = RUN_ACTIVE;
  m_qxuErrorCode = 0;
  m_httpCode = 0;
  m_curlError = 0;
  m_tokenFetchInProgress = m_apiVersionFetchPending = m_apiVersionFetchInProgress = false;
  m_apiVersionNegotiated = false;
  m_accessDeniedRetryAllowed = true;
  m_nioConnectAbandoned = m_nioConnectDone = m_nioConnecting = false;
  m_freshConnect = false;
  m_retryStatus = 0;
  if (m_certInfoWanted) {
    m_certInfoWanted = false;
    setCertInfo();
  }
  m_triedTunnels.clear();
  m_tunnelUsed.clear();
  m_connectionStartTime = T_time();
  m_connection_start_time = m_connectionStartTime;
  if (dirty) {
    if (!detach("curl_multi_remove_handle")) return ASYNC_FAILED;
    if (resetHandle() != 0) return fail(QX_ERR_CURL_INIT);
  }
  if (checkAndPopulateTunnelConfig() != 0) return ASYNC_FAILED;
  m_retrySleepQueue.clear();
  return initiateAsyncRequest(read, write, except, maxfd, false);
}

// ---- tunnels ----

int QXClientAsyncCURL::checkAndPopulateTunnelConfig() {
  const char* tag = "QXClientAsyncCURL::checkAndPopulateTunnelConfig";
  delete m_tunnelIterator;
  m_tunnelIterator = nullptr;
  m_tunnelInUse = false;
  m_currentTunnel.clear();
  if (m_tunnelAllowed && m_tunnelRouter != nullptr && m_tunnelRouter->useHttpTunnel()) {
    QXLOG(QXLOG_PROGRESS, tag) << "Configuration suggests use of tunnel.";
    try {
      m_tunnelIterator = new QXWebsvcTunnelIterator(*m_tunnelRouter, m_server);
    } catch (...) {
      QXLOG(QXLOG_ERROR, tag) << "memory allocation for tunenel iterator failed";
      return fail(QX_ERR_NO_MEMORY);
    }
    m_tunnelInUse = nextTunnelCandidate(m_currentTunnel);
  }
  if (!m_tunnelInUse) QXLOG(QXLOG_PROGRESS, tag) << "Tunnel not set.";
  return 0;
}

// The next candidate not yet tried in this request, batch after batch.
bool QXClientAsyncCURL::nextTunnelCandidate(std::string& tunnel) {
  for (int pass = 0; pass < kMaxLookupPasses;) {
    if (!m_tunnelIterator->hasNext()) {
      m_tunnelIterator->fetchTunnels();
      ++pass;
      if (!m_tunnelIterator->hasNext()) return false;
    }
    std::string candidate = m_tunnelIterator->next();
    if (!candidate.empty()) {
      if (isTunnelAlreadyTried(candidate)) continue;
      m_triedTunnels.push_back(candidate);
    }
    tunnel = candidate;
    return true;
  }
  return false;
}

// The proxy options of the current candidate; none when no tunnel is in use
// (an earlier request may have left some).
void QXClientAsyncCURL::applyCurrentTunnel() {
  if (m_tunnelInUse) {
    setorResetTunnelOptions(m_currentTunnel);
    m_tunnelUsed = m_currentTunnel;
  } else if (strcasecmp(m_tunnelName.c_str(), m_server.c_str()) != 0) {
    disableTunnelOptions();
  }
}

int QXClientAsyncCURL::tunnelFailover() {
  if (!m_tunnelInUse || m_tunnelIterator == nullptr) return ASYNC_FAILED;
  std::string next;
  if (nextTunnelCandidate(next)) {
    m_currentTunnel = next;
  } else {
    m_tunnelInUse = false;
    m_currentTunnel.clear();
  }
  return tryWithNextTunnel();
}

int QXClientAsyncCURL::tryWithNextTunnel() {
  const char* tag = "QXClientAsyncCURL::tryWithNextTunnel";
  m_nioConnectAbandoned = m_nioConnectDone = false;
  if (!detach("Tunnel curl_multi_remove_handle")) return ASYNC_FAILED;
  if (resetHandle() != 0) return fail(QX_ERR_CURL_INIT);
  if (!m_currentTunnel.empty()) {
    QXLOG(QXLOG_PROGRESS, tag) << "Trying with another tunnel:[" << m_currentTunnel << "]";
    setorResetTunnelOptions(m_currentTunnel);
    m_tunnelUsed = m_currentTunnel;
  } else {
    QXLOG(QXLOG_PROGRESS, tag) << "Tunnel name is empty";
    disableTunnelOptions();
    m_tunnelUsed.clear();
  }
  rewindPhase();
  return setInitiateAsyncRequest(false, false);
}

// ---- one exchange on the multi handle ----

int QXClientAsyncCURL::initiateAsyncRequest(fd_set& read, fd_set& write, fd_set& except, int& maxfd,
                                            bool forceNewToken) {
  applyCurrentTunnel();
  if (!detach("curl_multi_remove_handle")) return ASYNC_FAILED;
  if (setInitiateAsyncRequest(forceNewToken, false) == ASYNC_FAILED) return ASYNC_FAILED;
  return advance(read, write, except, maxfd);
}

// Takes the handle out of the multi handle. A connection that just carried
// an answer is looked at first: libcurl forgets it once the handle is out.
bool QXClientAsyncCURL::detach(const char* what) {
  if (!m_inMulti) return true;
  m_keptConnection = 0;
  if (m_exchangeOk && !m_tokenFetchInProgress && !m_freshConnect && !m_preferredNetworksDisabled)
    m_keptConnection = pbxKeptConnectionUsable() ? 1 : 0;
  CURLMcode mc = curl_multi_remove_handle(m_multiHandle, m_curlHandle);
  m_inMulti = false;
  if (mc != CURLM_OK) {
    m_curlMultiError = mc;
    QXLOG(QXLOG_ERROR, "QXClientAsyncCURL::performOperation")
        << what << " failed with status:[" << curl_multi_strerror(mc) << "]";
    fail(mapMultiCurlError());
    return false;
  }
  return true;
}

int QXClientAsyncCURL::attach(bool isRetry) {
  CURLMcode mc = curl_multi_add_handle(m_multiHandle, m_curlHandle);
  if (mc != CURLM_OK) {
    m_curlMultiError = mc;
    QXLOG(QXLOG_ERROR, "QXClientAsyncCURL::setInitiateAsyncRequest")
        << "curl_multi_add_handle failed with status:[" << curl_multi_strerror(mc) << "]";
    return fail(mapMultiCurlError());
  }
  m_inMulti = true;
  m_exchangeOk = false;
  m_nioConnectDone = false;
  if (isRetry) {
    QXLOG(QXLOG_PROGRESS, "QXClientAsyncCURL::setInitiateAsyncRequest")
        << "Will sleep before retrying";
    return ASYNC_RETRY_WAIT;
  }
  return ASYNC_IN_PROGRESS;
}

int QXClientAsyncCURL::setInitiateAsyncRequest(bool forceNewToken, bool isRetry) {
  const char* tag = "QXClientAsyncCURL::setInitiateAsyncRequest";
  int rc = 0;
  if (m_apiVersionFetchPending) {
    m_apiVersionFetchPending = false;
    m_apiVersionFetchInProgress = true;
    rc = configureAsyncGetApiVersion();
  } else if (m_sessionType != QXCURL_USE_TOKEN) {
    rc = configureAsyncCurlRequest();
  } else {
    auto* certManager = dynamic_cast<LoginWithCertManager*>(m_tokenManager);
    if (certManager == nullptr) {
      QXLOG(QXLOG_ERROR, tag) << "certManager is NULL";
      return fail(QX_ERR_TOKEN);
    }
    bool fresh = forceNewToken;
    if (!fresh) {
      jwtToken cached;
      int decision = certManager->getLocalToken(cached) == 0
                         ? certManager->isJWTRefreshRequired(cached, m_server)
                         : QX_JWT_REFRESH_NOW;
      if (decision == QX_JWT_REFRESH_AVOID) {
        QXLOG(QXLOG_ERROR, tag) << "Avoiding token refresh: " << QX_ERR_TOKEN;
        return fail(QX_ERR_TOKEN);
      }
      if (decision == QX_JWT_CACHED_GOOD) {
        deleteHeaderField("Authorization:");
        addHeaderField("Authorization: ", (m_useBearer ? "Bearer " : "") + cached.token);
        QXLOG(QXLOG_PROGRESS, tag) << "Obtained login token";
        rc = configureAsyncCurlRequest();
      } else {
        fresh = true;
      }
    }
    if (fresh) {
      QXLOG(QXLOG_PROGRESS, tag) << "acquire fresh JWT token";
      m_tokenFetchInProgress = true;
      rc = configureAsyncCurlToken();
    }
  }
  if (rc != 0) return fail(rc);
  return attach(isRetry);
}

int QXClientAsyncCURL::configureAsyncCurlRequest() {
  const char* tag = "QXClientAsyncCURL::configureAsyncCurlRequest";
  m_responseBody.clear();
  m_responseHeaders.clear();
  if (needsBody(m_reqType) && m_reqPayload.empty()) {
    QXLOG(QXLOG_ERROR, tag) << "payLoad should not be null";
    return QX_ERR_BAD_ARGUMENT;
  }
  int rc = setUrlForPath(m_reqPath, "Failed to set url, err = ");
  if (rc != 0) return rc;
  switch (m_reqType) {
    case REQTYPE_POST:
      rc = setPostOptions(qxEscapeLineEnds(m_reqPayload));
      break;
    case REQTYPE_PUT:
      rc = setBodyOptions("PUT", m_reqPayload);
      break;
    case REQTYPE_PATCH:
      rc = setBodyOptions("PATCH", m_reqPayload);
      break;
    case REQTYPE_DELETE:
      setCurlOptionLogged(CURLOPT_HTTPGET, 1L, "CURLOPT_HTTPGET");
      rc = setCurlOptionLogged(CURLOPT_CUSTOMREQUEST, "DELETE", "CURLOPT_CUSTOMREQUEST");
      m_customRequest = true;
      break;
    default:
      setCurlOptionLogged(CURLOPT_HTTPGET, 1L, "CURLOPT_HTTPGET");
      if (m_customRequest) {
        setCurlOptionLogged(CURLOPT_CUSTOMREQUEST, static_cast<void*>(nullptr),
                            "CURLOPT_CUSTOMREQUEST");
        m_customRequest = false;
      }
      break;
  }
  if (rc != 0) return rc;
  return setCurlOptionLogged(CURLOPT_HTTPHEADER, static_cast<void*>(m_headerList),
                             "CURLOPT_HTTPHEADER");
}

// The login over mutual TLS with the host certificate.
int QXClientAsyncCURL::configureAsyncCurlToken() {
  const char* tag = "QXClientAsyncCURL::configureAsyncCurlToken";
  m_responseBody.clear();
  m_responseHeaders.clear();
  // The kept connection presents no host certificate: libcurl will not use it.
  m_keptConnection = 0;
  int rc = setupHostCertCurlOptionByCAType();
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "setupHostCertCurlOptionByCAType failed. error = " << rc;
    return rc;
  }
  if (m_tokenManager->m_operationTimeout != -1) {
    setCurlOptionLogged(CURLOPT_TIMEOUT, static_cast<long>(m_tokenManager->m_operationTimeout),
                        "CURLOPT_TIMEOUT");
  }
  // A refusal is recorded for every process only if the CA mode is still the
  // one the login was made under when the answer arrives.
  if (getCAModeByServer(m_certType, m_server.c_str(), &m_loginCaMode) != 0) m_loginCaMode = -1;
  rc = setUrlForPath(kLoginPath, "Failed to set url, err = ");
  if (rc == 0) rc = setPostOptions("{}");
  if (rc != 0) return rc;
  std::string contentType;
  if (getHTTPRequestHeader("Content-Type:", contentType) != 0) contentType = QX_MEDIA_TYPE_VERSION;
  curl_slist_free_all(m_fetchHeaders);
  m_fetchHeaders = curl_slist_append(nullptr, "Accept: */*");
  m_fetchHeaders = curl_slist_append(m_fetchHeaders, ("Content-Type: " + contentType).c_str());
  m_fetchHeaders = curl_slist_append(m_fetchHeaders, (QX_HEADER_X_CLIENT_ID + m_clientId).c_str());
  if (m_fetchHeaders == nullptr) return QX_ERR_NO_MEMORY;
  return setCurlOptionLogged(CURLOPT_HTTPHEADER, static_cast<void*>(m_fetchHeaders),
                             "CURLOPT_HTTPHEADER");
}

int QXClientAsyncCURL::configureAsyncGetApiVersion() {
  const char* tag = "QXClientAsyncCURL::configureAsyncGetApiVersion";
  m_responseBody.clear();
  m_responseHeaders.clear();
  QXLOG(QXLOG_PROGRESS, tag) << "Fetching API version using URL " << m_server_url << PING_URI;
  int rc = setUrlForPath(PING_URI, "Failed to set url, err = ");
  if (rc != 0) return rc;
  setCurlOptionLogged(CURLOPT_HTTPGET, 1L, "CURLOPT_HTTPGET");
  if (m_customRequest) {
    setCurlOptionLogged(CURLOPT_CUSTOMREQUEST, static_cast<void*>(nullptr),
                        "CURLOPT_CUSTOMREQUEST");
    m_customRequest = false;
  }
  curl_slist_free_all(m_fetchHeaders);
  m_fetchHeaders = curl_slist_append(nullptr, "Accept: */*");
  m_fetchHeaders = curl_slist_append(m_fetchHeaders, (QX_HEADER_X_CLIENT_ID + m_clientId).c_str());
  if (m_fetchHeaders == nullptr) return QX_ERR_NO_MEMORY;
  return setCurlOptionLogged(CURLOPT_HTTPHEADER, static_cast<void*>(m_fetchHeaders),
                             "CURLOPT_HTTPHEADER");
}

// ---- the connect step ----

int QXClientAsyncCURL::connectNioPBX(long& socket, fd_set& read, fd_set& write, fd_set& except,
                                     int& maxfd) {
  const char* tag = "QXClientAsyncCURL::connectNioPBX";
  socket = -1;
  if (m_connector == nullptr) return kNioGaveUp;
  if (!m_nioConnecting) {
    if (preparePBXExchange(m_keptConnection == 1 ? 1 : 0) == 1) {
      m_nioDialled = false;
      return kNioConnected;
    }
    QXLOG(QXLOG_PROGRESS, tag) << "Connecting to :[" << m_pbxHost << "]:[" << m_pbxPort << "]";
    m_nioConnecting = true;
    m_nioDialled = true;
  }
  int action = qxclnt_curl_prefnet::ACTION_NONE;
  int fd = 0;
  long timeout = -1;
  // Without a set the connector does not FD_SET: the poll interface takes
  // any descriptor number.
  int rc = m_connector->connect(QXCLNT_CMODE_NONBLOCKING, &action, &read,
                                m_pollFds != nullptr ? nullptr : &write, &except, &fd, &timeout);
  if (rc != WN_STATUS_SUCCESS) {
    m_nioConnecting = false;
    m_nioStatus = rc;
    if (rc == WN_STATUS_CONNECT_TIMEOUT || action == qxclnt_curl_prefnet::ACTION_TIMED_OUT)
      QXLOG(QXLOG_DETAIL, tag) << "Timeout occurred while trying to establish connection.";
    QXLOG(QXLOG_DETAIL, tag) << "Attempt to establish non-blocking connection FAILED. ["
                             << wnet_status_name(rc) << "]";
    return kNioGaveUp;
  }
  if (action == qxclnt_curl_prefnet::ACTION_WATCH_WRITE) {
    socket = fd;
    if (m_pollFds != nullptr) m_pollFds->push_back({fd, POLLOUT, 0});
    if (fd > maxfd) maxfd = fd;
    m_nioWaitMs = timeout * 1000;
    return kNioConnecting;
  }
  m_nioConnecting = false;
  QXLOG(QXLOG_PROGRESS, tag) << "Non blocking connection completed successfully.";
  socket = static_cast<int>(*m_connector);
  return kNioConnected;
}

// The connector gave up. libcurl dials by itself, without the socket
// callbacks and the pinned address, except where the rules permit no address
// at all: then libcurl is pinned to the unreachable one and fails as well.
void QXClientAsyncCURL::letCurlConnect() {
  if (m_nioStatus == WN_STATUS_BAD_PARAM) {
    finishPBXExchange(m_nioStatus);
    return;
  }
  m_connector->reset(true);
  m_pbxSocket = -1;
  m_pbxFailed = false;
  setCurlOptionLogged(CURLOPT_OPENSOCKETFUNCTION, static_cast<void*>(nullptr),
                      "CURLOPT_OPENSOCKETFUNCTION");
  setCurlOptionLogged(CURLOPT_SOCKOPTFUNCTION, static_cast<void*>(nullptr),
                      "CURLOPT_SOCKOPTFUNCTION");
  m_socketCallbacksInstalled = false;
  if (m_pbxHost.empty()) return;
  std::string host = m_pbxHost.find(':') != std::string::npos ? "[" + m_pbxHost + "]" : m_pbxHost;
  curl_slist_free_all(m_resolveList);
  m_resolveList =
      curl_slist_append(nullptr, ("-" + host + ":" + std::to_string(m_pbxPort)).c_str());
  setCurlOptionLogged(CURLOPT_RESOLVE, static_cast<void*>(m_resolveList), "CURLOPT_RESOLVE");
}

// ---- advancing ----

int QXClientAsyncCURL::setAsyncOpData(fd_set& read, fd_set& write, fd_set& except, int& maxfd) {
  struct curl_waitfd small[8];
  std::vector<struct curl_waitfd> large;
  struct curl_waitfd* fds = small;
  unsigned int n = 0;
  CURLMcode mc = curl_multi_waitfds(m_multiHandle, small, 8, &n);
  if (mc == CURLM_OUT_OF_MEMORY && n > 8) {
    large.resize(n);
    fds = large.data();
    mc = curl_multi_waitfds(m_multiHandle, fds, n, &n);
  }
  if (mc != CURLM_OK) {
    m_curlMultiError = mc;
    QXLOG(QXLOG_ERROR, "QXClientAsyncCURL::setAsyncOpData")
        << "curl_multi_fdset_ex() failed with status:[" << curl_multi_strerror(mc) << "]";
    return fail(mapMultiCurlError());
  }
  for (unsigned int i = 0; i < n; ++i) {
    if (!addWaitFd(fds[i].fd, pollEvents(fds[i].events), read, write, except, maxfd))
      return fail(QX_ERR_BAD_SOCKET);
  }
  return n > 0 ? ASYNC_WAIT_FDS : ASYNC_IN_PROGRESS;
}

bool QXClientAsyncCURL::addWaitFd(int fd, short events, fd_set& read, fd_set& write, fd_set& except,
                                  int& maxfd) {
  if (m_pollFds != nullptr) {
    m_pollFds->push_back({fd, events, 0});
    return true;
  }
  // FD_SET beyond FD_SETSIZE writes past the caller's set.
  if (fd < 0 || fd >= FD_SETSIZE) {
    QXLOG(QXLOG_ERROR, "QXClientAsyncCURL::setAsyncOpData")
        << "Socket descriptor [" << fd << "] does not fit in a select() set of [" << FD_SETSIZE
        << "]; failing the request (the poll interface takes any descriptor).";
    return false;
  }
  if (events & POLLIN) FD_SET(fd, &read);
  if (events & POLLOUT) FD_SET(fd, &write);
  if (events & POLLPRI) FD_SET(fd, &except);
  if (fd > maxfd) maxfd = fd;
  return true;
}

void QXClientAsyncCURL::raiseRetryWindow() {
  if (m_connectionTimeout < qxretry::kDefaultWindowSec)
    m_connectionTimeout = qxretry::kDefaultWindowSec;
}

// A 502 or 503 that closes the window reports the service's error code when
// its body names one.
int QXClientAsyncCURL::retryStatusForAnswer() const {
  int code = 0;
  std::string message;
  if (extractErrorFromJSON(m_responseBody, code, message) == 0 && code != 0) return code;
  return QX_ERR_SERVICE_UNAVAILABLE;
}

// The phase whose exchange failed starts over: the login phase decides
// again whether a token is needed; a version fetch is fetched again.
void QXClientAsyncCURL::rewindPhase() {
  if (m_apiVersionFetchInProgress) m_apiVersionFetchPending = true;
  m_apiVersionFetchInProgress = m_tokenFetchInProgress = false;
}

int QXClientAsyncCURL::retryConnection() {
  const char* tag = "QXClientAsyncCURL::performOperation";
  QXLOG(QXLOG_PROGRESS, tag) << "Retrying previous connection";
  const time_t now = T_time();
  const int64_t elapsed = now - m_connectionStartTime;
  if (elapsed >= m_connectionTimeout) {
    QXLOG(QXLOG_ERROR, tag) << "Connection retry timeout: " << m_connectionTimeout
                            << " seconds, elapsed: " << elapsed << " returning ASYNC_FAILED";
    return fail(m_retryStatus != 0 ? m_retryStatus : QX_ERR_TIMEOUT);
  }
  if (!detach("Connection retry QX_curl_multi_remove_handle")) return ASYNC_FAILED;
  if (resetHandle() != 0) return fail(QX_ERR_CURL_INIT);
  applyCurrentTunnel();
  if (m_retrySleepQueue.empty()) {
    // The client's own schedule for what is left of the window.
    const int64_t left = m_connectionTimeout - elapsed;
    std::queue<int>().swap(m_retryTimerQueue);
    populateTimerQueue(static_cast<int>(left));
    for (; !m_retryTimerQueue.empty(); m_retryTimerQueue.pop())
      m_retrySleepQueue.push_back(m_retryTimerQueue.front());
    QXLOG(QXLOG_PROGRESS, tag) << "Time left for retry is [" << left << "] current time [" << now
                               << "] start time [" << m_connectionStartTime << "] elapsed ["
                               << elapsed << "] sleep time ["
                               << (m_retrySleepQueue.empty() ? kDefaultRetrySleepSec
                                                             : m_retrySleepQueue.front())
                               << "]";
  }
  rewindPhase();
  return setInitiateAsyncRequest(false, true);
}

int QXClientAsyncCURL::performOperation(fd_set& read, fd_set& write, fd_set& except, int& maxfd) {
  const char* tag = "QXClientAsyncCURL::performOperation";
  if (!m_preferredNetworksDisabled && !m_nioConnectAbandoned && !m_nioConnectDone &&
      m_connector != nullptr) {
    long socket = -1;
    int rc = connectNioPBX(socket, read, write, except, maxfd);
    if (rc == kNioConnecting) return ASYNC_WAIT_FDS;
    m_nioWaitMs = -1;
    m_nioConnectDone = true;
    if (rc == kNioGaveUp) {
      if (m_nioStatus == WN_STATUS_FD_SETSIZE) return fail(QX_ERR_BAD_SOCKET);
      QXLOG(QXLOG_PROGRESS, tag) << "Unable to connect, anyhow let cURL do it's job.";
      m_nioConnectAbandoned = true;
      letCurlConnect();
    } else {
      QXLOG(QXLOG_PROGRESS, tag) << "Moving on to call cURL calls. ";
      if (m_nioDialled) finishPBXExchange(WN_STATUS_SUCCESS);
    }
  }

  int running = 0;
  CURLMcode mc = curl_multi_perform(m_multiHandle, &running);
  if (mc != CURLM_OK) {
    m_curlMultiError = mc;
    QXLOG(QXLOG_ERROR, tag) << "curl_multi_perform failed with status:[" << curl_multi_strerror(mc)
                            << "]";
    return fail(mapMultiCurlError());
  }
  if (running > 0) {
    int st = setAsyncOpData(read, write, except, maxfd);
    if (st == ASYNC_FAILED)
      QXLOG(QXLOG_ERROR, tag) << "set_fdset failed with error: " << m_qxuErrorCode;
    return st;
  }

  bool found = false;
  CURLcode result = CURLE_OK;
  int queued = 0;
  for (CURLMsg* msg; (msg = T_curl_multi_info_read(m_multiHandle, &queued)) != nullptr;) {
    if (msg->msg == CURLMSG_DONE && msg->easy_handle == m_curlHandle) {
      found = true;
      result = msg->data.result;
    }
  }
  if (!found) {
    QXLOG(QXLOG_ERROR, tag) << "No finished transfer to read from the multi handle";
    return fail(QX_ERR_REQUEST_FAILED);
  }

  if (result != CURLE_OK) {
    m_curlError = result;
    QXLOG(QXLOG_ERROR, tag) << "Previous transfer completed with status: "
                            << curl_easy_strerror(result);
    long verifyResult = 0;
    if (result == CURLE_PEER_FAILED_VERIFICATION && !m_certInfoWanted &&
        getSSLVerifyResult(&verifyResult) && verifyResult <= X509_V_ERR_UNSPECIFIED) {
      // The server's name did not match: the same exchange once more, to
      // learn the names its certificate carries.
      QXLOG(QXLOG_PROGRESS, tag) << "Retrying with certificate information to name the "
                                    "server certificate's host names";
      m_certInfoWanted = true;
      m_nioConnectDone = false;
      if (!detach("curl_multi_remove_handle")) return ASYNC_FAILED;
      if (resetHandle() != 0) return fail(QX_ERR_CURL_INIT);
      applyCurrentTunnel();
      rewindPhase();
      return setInitiateAsyncRequest(false, false);
    }
    int status = mapCurlError();
    // Through a tunnel: the proxy's answer to CONNECT (0 when none).
    long connectCode = 0;
    curl_easy_getinfo(m_curlHandle, CURLINFO_HTTP_CONNECTCODE, &connectCode);
    m_httpCode = connectCode;
    m_retryStatus = m_qxuErrorCode = status;
    if (result == CURLE_SSL_CONNECT_ERROR) {
      QXLOG(QXLOG_PROGRESS, tag) << "SSL Connection error, will retry connection";
      return retryConnection();
    }
    return tunnelFailover();
  }

  m_curlError = CURLE_OK;
  long code = 0;
  CURLcode irc = T_curl_easy_getinfo(m_curlHandle, &code);
  if (irc != CURLE_OK) {
    m_curlError = irc;
    QXLOG(QXLOG_ERROR, tag) << "curl_easy_getinfo failed with status:[" << curl_easy_strerror(irc)
                            << "]";
    return fail(mapCurlError());
  }
  m_httpCode = code;
  m_exchangeOk = true;
  if (code == 401 && m_tokenFetchInProgress) {
    QXLOG(QXLOG_PROGRESS, tag) << "Received http response code:" << code
                               << " from server. Will update token state";
  }
  if (code == 502 || code == 503) {
    QXLOG(QXLOG_PROGRESS, tag) << "Received http response code:" << code
                               << " from server. Will retry";
    raiseRetryWindow();
    m_retryStatus = retryStatusForAnswer();
    return retryConnection();
  }
  // The version is renegotiated once per request.
  if ((code == 406 || code == 415) && !m_apiVersionFetchPending && !m_apiVersionFetchInProgress &&
      !m_apiVersionNegotiated) {
    QXLOG(QXLOG_PROGRESS, tag) << "Received http response code:" << code
                               << " from server. Will retry post server API version detection.";
    raiseRetryWindow();
    m_apiVersionFetchPending = true;
    m_retryStatus = QX_ERR_TIMEOUT;
    return retryConnection();
  }
  if (code != 200) {
    QXLOG(QXLOG_PROGRESS, tag) << "Received http response code:" << code
                               << " from server. Will exit";
  }
  if (m_tunnelInUse) {
    if (!m_currentTunnel.empty()) {
      QXLOG(QXLOG_PROGRESS, tag) << "m_tunnelName = [" << m_tunnelName << "].";
      m_tunnelRouter->updateWebsvcTunnelServersCache(m_server, m_currentTunnel);
    } else {
      disableTunnelOptions();
    }
  }
  return ASYNC_COMPLETED;
}

int QXClientAsyncCURL::advance(fd_set& read, fd_set& write, fd_set& except, int& maxfd) {
  const char* tag = "QXClientAsyncCURL::isAsyncOperationCompleted";
  int st = performOperation(read, write, except, maxfd);
  if (st != ASYNC_COMPLETED) return st;

  if (m_apiVersionFetchInProgress) {
    m_apiVersionFetchInProgress = false;
    m_apiVersionNegotiated = true;
    std::string version;
    int rc = getHttpHeaderField(QX_API_VERSION_HEADER_STR, version);
    if (rc == 0) {
      std::string chosen =
          compare_api_version(version.c_str(), MAX_VERSION.c_str()) < 0 ? version : MAX_VERSION;
      QXLOG(QXLOG_PROGRESS, tag) << "Minimum of the two version is " << chosen;
      setJsonMediaTypeAPIVersion(chosen);
    } else if (rc == QX_ERR_HEADER_FIELD) {
      QXLOG(QXLOG_PROGRESS, tag)
          << "Unable to find version header. Setting request header with default media type: "
          << QX_DEFAULT_MEDIA_TYPE;
      addHeaderField("Accept: ", QX_DEFAULT_MEDIA_TYPE);
      addHeaderField("Content-Type: ", QX_DEFAULT_MEDIA_TYPE);
    } else {
      QXLOG(QXLOG_ERROR, tag) << "Unable to connect to server";
    }
    return reconfigureAfterFetch(false);
  }

  if (m_tokenFetchInProgress) {
    int rc = extractAndSaveToken();
    m_tokenFetchInProgress = false;
    if (rc != 0) return fail(rc);
    setCurlOptionLogged(CURLOPT_FRESH_CONNECT, 0L, "CURLOPT_FRESH_CONNECT");
    m_freshConnect = false;
    return reconfigureAfterFetch(true);
  }

  if (m_sessionType == QXCURL_USE_TOKEN && m_accessDeniedRetryAllowed &&
      m_tokenManager != nullptr &&
      m_tokenManager->isRetryRequired(static_cast<int>(m_httpCode), m_responseBody)) {
    m_accessDeniedRetryAllowed = false;
    QXLOG(QXLOG_PROGRESS, tag) << "Previous Response: " << m_responseBody;
    QXLOG(QXLOG_PROGRESS, tag) << "Retrying once more due to access denied";
    QXLOG(QXLOG_PROGRESS, tag)
        << "Removing previous m_curl from multi_handle before resetCurl in case of token retry";
    if (!detach("curl_multi_remove_handle")) return ASYNC_FAILED;
    if (resetHandle() != 0) return fail(QX_ERR_CURL_INIT);
    setCurlOptionLogged(CURLOPT_FRESH_CONNECT, 1L, "CURLOPT_FRESH_CONNECT");
    m_freshConnect = true;
    m_keptConnection = 0;
    return initiateAsyncRequest(read, write, except, maxfd, true);
  }
  return ASYNC_COMPLETED;
}

// After the login or the version fetch: the caller's request on a clean handle.
int QXClientAsyncCURL::reconfigureAfterFetch(bool afterToken) {
  QXLOG(QXLOG_PROGRESS, "QXClientAsyncCURL::isAsyncOperationCompleted")
      << "Removing m_curl from multi_handle after token fetch before resetCurl";
  if (!detach("curl_multi_remove_handle")) return ASYNC_FAILED;
  if (resetHandle() != 0) return fail(QX_ERR_CURL_INIT);
  applyCurrentTunnel();
  if (!afterToken) {
    // The version changed the media types; a token session still needs its
    // token, which the login phase decides on.
    return setInitiateAsyncRequest(false, false);
  }
  deleteHeaderField("Authorization:");
  addHeaderField("Authorization: ", (m_useBearer ? "Bearer " : "") + m_token);
  int rc = configureAsyncCurlRequest();
  if (rc != 0) return fail(rc);
  return attach(false);
}

int QXClientAsyncCURL::extractAndSaveToken() {
  const char* tag = "QXClientAsyncCURL::extractAndSaveToken";
  auto* certManager = dynamic_cast<LoginWithCertManager*>(m_tokenManager);
  if (certManager == nullptr) {
    QXLOG(QXLOG_ERROR, tag) << "certManager is NULL";
    return QX_ERR_TOKEN;
  }
  if (m_httpCode == 401) {
    // Every process of the host backs off, unless the CA mode changed since.
    int caMode = -1;
    if (m_loginCaMode != -1 && getCAModeByServer(m_certType, m_server.c_str(), &caMode) == 0 &&
        caMode == m_loginCaMode) {
      jwtToken failed;
      failed.token = kPlaceholderToken;
      certManager->updateJWTFailInfo(failed);
      certManager->saveNewToken(failed);
    }
    QXLOG(QXLOG_ERROR, tag) << "Authorization error while trying to obtain a token "
                            << QX_ERR_TOKEN;
    return QX_ERR_TOKEN;
  }
  jwtToken record;
  int validity = 0;
  int rc = extractAuthTokenFromJSON(m_responseBody, record.token, validity);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Auth-token parsing failed with error: " << rc;
    return rc;
  }
  record.tokenIssueTimeSec = T_time();
  record.tokenExpTimeSec = record.tokenIssueTimeSec + validity;
  rc = certManager->saveNewToken(record);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "save new token failed with error: " << rc;
    return rc;
  }
  QXLOG(QXLOG_PROGRESS, tag) << "Obtained login token";
  m_token = record.token;
  return 0;
}

// ---- factory ----

QXClientAsyncCURLFactory::QXClientAsyncCURLFactory() = default;

QXClientAsyncCURLFactory::QXClientAsyncCURLFactory(const std::list<std::string>& tunnelServers)
    : m_tunnelServers(tunnelServers) {}

AsyncCURL* QXClientAsyncCURLFactory::generateAsyncCURL(const std::string& server, int port,
                                                       const std::string& urlPath,
                                                       std::string& payload, REQTYPE reqType,
                                                       cert_type certType,
                                                       QXCurlSessionType sessionType) {
  return createClientAsyncCURL(server, port, urlPath, payload, reqType, certType, sessionType);
}

QXClientAsyncCURL* QXClientAsyncCURLFactory::createClientAsyncCURL(
    const std::string& server, int port, const std::string& urlPath, const std::string& payload,
    REQTYPE reqType, cert_type certType, QXCurlSessionType sessionType) {
  try {
    auto* client =
        new QXClientAsyncCURL(server, port, urlPath, payload, reqType, certType, sessionType);
    client->setAdditionalTunnelServers(m_tunnelServers);
    return client;
  } catch (int status) {
    QXLOG(QXLOG_ERROR, "QXClientAsyncCURLFactory::generateAsyncCURL")
        << "Failed to create client, status = [" << status << "]";
    return nullptr;
  } catch (const std::bad_alloc&) {
    QXLOG(QXLOG_ERROR, "QXClientAsyncCURLFactory::generateAsyncCURL")
        << "Failed to create client, status = [" << QX_ERR_NO_MEMORY << "]";
    return nullptr;
  }
}
