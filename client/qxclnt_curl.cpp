// Client object: construction, option setters, request headers, callbacks,
// process-wide libcurl set-up and the factory and environment objects.
#include "qxcurl/qxclnt_curl.h"

#include <openssl/ssl.h>
#include <unistd.h>

#include <cstring>
#include <mutex>
#include <sstream>

#include "client/qxclnt_curl_option.h"
#include "client/qxclnt_retry.h"
#include "platform/qx_config.h"
#include "platform/qx_log.h"
#include "platform/qx_root.h"
#include "platform/qx_util.h"
#include "prefnet/qxclnt_prefnet.h"
#include "qxcurl/qx_status.h"
#include "qxcurl/websvc_tunnel_router.h"
#include "token/token_factory.h"

bool QXClientCURL::gAppControlledInitCleanup = false;

namespace {
constexpr long DEFAULT_OPERATION_TIMEOUT = 300;
constexpr long CONNECTOR_TIMEOUT = 300;
// A response body the client keeps in memory stops here (libcurl ends the
// transfer, mapCurlError reports QX_ERR_RESPONSE_TOO_LARGE); a caller with
// its own write callback streams and has no cap.
constexpr curl_off_t MAX_BUFFERED_RESPONSE = curl_off_t{64} << 20;
const char* const PRIV_KEY_SUFFIX = "/var/qbss/credentials/keystore/PrivKeyFile.pem";

// Guards the process-wide libcurl set-up: clients may be built on several
// threads at once.
std::mutex g_globalInitMutex;

CURLcode (*g_easyPerformer)(CURL*) = nullptr;
unsigned (*g_sleeper)(unsigned) = nullptr;
time_t (*g_timeSource)(time_t*) = nullptr;

// Made once per process (again in a forked child, whose pid differs).
std::string makeClientId() {
  static std::mutex mutex;
  static pid_t pid = -1;
  static std::string id;
  std::lock_guard<std::mutex> guard(mutex);
  if (pid != getpid()) {
    pid = getpid();
    id = QX_HEADER_X_CLIENT_ID_VALUE + "-" + get_exe_basename() + "-" +
         std::to_string(static_cast<long>(pid));
  }
  return id;
}

caLoadType loadTypeFor(const std::string& caType) {
  if (caType == "QXCA") return CA_LOAD_FORCE_QXCA;
  if (caType == "ECA") return CA_LOAD_FORCE_ECA;
  return CA_LOAD_CONFIGURED;
}
}  // namespace

QXClientCURL_Base::~QXClientCURL_Base() = default;
QXClientCURL_BaseFactory::~QXClientCURL_BaseFactory() = default;

// ---- test seams ----

void QXClientCURL::T_setCurlEasyPerformer(CURLcode (*performer)(CURL*)) {
  g_easyPerformer = performer;
}

CURLcode QXClientCURL::T_curl_easy_perform(CURL* handle) {
  return g_easyPerformer ? g_easyPerformer(handle) : curl_easy_perform(handle);
}

void QXClientCURL::T_setTsleep(unsigned (*sleeper)(unsigned)) { g_sleeper = sleeper; }

void QXClientCURL::T_setTimeSource(time_t (*now)(time_t*)) { g_timeSource = now; }

unsigned QXClientCURL::T_sleep(unsigned seconds) {
  return g_sleeper ? g_sleeper(seconds) : ::sleep(seconds);
}

time_t QXClientCURL::T_time() { return g_timeSource ? g_timeSource(nullptr) : ::time(nullptr); }

// ---- construction ----

