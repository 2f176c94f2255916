// QXClientCURL: the synchronous HTTPS client of the master server's web
// service. One object wraps one libcurl handle bound to one server and port;
// each verb builds the request, chooses and checks TLS trust, attaches the
// authorisation token, routes through tunnels and the preferred-network
// rules, retries inside the connection-retry window and returns one of the
// product's statuses (qx_status.h). The HTTP code and the body stay on the
// object until the next request.
//
//   QXClientCURL c("master1", 1556, CERT_TYPE_HOST, QXCURL_USE_TOKEN);
//   int rc = c.Get(HOSTS_URI);
//   if (rc == 0 && c.getHttpCode() == 200) use(c.getResponseBody());
//   else fprintf(stderr, "%d: %s\n", rc, getECmsg(rc));
//
// Ownership: the caller owns the client; the client owns its handle, header
// and resolve lists, tunnel router and connector, and the token manager only
// when it created it or ownsTokenManager was true. A client is used by one
// thread at a time. Constructors throw an int status (20, 103); no other
// operation throws. Members documented as test seams (T_..., mock...) are
// for the project's tests, not part of the interface.
#ifndef QXCURL_QXCLNT_CURL_H
#define QXCURL_QXCLNT_CURL_H
#include <curl/curl.h>
#include <openssl/types.h>

#include <cstdint>
#include <ctime>
#include <list>
#include <queue>
#include <string>
#include <vector>

#include "qxcurl/qx_status.h"
#include "qxcurl/qx_types.h"
#include "qxcurl/qxclnt_curl_constants.h"
#include "qxcurl/qxcurl_export.h"
#include "qxcurl/token_manager_base.h"

struct host_cert_data;
class QXWebsvcTunnelRouter;
class qxclnt_curl_prefnet;

// Which credentials a client presents.
enum QXCurlSessionType {
  QXCURL_INSECURE = 0,
  QXCURL_USE_TOKEN = 1,
  QXCURL_GET_NEW_TOKEN = 2,
  QXCURL_USE_TPCA_CERT = 3,
};

// How GetWithCache uses the cache of web-service results.
enum cache_usage_decision {
  CACHE_USAGE_NONE = 0,           // neither consulted nor updated
  CACHE_USAGE_READ_UPDATE = 1,    // consult, then update after a fresh answer
  CACHE_USAGE_UPDATE_ONLY = 2,    // always ask the server, then update
  CACHE_USAGE_SECURE_READ = 3,    // like 1, body kept in the secure store
  CACHE_USAGE_SECURE_UPDATE = 4,  // like 2, body kept in the secure store
};

// What a cached body is: JSON as it is, or plain text wrapped into JSON.
enum WebSvcResponseType {
  WEBSVC_RESPONSE_JSON = 0,
  WEBSVC_RESPONSE_STRING = 1,
};

// One entry of the cache of web-service results, as listCachedResults shows it.
struct QXCachedResult {
  std::string key;        // the request path
  long long stored = 0;   // seconds since the epoch
  long long expires = 0;  // seconds since the epoch
  size_t size = 0;        // bytes kept
};

// ---- TLS trust and PKI ----
// How the CA type of a connection is chosen.
enum caLoadType {
  CA_LOAD_CONFIGURED = 0,
  CA_LOAD_FORCE_QXCA = 1,
  CA_LOAD_FORCE_ECA = 2,
};

// Fixed trust-store path for a certificate type (under the install root).
QX_API std::string getCAFilePath(cert_type certType);

// Revocation verdicts already known for a peer chain, so that a handshake
// can skip the CRL check (the asynchronous client keeps one).
// Polymorphic, with its destructor out of line to anchor the type in the
// library; the members copy safely.
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions)
class QX_API QXRevocationCache {
 public:
  virtual ~QXRevocationCache();
  // 0 when chainPem is known; isRevoked then holds the verdict.
  virtual int lookup(const std::string& chainPem, bool& isRevoked) = 0;
};
// ---- end TLS trust and PKI ----