QXClientCURL::QXClientCURL(const std::string& server, int port, cert_type certType,
                           QXCurlSessionType sessionType, TokenManager_Base* tokenManager,
                           const std::string& installPath, bool tunnelAllowed, bool routeOnServer,
                           bool ownsTokenManager, const std::string& caType,
                           const std::string& trustStorePath, const std::string& keyPath,
                           const std::string& certPath, const std::string& passphrase,
                           const std::string& crlPath, bool skipPKIInfo,
                           const bool& skipTrustProcessing, const std::string& locale, int reserved)
    : m_keyPath(keyPath),
      m_sessionType(sessionType),
      m_server(server),
      m_certType(certType),
      m_tunnelAllowed(tunnelAllowed),
      m_port(port),
      m_routeOnServer(routeOnServer),
      m_caType(caType),
      m_trustStorePath(trustStorePath),
      m_installPath(installPath),
      m_locale(locale),
      m_reserved(reserved),
      m_skipPKIInfo(skipPKIInfo) {
  const char* tag = "QXClientCURL::QXClientCURL";
  // One configuration for all of the constructor's decisions.
  QXConfigSnapshot config;
  std::memset(m_errorBuffer, 0, sizeof(m_errorBuffer));
  m_clientId = makeClientId();
  if (!certPath.empty()) m_certPath = certPath;
  if (!passphrase.empty()) m_passphrase = passphrase;
  if (!crlPath.empty()) m_crlPath = crlPath;

  if (server.empty()) {
    QXLOG(QXLOG_ERROR, tag) << "server name should not be null";
    throw QX_ERR_BAD_ARGUMENT;
  }
  if (port < 1) {
    QXLOG(QXLOG_ERROR, tag) << "port number should not be zero or negative";
    throw QX_ERR_BAD_ARGUMENT;
  }
  if (sessionType < QXCURL_INSECURE || sessionType > QXCURL_USE_TPCA_CERT) {
    QXLOG(QXLOG_ERROR, tag) << "Invalid QXCURL session type";
    throw QX_ERR_BAD_ARGUMENT;
  }
  m_connectHost = server;
  // An IPv6 literal stands in brackets in a URL.
  bool v6Literal = server.find(':') != std::string::npos && server.front() != '[';
  m_server_url =
      "https://" + (v6Literal ? "[" + server + "]" : server) + ":" + std::to_string(port) + "/";
  m_tunnelName = server;

  initGlobalCurl();

  QXLOG(QXLOG_PROGRESS, tag) << "Performing curl_easy_init()";
  m_curlHandle = curl_easy_init();
  if (m_curlHandle == nullptr) {
    QXLOG(QXLOG_ERROR, tag) << "Curl initialization failed ...";
    throw QX_ERR_CURL_INIT;
  }
  applyHandleDefaults();

  // Default trust and key locations of an installation, when the caller
  // named none.
  if (m_trustStorePath.empty() && m_keyPath.empty() && !installPath.empty()) {
    if (m_caType == "QXCA") m_trustStorePath = installPath + "/var/webtruststore/cacert.pem";
    QXLOG(QXLOG_ERROR, tag) << "Non-existent private key path accessed. " << PRIV_KEY_SUFFIX;
    m_keyPath = installPath + PRIV_KEY_SUFFIX;
  }
  m_CACertPath = m_trustStorePath;
  applyTimeoutDefaults();

  m_httpCode = 0;
  m_peerVerificationFlag = true;
  m_allowFailedCrlCheck = false;
  m_crlDownload = true;
  unsigned int level = 1;
  if (getCrlCheckLevelFromConfig(&level) != 0) {
    QXLOG(QXLOG_ERROR, tag)
        << "failed to get CRL check level from configuration file, setting to default";
    level = 1;
  }
  m_crlCheckLevel = level;

  if (qxcurl_bpconf_keyvalue_state("ENABLE_QXCURL_VERBOSE", false)) setCurlVerbose();

  // A supplied manager becomes ours (when the caller says so) only at the
  // end: a constructor that throws leaves it with the caller.
  if (tokenManager != nullptr) {
    m_tokenManager = tokenManager;
  } else {
    m_tokenManager = qxNewCertLoginManager(server, port, certType, skipTrustProcessing).release();
    m_ownsTokenManager = true;
  }

  if (applySessionTLSParams() != 0) {
    QXLOG(QXLOG_DETAIL, tag) << "FAILED to set cURL params for https.";
  }
  if (sessionType == QXCURL_GET_NEW_TOKEN) {
    m_tokenManager->setupCurlOption(this);
    QXLOG(QXLOG_PROGRESS, tag) << "Done Curl related setup for QXCURL_GET_NEW_TOKEN session type";
  } else if (sessionType == QXCURL_USE_TPCA_CERT) {
    QXLOG(QXLOG_PROGRESS, tag) << "Done Curl related setup for QXCURL_USE_TPCA_CERT session type";
  }

  m_connectionsDisabled = qxcurl_bpconf_keyvalue_state("DISABLE_QXCURL_CONNECTIONS", false);
  m_preferredNetworksDisabled =
      qxcurl_bpconf_keyvalue_state("DISABLE_QXCURL_PREFERRED_NETWORKS", false);
  m_tunnelRouter = new QXWebsvcTunnelRouter();
  m_connector =
      new qxclnt_curl_prefnet(m_connectHost, static_cast<unsigned>(port), CONNECTOR_TIMEOUT);
  m_connectorTimeout = CONNECTOR_TIMEOUT;
  m_retrying = false;
  m_retryCount = 0;
  if (m_connectionTimeout == 0) {
    m_connectionTimeout = m_tunnelRouter->getWebServerConnectTimeout();
    if (m_connectionTimeout == 0) m_connectionTimeout = qxretry::kDefaultWindowSec;
  }
  m_triedTunnels.clear();
  if (tokenManager != nullptr) m_ownsTokenManager = ownsTokenManager;
}

QXClientCURL::~QXClientCURL() = default;

// Runs when the client goes, and also when its constructor throws half way
// (declared last, it is destroyed first, while every other member is alive).
QXClientCURL::Releaser::~Releaser() {
  curl_slist_free_all(c.m_headerList);
  c.m_headerList = nullptr;
  curl_slist_free_all(c.m_resolveList);
  c.m_resolveList = nullptr;
  if (c.m_curlHandle != nullptr) {
    QXLOG(QXLOG_PROGRESS, "QXClientCURL::~QXClientCURL") << "Performing curl_easy_cleanup()";
    curl_easy_cleanup(c.m_curlHandle);
    c.m_curlHandle = nullptr;
  }
  if (c.m_ownsTokenManager) delete c.m_tokenManager;
  c.m_tokenManager = nullptr;
  delete c.m_tunnelRouter;
  c.m_tunnelRouter = nullptr;
  // A socket the exchange connected and libcurl never took is still ours.
  if (c.m_connector != nullptr && c.m_pbxSocket >= 0) c.m_connector->reset(true);
  delete c.m_connector;
  c.m_connector = nullptr;
}

// TLS parameters by session type.
int QXClientCURL::applySessionTLSParams() {
  caLoadType lt = loadTypeFor(m_caType);
  switch (m_sessionType) {
    case QXCURL_INSECURE:
      QXLOG(QXLOG_PROGRESS, "QXClientCURL::QXClientCURL") << "QXCURL Insecure requested";
      return setCurlTLSParams(lt, false, lt == CA_LOAD_CONFIGURED ? m_skipPKIInfo : false);
    case QXCURL_USE_TOKEN:
    case QXCURL_GET_NEW_TOKEN:
      return setCurlTLSParams(lt, false, false);
    case QXCURL_USE_TPCA_CERT:
      return setCurlTLSParams(CA_LOAD_FORCE_ECA, true, m_skipPKIInfo);
  }
  return QX_ERR_BAD_ARGUMENT;
}