// Abstract request interface; the slot order is part of the ABI.
// Polymorphic, with its destructor out of line to anchor the type in the
// library; the members copy safely.
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions)
class QX_API QXClientCURL_Base {
 public:
  virtual ~QXClientCURL_Base();
  virtual int Put(const std::string& path, const std::string& payload) = 0;
  virtual int Post(const std::string& path, const std::string& payload) = 0;
  virtual int PostMultipartFile(const std::string& path, const std::string& localfile,
                                const std::string& remotefile, const std::string& type) = 0;
  virtual int Patch(const std::string& path, const std::string& payload) = 0;
  virtual int Get(const std::string& path) = 0;
  virtual int Delete(const std::string& path) = 0;
  virtual int addHeaderField(const std::string& name, const std::string& value) = 0;
  virtual int deleteHeaderField(const std::string& name) = 0;
  virtual int setupURL(const std::string& url) = 0;
  virtual int setSkipPeerHostVerification() = 0;
  virtual int setJsonMediaTypeAPIVersion(const std::string& version) = 0;
};

// Polymorphic, with its destructor out of line to anchor the type in the
// library; the members copy safely.
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions)
class QX_API QXClientCURL_BaseFactory {
 public:
  virtual ~QXClientCURL_BaseFactory();
  // A new client the caller owns; throws nothing (null on a bad argument).
  virtual QXClientCURL_Base* generateCURL(const std::string& server, int port,
                                          QXCurlSessionType sessionType) = 0;
};

class QX_API QXClientCURL : public QXClientCURL_Base {
 public:
  // Throws an int status: 20 for a bad argument, 103 when libcurl cannot be
  // initialised. A supplied token manager becomes the client's (when
  // ownsTokenManager) only once construction succeeds.
  QXClientCURL(const std::string& server, int port, cert_type certType,
               QXCurlSessionType sessionType, TokenManager_Base* tokenManager = nullptr,
               const std::string& installPath = "", bool tunnelAllowed = true,
               bool routeOnServer = false, bool ownsTokenManager = false,
               const std::string& caType = "", const std::string& trustStorePath = "",
               const std::string& keyPath = "", const std::string& certPath = "",
               const std::string& passphrase = "", const std::string& crlPath = "",
               bool skipPKIInfo = false, const bool& skipTrustProcessing = false,
               const std::string& locale = "", int reserved = 0);
  ~QXClientCURL() override;
  QXClientCURL(const QXClientCURL&) = delete;
  QXClientCURL& operator=(const QXClientCURL&) = delete;

  // ---- verbs ----
  // Each sends one request to m_server_url + path and returns 0 when an HTTP
  // answer arrived (read getHttpCode(); a 503 returns its error body's code,
  // or 8625), otherwise the failure's status: 20 missing argument or empty
  // payload, 47 connections disabled, 5930 no token, 85xx/93xx transport and
  // TLS failures (qx_status.h). Put and Patch send the caller's bytes (the
  // string must live through the call); Post copies them with line ends
  // written as \n and \r.
  int Put(const std::string& path, const std::string& payload) override;
  int Post(const std::string& path, const std::string& payload) override;
  int PostMultipartFile(const std::string& path, const std::string& localfile,
                        const std::string& remotefile, const std::string& type) override;
  int Patch(const std::string& path, const std::string& payload) override;
  int Get(const std::string& path) override;
  int Delete(const std::string& path) override;
  // Get through the host's cache of web-service results (decision 0-4). A
  // cache failure never fails the request; the status is the request's.
  int GetWithCache(cache_usage_decision decision, const std::string& path, WebSvcResponseType type,
                   int defaultTtl);
  void mockCacheTTL(int ttl);  // test seam: the next answers' time to live
  // True when the last GetWithCache was answered from the cache.
  bool isServedFromCache() const { return m_servedFromCache; }
  // The cached results of this client's server and port (expired ones
  // included), and their removal. 0, or a status.
  int listCachedResults(std::vector<QXCachedResult>& entries);
  int clearCachedResults(int* removed);