// Options every fresh (or reset) handle carries; a failure is a warning and
// construction goes on.
void QXClientCURL::applyHandleDefaults() {
  setCurlOptionLogged(CURLOPT_ERRORBUFFER, static_cast<void*>(m_errorBuffer), "CURLOPT_ERRORBUFFER",
                      QXLOG_DETAIL);
  setCurlOptionLogged(CURLOPT_HEADER, 0L, "CURLOPT_HEADER", QXLOG_DETAIL);
  setCurlOptionLogged(CURLOPT_FOLLOWLOCATION, 1L, "CURLOPT_FOLLOWLOCATION", QXLOG_DETAIL);
  // A redirect may not leave TLS: the request (a login's password, a token
  // for the same host) would follow it in the clear.
  setCurlOptionLogged(CURLOPT_REDIR_PROTOCOLS_STR, "https", "CURLOPT_REDIR_PROTOCOLS_STR",
                      QXLOG_DETAIL);
  setCurlCallbackForHeaderAndData();
  applyDefaultHeaders();
  QXLOG(QXLOG_PROGRESS, "QXClientCURL::QXClientCURL")
      << "Disabling any proxy option set in the environment.";
  setCurlOptionLogged(CURLOPT_PROXY, "", "CURLOPT_PROXY", QXLOG_DETAIL);
  // Nor may the environment's no_proxy take a host out of a configured
  // tunnel; libcurl would also read it on every request.
  setCurlOptionLogged(CURLOPT_NOPROXY, "", "CURLOPT_NOPROXY", QXLOG_DETAIL);
  setCurlOptionLogged(CURLOPT_CERTINFO, 1L, "CURLOPT_CERTINFO", QXLOG_DETAIL);
}

void QXClientCURL::applyTimeoutDefaults() {
  QXLOG(QXLOG_PROGRESS, "QXClientCURL::QXClientCURL")
      << "Setting default CURL timeout = [" << DEFAULT_OPERATION_TIMEOUT << "] seconds";
  setCurlOptionLogged(CURLOPT_TIMEOUT, DEFAULT_OPERATION_TIMEOUT, "CURLOPT_TIMEOUT", QXLOG_DETAIL);
  QXLOG(QXLOG_PROGRESS, "QXClientCURL::QXClientCURL") << "Disable signal during name resolution.";
  setCurlOptionLogged(CURLOPT_NOSIGNAL, 1L, "CURLOPT_NOSIGNAL", QXLOG_DETAIL);
}

void QXClientCURL::applyDefaultHeaders() {
  curl_slist_free_all(m_headerList);
  m_headerList = nullptr;
  addHeaderField("Accept: ", QX_MEDIA_TYPE_VERSION);
  addHeaderField("Content-Type: ", QX_MEDIA_TYPE_VERSION);
  addHeaderField(QX_HEADER_X_CLIENT_ID, m_clientId);
  if (m_locale.size() < 2) {
    QXLOG(QXLOG_PROGRESS, "QXClientCURL::QXClientCURL") << "Skipping local setting";
  } else {
    std::string lang = m_locale.substr(0, 2);
    addHeaderField("Accept-Language: ", lang);
    QXLOG(QXLOG_PROGRESS, "QXClientCURL::QXClientCURL") << "Setting locale to : " << lang;
  }
}

int QXClientCURL::setCurlOptionLogged(CURLoption option, long value, const char* name, int level) {
  return qxSetCurlOption(*this, option, value, name, level, "QXClientCURL::setCurlOption");
}

int QXClientCURL::setCurlOptionLogged(CURLoption option, const char* value, const char* name,
                                      int level) {
  return qxSetCurlOption(*this, option, value, name, level, "QXClientCURL::setCurlOption");
}

int QXClientCURL::setCurlOptionLogged(CURLoption option, void* value, const char* name, int level) {
  return qxSetCurlOption(*this, option, value, name, level, "QXClientCURL::setCurlOption");
}

// ---- process-wide set-up ----

void QXClientCURL::initGlobalCurl() {
  std::lock_guard<std::mutex> guard(g_globalInitMutex);
  if (gAppControlledInitCleanup) return;
  CURLcode rc = curl_global_init(CURL_GLOBAL_ALL);
  if (rc != CURLE_OK) {
    QXLOG(QXLOG_ERROR, "QXClientCURL::initGlobalCurl")
        << "Failed to initialize the connection, " << curl_easy_strerror(rc);
    throw QX_ERR_CURL_INIT;
  }
  QXLOG(QXLOG_PROGRESS, "QXClientCURL::initGlobalCurl") << "Curl initialized successfully.";
  gAppControlledInitCleanup = true;
}

void QXClientCURL::cleanupGlobalCurl() {
  std::lock_guard<std::mutex> guard(g_globalInitMutex);
  curl_global_cleanup();
  gAppControlledInitCleanup = false;
}

QXClientCURLEnv::QXClientCURLEnv(bool initTLS) : m_initTLS(initTLS) {
  if (m_initTLS) OPENSSL_init_ssl(0, nullptr);
  try {
    QXClientCURL::initGlobalCurl();
  } catch (int) {
    // Logged by initGlobalCurl; the first client retries and reports it.
  }
}

// OpenSSL 3 finalises itself at process exit; an explicit OPENSSL_cleanup here
// would make any later TLS use in the process fail.
QXClientCURLEnv::~QXClientCURLEnv() { QXClientCURL::cleanupGlobalCurl(); }

// ---- factory ----

QXClientCURLFactory::QXClientCURLFactory(cert_type certType) : m_certType(certType) {}

QXClientCURLFactory::QXClientCURLFactory(const std::string& installPath,
                                         const std::list<std::string>& tunnelServers)
    : m_certType(CERT_TYPE_HOST), m_installPath(installPath), m_tunnelServers(tunnelServers) {}

QXClientCURL_Base* QXClientCURLFactory::generateCURL(const std::string& server, int port,
                                                     QXCurlSessionType sessionType) {
  try {
    QXClientCURL* client =
        new QXClientCURL(server, port, m_certType, sessionType, nullptr, m_installPath, true, false,
                         false, "", "", "", "", "", "", false, false, "", 0);
    client->setAdditionalTunnelServers(m_tunnelServers);
    return client;
  } catch (int status) {
    QXLOG(QXLOG_ERROR, "QXClientCURLFactory::generateCURL")
        << "Failed to create client, status = [" << status << "]";
    return nullptr;
  }
}

// ---- configuration ----

bool QXClientCURL::qxcurl_bpconf_keyvalue_state(const char* key, bool dflt) {
  const char* tag = "QXClientCURL::qxcurl_bpconf_keyvalue_state";
  int rc = QX_read_master_config();
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Master config read failed with error: " << rc;
    return dflt;
  }
  bool value = dflt;
  if (bpconfGetKeyValPairAsBool(get_master_config_ptr(), key, &value) != 0) value = dflt;
  QXLOG(QXLOG_PROGRESS, tag) << key << (value ? " is set" : " is not set");
  return value;
}

// ---- simple setters ----

int QXClientCURL::setupURL(const std::string& url) {
  m_server_url = url;
  QXLOG(QXLOG_PROGRESS, "QXClientCURL::setupURL") << "m_server_url = [" << url << "]";
  return 0;
}

int QXClientCURL::setConnectTimeout(long seconds) {
  // The preferred-network connector dials for libcurl: it keeps the same bound.
  if (seconds > 0) m_connectorTimeout = seconds;
  m_connectTimeoutSec = seconds;
  return setCurlOptionLogged(CURLOPT_CONNECTTIMEOUT, seconds, "CURLOPT_CONNECTTIMEOUT");
}

int QXClientCURL::setupCurlOperationTimeout(long seconds) {
  QXLOG(QXLOG_PROGRESS, "QXClientCURL::setupCurlOperationTimeout")
      << "Setting CURL timeout = [" << seconds << "] seconds";
  m_operationTimeoutSec = seconds;
  return setCurlOptionLogged(CURLOPT_TIMEOUT, seconds, "CURLOPT_TIMEOUT");
}

int QXClientCURL::setConnectRetryTimeout(int64_t seconds) {
  m_connectionTimeout = seconds;
  return 0;
}

// ---- request headers ----