  // ---- options and request headers ----
  // Setters return 0 or the status a refused libcurl option maps to; header
  // names are passed with their ": " ("Accept: "), values are copied.
  int setupURL(const std::string& url) override;
  int setConnectTimeout(long seconds);
  int setupCurlOperationTimeout(long seconds);
  int setConnectRetryTimeout(int64_t seconds);
  int addHeaderField(const std::string& name, const std::string& value) override;
  int deleteHeaderField(const std::string& name) override;
  bool findHeaderField(const std::string& name);
  int getHTTPRequestHeader(const std::string& name, std::string& value);
  int setPostOptions(const std::string& payload);
  int setHeaderWithToken(const std::string& token);
  int setCurlCallbackForHeaderAndData();
  int setWriteDataFunction(curl_write_callback callback, void* userData);
  // Back to the constructor's options, keeping the request headers and what
  // the caller set since (time-outs, verification switches).
  int resetCurl();
  bool isTokenRefreshed() const { return m_tokenRefreshed; }
  int encodeUriString(const std::string& in, std::string& out);  // 11 when libcurl fails
  int refreshToken();                                            // 5930 when no token comes

  // Process-wide libcurl set-up; initGlobalCurl throws 103 on failure.
  static void initGlobalCurl();
  static void cleanupGlobalCurl();

  // ---- request execution and connection retry ----
  // performOperation: the whole road of one request (direct, retries,
  // tunnels); performCurlOperation: one attempt. Both return statuses as the
  // verbs do. The rest are the retry window's steps, public for the tests.
  int performOperation();
  int performCurlOperation();
  int decideNextConnectRetryAction(int status, bool tunnelUsed);
  int startConnectionRetries();
  int stopConnectionRetries();
  bool isConnectionRetryWindowOver();
  int getNextConnectionRetryTime();
  void populateTimerQueue(int seconds);
  void generateRandomSleep(int count, int interval);
  void mockTimerQueue(const std::queue<int>& sleeps) { m_retryTimerQueue = sleeps; }

  // ---- response headers and API versions ----
  // getHttpHeaderField: 0, 20 empty name, 227 absent or malformed, 7610
  // unterminated quote. getServerAPIVersion: a GET of arvion/ping, then 227
  // when the server names no version.
  int getHttpHeaderField(const std::string& field, std::string& value);
  int getRequestTypeFromUrlPath(const std::string& path);
  int getServerAPIVersion(std::string& version);
  int setClientRequestHeaderAsPerServerVersion();
  int setJsonMediaTypeAPIVersion(const std::string& version) override;
  int setupAcceptCurlOption(const std::string& value);
  int getCacheTTLFromAPIHeader();

  // ---- status mapping ----
  // libcurl's last result (m_curlError) as the product's status; 8509 fills
  // the names getExtendedErrorInfo hands out (copied into the caller's vector).
  int mapCurlError();
  int mapCurlPeerFailedVerification();
  bool getExtendedErrorInfo(int status, std::vector<std::string>* names);
  int makeJsonResponseFromString(std::string& out);
  int makeStringResponseFromJson();

  // ---- debug trace ----
  // The wire trace to the product log, header values and credentials masked.
  int setCurlVerbose();
  // A traced body's credential value that runs on into the next chunk
  // (received, sent): its rest is masked too.
  bool m_traceInSecret[2] = {false, false};
  static int curl_debug_logger(CURL* handle, curl_infotype type, char* data, size_t size,
                               void* userp);

  // Yes/no key of the master configuration; dflt when it cannot be read.
  bool qxcurl_bpconf_keyvalue_state(const char* key, bool dflt);