int QXClientCURL::addHeaderField(const std::string& name, const std::string& value) {
  if (findHeaderField(name)) deleteHeaderField(name);
  std::string line = name + value;
  curl_slist* list = curl_slist_append(m_headerList, line.c_str());
  if (list == nullptr) {
    QXLOG(QXLOG_ERROR, "QXClientCURL::addHeaderField") << "Unable to add header line";
    return QX_ERR_NO_MEMORY;
  }
  m_headerList = list;
  return 0;
}

bool QXClientCURL::findHeaderField(const std::string& name) {
  for (curl_slist* p = m_headerList; p != nullptr; p = p->next) {
    if (p->data != nullptr && std::strstr(p->data, name.c_str()) != nullptr) return true;
  }
  return false;
}

// Same substring rule as findHeaderField, so that whatever find reports is
// what delete removes.
int QXClientCURL::deleteHeaderField(const std::string& name) {
  curl_slist* kept = nullptr;
  for (curl_slist* p = m_headerList; p != nullptr; p = p->next) {
    if (p->data == nullptr || std::strstr(p->data, name.c_str()) != nullptr) continue;
    curl_slist* next = curl_slist_append(kept, p->data);
    if (next == nullptr) {
      curl_slist_free_all(kept);
      return QX_ERR_NO_MEMORY;
    }
    kept = next;
  }
  curl_slist_free_all(m_headerList);
  m_headerList = kept;
  return 0;
}

int QXClientCURL::getHTTPRequestHeader(const std::string& name, std::string& value) {
  for (curl_slist* p = m_headerList; p != nullptr; p = p->next) {
    if (p->data == nullptr || std::strstr(p->data, name.c_str()) == nullptr) continue;
    std::string line = p->data;
    size_t colon = line.find(':');
    value = colon == std::string::npos ? std::string() : trim(line.substr(colon + 1));
    return 0;
  }
  value.clear();
  return QX_ERR_HEADER_FIELD;
}

int QXClientCURL::setupAcceptCurlOption(const std::string& value) {
  std::string line = "Accept: " + value;
  // Callers sometimes pass the whole line.
  if (value.compare(0, 8, "Accept: ") == 0) line = value;
  curl_slist* list = curl_slist_append(m_headerList, line.c_str());
  if (list == nullptr) return QX_ERR_NO_MEMORY;
  m_headerList = list;
  return 0;
}

int QXClientCURL::setPostOptions(const std::string& payload) {
  QXLOG(QXLOG_PROGRESS, "QXClientCURL::setPostOptions") << "setting curl post options ...";
  m_methodChanged = true;
  int rc = setCurlOptionLogged(CURLOPT_CUSTOMREQUEST, "POST", "CURLOPT_CUSTOMREQUEST");
  if (rc != 0) return rc;
  m_customRequest = true;
  rc = setCurlOptionLogged(CURLOPT_POST, 1L, "CURLOPT_POST");
  if (rc != 0) return rc;
  rc = setCurlOptionLogged(CURLOPT_POSTFIELDSIZE, static_cast<long>(payload.size()),
                           "CURLOPT_POSTFIELDSIZE");
  if (rc != 0) return rc;
  return setCurlOptionLogged(CURLOPT_COPYPOSTFIELDS, payload.c_str(), "CURLOPT_COPYPOSTFIELDS");
}

int QXClientCURL::setHeaderWithToken(const std::string& token) {
  deleteHeaderField("Authorization:");
  addHeaderField("Authorization: ", (m_useBearer ? "Bearer " : "") + token);
  int rc = setCurlOptionLogged(CURLOPT_HTTPHEADER, static_cast<void*>(m_headerList),
                               "CURLOPT_HTTPHEADER");
  if (rc == 0) m_headersOnHandle = m_headerList;
  return rc;
}

// ---- callbacks ----

size_t QXClientCURL::write_data(void* ptr, size_t size, size_t nmemb, void* userData) {
  size_t n = size * nmemb;
  if (userData != nullptr && n > 0)
    static_cast<std::string*>(userData)->append(static_cast<const char*>(ptr), n);
  return n;
}