  // ---- tunnels ----
  // Option setters return 0 or a mapped libcurl status; the router keeps its
  // own copy of the additional servers.
  bool isHttpTunnelAllowed();
  int enableHttpTunnelUse();
  int disableHttpTunnelUse();
  int setAdditionalTunnelServers(std::list<std::string>& servers);
  int enableTunnelOptions(std::string tunnel);
  int disableTunnelOptions();
  int setorResetTunnelOptions(std::string tunnel);
  bool isTunnelAlreadyTried(std::string tunnel);
  // UUID of master in the host's certificate map (own CA); uuid is left
  // empty when there is none. 20 for an empty master.
  int getMasterHostUuid(const std::string& master, std::string& uuid);
  // After an answer through a tunnel: whether the tunnel's "X-Target-Master-ID"
  // (else "X-Target-Master") names this client's master.
  bool isTunnelConnectedToRightMaster();
  // The tunnel that carried the last attempt of the last operation
  // (empty: a direct connection).
  const std::string& getTunnelUsed() const { return m_tunnelUsed; }

  // ---- preferred-network connection ----
  // libcurl's open-socket and socket-option callbacks: libcurl gets the
  // connector's socket, already connected, and never dials by itself.
  static curl_socket_t qxcurl_opensocket_cb(void* client, curlsocktype purpose,
                                            struct curl_sockaddr* address);
  static int qxcurl_sockoptfunc_cb(void* client, curl_socket_t socket, curlsocktype purpose);
  int setCurlSocketCb();
  // Pins libcurl's resolution of the server to entry; an empty entry pins it
  // to an address nothing answers on.
  int resetCurlResolver(const std::string& entry);
  // Connects the next transfer's socket under the preferred-network rules,
  // unless libcurl will reuse its live connection. Always 0.
  int connectToPBXExchange();
  // The exchange in two halves, for callers that wait for the connector
  // themselves. preparePBXExchange: 1 when libcurl's kept connection will
  // carry the transfer (kept: -1 ask libcurl now, 0 no, 1 yes), 0 when the
  // connector is ready to dial. finishPBXExchange: hands the connector's
  // socket to libcurl (rc 0), or pins libcurl to an unreachable address.
  int preparePBXExchange(int kept);
  void finishPBXExchange(int rc);
  // Whether libcurl will reuse its kept connection for the next transfer to
  // where the exchange would dial. Ask before the handle leaves a multi
  // handle: libcurl forgets the connection then.
  bool pbxKeptConnectionUsable();

  // ---- results ----
  int64_t getHttpCode() const { return m_httpCode; }
  const std::string& getResponseBody() const { return m_responseBody; }
  const std::string& getResponseHeaders() const { return m_responseHeaders; }

  // ---- callbacks ----
  static size_t write_data(void* ptr, size_t size, size_t nmemb, void* userData);
  static size_t write_header(char* ptr, size_t size, size_t nmemb, void* userData);

  // ---- test seams (for the project's tests; not part of the interface) ----
  // Every transfer goes through T_curl_easy_perform; null restores libcurl.
  static void T_setCurlEasyPerformer(CURLcode (*performer)(CURL*));
  static CURLcode T_curl_easy_perform(CURL* handle);
  // Sleeps and clock readings of the retry logic; null restores the system's.
  static void T_setTsleep(unsigned (*sleeper)(unsigned));
  static void T_setTimeSource(time_t (*now)(time_t*));
  static unsigned T_sleep(unsigned seconds);
  static time_t T_time();

  // ---- TLS trust and PKI ----
  // Paths are copied; the client never takes ownership of a file. Statuses:
  // 0; 20 invalid load type or mutual authentication without certificate and
  // key; 12 a caller's path that does not exist (setCustomCAPath, setupCAPath);
  // 114 / 8762 passphrase file unreadable / empty; -1 from populatePKIArtifacts
  // for a configured artifact that is missing; else a mapped libcurl status.
  int getCATypeToUse(const caLoadType& loadType, unsigned short port, ca_usage& out,
                     host_cert_data* artifacts);
  int populatePKIArtifacts(const ca_usage& usage, const host_cert_data& artifacts,
                           bool forMutualAuth);
  int setFSPKIArtifacts(const ca_usage& usage, bool forMutualAuth);
  int setCurlTLSParams(caLoadType reqCAType, bool forMutualAuth, bool skipPKIInfo);
  int setupHostCertCurlOption();
  int setupHostCertCurlOptionByCAType();
  int setAssortedCurlPKIParams(const caLoadType& loadType, const std::string& trustStore,
                               bool forMutualAuth, const std::string& crlPath,
                               const std::string& certPath, const std::string& keyPath,
                               const std::string& passphrase, const std::string& passphraseFile);
  int setupCAPath();
  int setCustomCAPath(const std::string& caPath, const std::string& caType);
  int setCustomSecurityCreds(const std::string& caCertPath, const std::string& keyPath,
                             const std::string& certPath, const std::string& passphrase,
                             const std::string& crlPath);
  int getTrustStorePath(std::string& path);
  int getTrustedCert(std::string& cert);
  int setTrustedCertInMemory(std::string path);
  int loadPassphraseFromFile(const std::string& path, std::string& passphrase);
  void setApplianceConnection(bool isAppliance, const std::string& caCertFilePath);
  int setupCAInfoToNULL();
  int setSkipPeerHostVerification() override;
  int setSkipPeerVerification();
  int setSkipHostVerification();
  int setPeerAndHostVerification();
  int setContextFunction(CURLcode (*fn)(CURL*, SSL_CTX*, void*), void* data);

  void DisableCrlCheck();
  void setSkipCRLDownload();
  void allowConnectionWithFailedCRLCheck();
  bool getServerCertInfo(curl_certinfo** certInfo);
  bool getSSLVerifyResult(long* result);
  int extractPeerCertSAN(std::list<std::string>& names);

  std::string m_CACertPath;         // trust store (CA bundle) file
  std::string m_certPath;           // host X.509 certificate
  std::string m_keyPath;            // host private key
  std::string m_passphrase;         // private key passphrase (text, never logged)
  std::string m_crlPath;            // caller-supplied CRL file
  std::string m_trustedCert;        // trust store contents, read into memory
  std::string m_trustedCertSource;  // which file (and version of it) m_trustedCert holds
  ca_usage m_caUsage = CA_USAGE_QXCA;
  std::string m_sniName;  // "QXCA", "ECA" or empty
  bool m_isApplianceConnection = false;
  bool m_peerVerificationFlag = true;
  unsigned int m_crlCheckLevel = 1;
  bool m_crlDownload = true;
  bool m_allowFailedCrlCheck = false;
  int m_sslCtxErrorCode = 0;                       // 8787 when the TLS context refused the key
  QXRevocationCache* m_revocationCache = nullptr;  // not owned; set by the async client
  CURLSH* m_tlsShare = nullptr;  // process-wide TLS session share the handle is on
  std::string m_tlsShareKey;     // which one (empty: none)
  // ---- end TLS trust and PKI ----