size_t QXClientCURL::write_header(char* ptr, size_t size, size_t nmemb, void* userData) {
  return write_data(ptr, size, nmemb, userData);
}

int QXClientCURL::setCurlCallbackForHeaderAndData() {
  int rc = setCurlOptionLogged(CURLOPT_WRITEFUNCTION, reinterpret_cast<void*>(&write_data),
                               "CURLOPT_WRITEFUNCTION", QXLOG_DETAIL);
  int rc2 = setCurlOptionLogged(CURLOPT_WRITEDATA, static_cast<void*>(&m_responseBody),
                                "CURLOPT_WRITEDATA", QXLOG_DETAIL);
  int rc3 = setCurlOptionLogged(CURLOPT_HEADERFUNCTION, reinterpret_cast<void*>(&write_header),
                                "CURLOPT_HEADERFUNCTION", QXLOG_DETAIL);
  int rc4 = setCurlOptionLogged(CURLOPT_HEADERDATA, static_cast<void*>(&m_responseHeaders),
                                "CURLOPT_HEADERDATA", QXLOG_DETAIL);
  setCurlOptionLogged(CURLOPT_MAXFILESIZE_LARGE, MAX_BUFFERED_RESPONSE, "CURLOPT_MAXFILESIZE_LARGE",
                      QXLOG_DETAIL);
  return rc ? rc : rc2 ? rc2 : rc3 ? rc3 : rc4;
}

int QXClientCURL::setWriteDataFunction(curl_write_callback callback, void* userData) {
  int rc = setCurlOptionLogged(CURLOPT_WRITEFUNCTION, reinterpret_cast<void*>(callback),
                               "CURLOPT_WRITEFUNCTION");
  if (rc != 0) return rc;
  // The caller streams the body itself: no cap.
  setCurlOptionLogged(CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(0),
                      "CURLOPT_MAXFILESIZE_LARGE");
  return setCurlOptionLogged(CURLOPT_WRITEDATA, userData, "CURLOPT_WRITEDATA");
}

int QXClientCURL::resetCurl() {
  if (m_curlHandle == nullptr) {
    QXLOG(QXLOG_ERROR, "QXClientCURL::resetCurl") << "Curl initialization failed ...";
    return QX_ERR_CURL_INIT;
  }
  QXConfigSnapshot config;
  curl_easy_reset(m_curlHandle);
  m_customRequest = false;
  m_methodChanged = false;
  m_handleUrl.clear();
  m_headersOnHandle = nullptr;
  m_socketCallbacksInstalled = false;
  // The reset dropped the TLS session share too: attach it again below.
  m_tlsShare = nullptr;
  m_tlsShareKey.clear();
  // The header list is kept (it carries the negotiated version and token);
  // only the handle options go back to the constructor's.
  curl_slist* headers = m_headerList;
  m_headerList = nullptr;
  applyHandleDefaults();
  applyTimeoutDefaults();
  curl_slist_free_all(m_headerList);
  m_headerList = headers;
  if (qxcurl_bpconf_keyvalue_state("ENABLE_QXCURL_VERBOSE", false)) setCurlVerbose();
  applySessionTLSParams();
  if (m_operationTimeoutSec >= 0)
    setCurlOptionLogged(CURLOPT_TIMEOUT, m_operationTimeoutSec, "CURLOPT_TIMEOUT");
  if (m_connectTimeoutSec >= 0)
    setCurlOptionLogged(CURLOPT_CONNECTTIMEOUT, m_connectTimeoutSec, "CURLOPT_CONNECTTIMEOUT");
  if (m_callerVerifyPeer >= 0)
    setCurlOptionLogged(CURLOPT_SSL_VERIFYPEER, m_callerVerifyPeer, "CURLOPT_SSL_VERIFYPEER");
  if (m_callerVerifyHost >= 0)
    setCurlOptionLogged(CURLOPT_SSL_VERIFYHOST, m_callerVerifyHost, "CURLOPT_SSL_VERIFYHOST");
  return 0;
}