  // ---- state ----
  int64_t m_httpCode = 0;
  std::string m_responseBody;
  std::string m_server_url;
  std::string m_requestPath;
  CURL* m_curlHandle = nullptr;
  char m_errorBuffer[CURL_ERROR_SIZE];
  struct curl_slist* m_headerList = nullptr;
  int m_curlError = 0;
  QXCurlSessionType m_sessionType;
  TokenManager_Base* m_tokenManager = nullptr;
  bool m_ownsTokenManager = false;
  bool m_tokenRefreshed = false;
  std::string m_server;
  cert_type m_certType;
  std::string m_responseHeaders;
  std::vector<std::string> m_extendedErrors;
  bool m_connectionsDisabled = false;
  int64_t m_connectionTimeout = 0;
  bool m_preferredNetworksDisabled = false;
  bool m_tunnelAllowed = true;
  QXWebsvcTunnelRouter* m_tunnelRouter = nullptr;
  std::list<std::string> m_triedTunnels;
  std::string m_tunnelName;
  std::string m_tunnelUsed;
  bool m_useBearer = false;
  std::string m_connectHost;
  int m_port = 0;
  qxclnt_curl_prefnet* m_connector = nullptr;
  long m_connectorTimeout = 300;
  bool m_socketCallbacksInstalled = false;
  struct curl_slist* m_resolveList = nullptr;
  int m_pbxSocket = -1;      // connected by the exchange, not yet taken by libcurl
  bool m_pbxFailed = false;  // the last exchange found no permitted way to connect
  std::string m_pbxHost;     // where the exchange dials: the server, or the tunnel
  int m_pbxPort = 0;
  unsigned long m_pbxRules = 0;  // generation of the rules the last dial followed
  bool m_routeOnServer = false;
  bool m_retrying = false;
  int m_retryCount = 0;
  time_t m_connection_start_time = 0;
  std::string m_caType;
  std::string m_trustStorePath;
  std::string m_installPath;
  std::queue<int> m_retryTimerQueue;
  std::string m_locale;
  int m_reserved = 0;
  std::string m_clientId;
  bool m_skipPKIInfo = false;
  bool m_customRequest = false;                    // CURLOPT_CUSTOMREQUEST is set on the handle
  bool m_methodChanged = false;                    // a verb other than GET configured the handle
  std::string m_handleUrl;                         // the URL on the handle (reused buffer)
  struct curl_slist* m_headersOnHandle = nullptr;  // the header list the handle holds
  bool m_versionProbe = false;  // the API-version probe never renegotiates itself
  bool m_mockTTL = false;
  int m_mockTTLValue = 0;
  // Scope of this client's entries in the cache of web-service results
  // (server and port); made on first use.
  std::string m_cacheHandle;
  bool m_servedFromCache = false;
  // What the caller set on the handle, so that resetCurl keeps it (-1: not set).
  long m_operationTimeoutSec = -1;
  long m_connectTimeoutSec = -1;
  long m_callerVerifyPeer = -1;
  long m_callerVerifyHost = -1;

  static bool gAppControlledInitCleanup;

 protected:
  void applyHandleDefaults();
  void applyTimeoutDefaults();
  int applySessionTLSParams();
  void applyDefaultHeaders();
  int setUrlForPath(const std::string& path, const char* failText);
  int setBodyOptions(const char* method, const std::string& payload);
  int retryUnderWindow();
  // The tunnel road of performOperation: candidates batch by batch, then the
  // proxy options cleared.
  int performThroughTunnels();
  // A failure is logged at level (8 unless the caller says otherwise), mapped
  // and returned.
  int setCurlOptionLogged(CURLoption option, long value, const char* name, int level = 8);
  int setCurlOptionLogged(CURLoption option, const char* value, const char* name, int level = 8);
  int setCurlOptionLogged(CURLoption option, void* value, const char* name, int level = 8);

 private:
  struct Releaser {
    QXClientCURL& c;
    Releaser(const Releaser&) = delete;
    Releaser& operator=(const Releaser&) = delete;
    ~Releaser();
  };
  Releaser m_releaser{*this};  // keep last
};

class QX_API QXClientCURLFactory : public QXClientCURL_BaseFactory {
 public:
  explicit QXClientCURLFactory(cert_type certType);
  QXClientCURLFactory(const std::string& installPath, const std::list<std::string>& tunnelServers);
  QXClientCURL_Base* generateCURL(const std::string& server, int port,
                                  QXCurlSessionType sessionType) override;

  cert_type m_certType;
  std::string m_installPath;
  std::list<std::string> m_tunnelServers;
};

// Process-wide set-up for programs that want it explicit: create one before
// any thread starts and keep it for the program's life.
class QX_API QXClientCURLEnv {
 public:
  explicit QXClientCURLEnv(bool initTLS = false);
  ~QXClientCURLEnv();
  QXClientCURLEnv(const QXClientCURLEnv&) = delete;
  QXClientCURLEnv& operator=(const QXClientCURLEnv&) = delete;

 private:
  bool m_initTLS;
};

// Percent-encoding without a handle. Encoding "" is refused with 20;
// decoding "" clears out and succeeds. 11 when libcurl fails.
QX_API int percentEncodeUriPart(const std::string& in, std::string& out);
QX_API int percentDecodeUriPart(const std::string& in, std::string& out);
// Product status -> X.509 verification code for the verification callback.
QX_API int getSSLVerifyErrorCode(int status);
#endif  // QXCURL_QXCLNT_CURL_H
