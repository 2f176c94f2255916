// Asynchronous client: one web-service request as a non-blocking state
// machine inside the caller's own event loop, so that one thread can keep
// many requests to masters in flight instead of blocking a thread per request.
//
// Each call advances the request as far as it can without waiting and tells
// the caller what to do next (QXAsyncStatus). The request goes through the
// same phases as a synchronous one: the connection under the
// preferred-network rules, the certificate-login token when none is cached,
// the API-version fetch after a 406 or 415, the request itself, one retry
// with a fresh token after an expired-token answer, retries of 502, 503 and
// failed TLS handshakes inside the retry window, and fail-over from tunnel to
// tunnel.
//
// A select() loop (error handling left out; with several clients, each call
// adds to the same sets and the loop waits for all of them):
//
//   QXClientAsyncCURLFactory factory;
//   std::unique_ptr<QXClientAsyncCURL> c(factory.createClientAsyncCURL(
//       "master1", 1556, "arvion/ping", "", REQTYPE_GET, CERT_TYPE_HOST, QXCURL_USE_TOKEN));
//   fd_set rd, wr, ex;
//   FD_ZERO(&rd); FD_ZERO(&wr); FD_ZERO(&ex);
//   int maxfd = -1;
//   int s = c->performAsyncRequest(rd, wr, ex, maxfd);
//   while (s != ASYNC_COMPLETED && s != ASYNC_FAILED) {
//     if (s == ASYNC_RETRY_WAIT) {
//       sleep(c->getRetrySleepTime());
//     } else if (s == ASYNC_WAIT_FDS) {
//       long ms = c->getAsyncWaitTimeoutMs();
//       timeval tv = {ms / 1000, (ms % 1000) * 1000};
//       select(maxfd + 1, &rd, &wr, &ex, ms < 0 ? nullptr : &tv);
//     }
//     FD_ZERO(&rd); FD_ZERO(&wr); FD_ZERO(&ex);
//     maxfd = -1;
//     s = c->isAsyncOperationCompleted(rd, wr, ex, maxfd);
//   }
//   // c->getQxuErrorCode(), c->getHttpResponseStatusCode(), c->getResponseData()
//
// select() cannot watch a descriptor at or above FD_SETSIZE (1024): a request
// whose socket is that high fails with QX_ERR_BAD_SOCKET instead of writing
// past the caller's fd_set. A service with that many descriptors uses the poll
// interface (performAsyncRequestPoll, isAsyncOperationCompletedPoll), which
// has no such limit and drives the same request.
//
// Threads: a client belongs to one thread at a time; any number of clients
// may share one loop. See docs/async.md.
#ifndef QXCURL_QXCLNT_CURLASYNC_H
#define QXCURL_QXCLNT_CURLASYNC_H
#include <curl/curl.h>
#include <poll.h>
#include <sys/select.h>

#include <ctime>
#include <deque>
#include <list>
#include <string>
#include <vector>

#include "qxcurl/qxclnt_curl.h"
#include "qxcurl/qxcurl_export.h"

class QXWebsvcTunnelIterator;

// What the caller does after performAsyncRequest or isAsyncOperationCompleted.
// A vocabulary of its own: these are not product statuses.
enum QXAsyncStatus {
  ASYNC_COMPLETED = 0,    // finished: read the status, HTTP code and body
  ASYNC_IN_PROGRESS = 1,  // nothing to wait on: call isAsyncOperationCompleted again
  ASYNC_RETRY_WAIT = 2,   // a retry is due: wait getRetrySleepTime() seconds, then call again
  ASYNC_WAIT_FDS = 3,     // wait on the descriptors given, then call again
  ASYNC_FAILED = 4,       // failed: getQxuErrorCode() says why
};

// The request an asynchronous client sends.
enum REQTYPE {
  REQTYPE_GET = 0,
  REQTYPE_POST = 1,  // body sent with line ends escaped, as QXClientCURL::Post does
  REQTYPE_PUT = 2,
  REQTYPE_PATCH = 3,
  REQTYPE_DELETE = 4,
};

// The interface callers hold. The object that implements it is owned by
// whoever created it (a factory's caller) and is destroyed through this
// interface.
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions)
class QX_API AsyncCURL {
 public:
  virtual ~AsyncCURL() = 0;
  // Starts the request: adds what to wait for to the caller's sets (never
  // clears them) and raises maxfd. Returns a QXAsyncStatus.
  virtual int performAsyncRequest(fd_set& read, fd_set& write, fd_set& except, int& maxfd) = 0;
  // Advances it; same sets and results. Once it returned ASYNC_COMPLETED or
  // ASYNC_FAILED, it returns the same again without doing anything.
  virtual int isAsyncOperationCompleted(fd_set& read, fd_set& write, fd_set& except,
                                        int& maxfd) = 0;
  // The product status of the finished request (0 on success).
  virtual int getQxuErrorCode() = 0;
  // The HTTP status of the last answer (0 when none arrived).
  virtual long getHttpResponseStatusCode() = 0;
  // The body of the last answer; valid until the next request or the
  // object's end.
  virtual const std::string& getResponseData() = 0;
};

// Revocation verdicts shared by the asynchronous clients of the process:
// the many connections to one master present the same chain, and each CRL
// check loads every CRL. A verdict is kept for kTtlSec seconds, per chain,
// trust store and CRL settings; a check that could not be decided is not
// kept (the TLS layer then checks and reports as usual).
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions)
class QX_API QXAsyncRevocationCache : public QXRevocationCache {
 public:
  static constexpr int kTtlSec = 60;
  explicit QXAsyncRevocationCache(const QXClientCURL& client) : m_client(client) {}
  int lookup(const std::string& chainPem, bool& isRevoked) override;
  // Forgets every verdict (tests, and a caller that just changed the CRLs).
  static void clear();

 private:
  const QXClientCURL& m_client;
};

// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions)
class QX_API QXClientAsyncCURL : public QXClientCURL, public AsyncCURL {
 public:
  // Throws an int status as QXClientCURL does (QX_ERR_BAD_ARGUMENT,
  // QX_ERR_CURL_INIT), and QX_ERR_NO_MEMORY when libcurl gives no multi
  // handle. The payload is copied (POST, PUT and PATCH need one). A supplied
  // token manager stays the caller's; without one, a token session logs in
  // with the host certificate. caType "QXCA" or "ECA" forces the CA kind, as
  // for QXClientCURL.
  QXClientAsyncCURL(const std::string& server, int port, const std::string& urlPath,
                    const std::string& payload, REQTYPE reqType, cert_type certType,
                    QXCurlSessionType sessionType, TokenManager_Base* tokenManager = nullptr,
                    const std::string& caType = "");
  // Safe at any point: a transfer under way is abandoned, its sockets closed.
  ~QXClientAsyncCURL() override;

  // One step of the non-blocking connect under the preferred-network rules:
  // -1 connecting (the socket, in socket, is in the write set), 0 connected
  // (or libcurl's kept connection will serve), -3 the connector gave up.
  virtual int connectNioPBX(long& socket, fd_set& read, fd_set& write, fd_set& except, int& maxfd);
  // Called while a request is under way, performAsyncRequest returns
  // ASYNC_FAILED with QX_ERR_IN_PROGRESS and the request under way goes on.
  // After one finished, it starts the request again on this client (its
  // kept-alive connection is reused).
  int performAsyncRequest(fd_set& read, fd_set& write, fd_set& except, int& maxfd) override;
  // Before any performAsyncRequest: ASYNC_FAILED with QX_ERR_BAD_ARGUMENT.
  int isAsyncOperationCompleted(fd_set& read, fd_set& write, fd_set& except, int& maxfd) override;
  int getQxuErrorCode() override;
  long getHttpResponseStatusCode() override;
  const std::string& getResponseData() override;

  // ---- poll interface: the same request and results, any descriptor number ----
  // Appends to fds the descriptors and events (POLLIN, POLLOUT, POLLPRI) to
  // wait for; sets timeoutMs to the longest wait before the next call (-1:
  // none). Returns a QXAsyncStatus; on ASYNC_RETRY_WAIT wait
  // getRetrySleepTime() seconds instead.
  int performAsyncRequestPoll(std::vector<struct pollfd>& fds, int& timeoutMs);
  int isAsyncOperationCompletedPoll(std::vector<struct pollfd>& fds, int& timeoutMs);

  // After ASYNC_WAIT_FDS or ASYNC_IN_PROGRESS: milliseconds after which the
  // client must be called again even if no descriptor became ready (libcurl's
  // timers, a connect attempt's deadline); -1 when there is no such limit.
  long getAsyncWaitTimeoutMs();
  // After ASYNC_RETRY_WAIT: seconds to wait, from the retry schedule of the
  // retry window; 2 when the schedule is used up.
  int getRetrySleepTime();
  // The request the next performAsyncRequest sends. QX_ERR_IN_PROGRESS while
  // one is under way, QX_ERR_BAD_ARGUMENT for an unknown type.
  int setAsyncRequest(REQTYPE reqType, const std::string& urlPath, const std::string& payload);

  // The product status for the last libcurl multi-interface result.
  int mapMultiCurlError();

  // ---- test seams ----
  // Every finished-transfer message is read through T_curl_multi_info_read;
  // null restores libcurl's reader. Process-wide.
  static CURLMsg* T_curl_multi_info_read(CURLM* multi, int* queued);
  static void T_setcurlMultiInfoReader(CURLMsg* (*reader)(CURLM*, int*));
  // The HTTP code of a finished transfer, or the forced one.
  CURLcode T_curl_easy_getinfo(CURL* handle, long* httpCode);
  void mockResponseCode(bool enable, int code);

  // ---- state (read by tests) ----
  CURLM* m_multiHandle = nullptr;
  int m_curlMultiError = 0;  // last libcurl multi result (CURLMcode)
  int m_qxuErrorCode = 0;
  bool m_tokenFetchInProgress = false;
  bool m_apiVersionFetchPending = false;
  bool m_apiVersionFetchInProgress = false;
  bool m_apiVersionNegotiated = false;  // once per request
  bool m_accessDeniedRetryAllowed = true;
  bool m_tunnelInUse = false;
  bool m_nioConnectAbandoned = false;  // libcurl connects by itself
  bool m_nioConnectDone = false;       // the connect step of this exchange is over
  time_t m_connectionStartTime = 0;
  std::deque<int> m_retrySleepQueue;
  QXWebsvcTunnelIterator* m_tunnelIterator = nullptr;

 protected:
  int checkAndPopulateTunnelConfig();
  int initiateAsyncRequest(fd_set& read, fd_set& write, fd_set& except, int& maxfd,
                           bool forceNewToken);
  int setInitiateAsyncRequest(bool forceNewToken, bool isRetry);
  int performOperation(fd_set& read, fd_set& write, fd_set& except, int& maxfd);
  int setAsyncOpData(fd_set& read, fd_set& write, fd_set& except, int& maxfd);
  int tryWithNextTunnel();
  int configureAsyncGetApiVersion();
  int configureAsyncCurlRequest();
  int configureAsyncCurlToken();
  int extractAndSaveToken();

 private:
  enum Run { RUN_IDLE, RUN_ACTIVE, RUN_DONE };
  int advance(fd_set& read, fd_set& write, fd_set& except, int& maxfd);
  int start(fd_set& read, fd_set& write, fd_set& except, int& maxfd);
  int ended(int asyncStatus, int maxfd);
  int fail(int status);
  bool addWaitFd(int fd, short events, fd_set& read, fd_set& write, fd_set& except, int& maxfd);
  bool detach(const char* what);
  int attach(bool isRetry);
  int reconfigureAfterFetch(bool afterToken);
  int retryConnection();
  int tunnelFailover();
  bool nextTunnelCandidate(std::string& tunnel);
  void applyCurrentTunnel();
  void letCurlConnect();
  void raiseRetryWindow();
  int retryStatusForAnswer() const;
  int pollCall(bool starting, std::vector<struct pollfd>& fds, int& timeoutMs);
  void setCertInfo();
  int resetHandle();
  void rewindPhase();

  REQTYPE m_reqType;
  std::string m_reqPath;
  std::string m_reqPayload;
  Run m_run = RUN_IDLE;
  int m_final = ASYNC_FAILED;
  bool m_inMulti = false;
  bool m_exchangeOk = false;  // the last exchange ended with an answer
  int m_keptConnection = -1;  // for the next exchange: -1 ask libcurl, 0 no, 1 yes
  bool m_freshConnect = false;
  bool m_certInfoWanted = false;  // libcurl keeps the certificates as text
  bool m_nioConnecting = false;   // the connector is between steps
  bool m_nioDialled = false;      // this exchange's socket comes from the connector
  int m_nioStatus = 0;            // the connector's last result
  long m_nioWaitMs = -1;          // while connecting: the attempt's time left
  int m_retryStatus = 0;          // what a closed retry window reports
  int m_loginCaMode = -1;         // the CA mode a login was made under
  std::string m_currentTunnel;
  std::string m_token;
  struct curl_slist* m_fetchHeaders = nullptr;  // token and version fetches
  bool m_mockResponse = false;
  int m_mockResponseCode = 0;
  std::vector<struct pollfd>* m_pollFds = nullptr;  // set while a poll call runs
  fd_set m_unusedSets[3];
  QXAsyncRevocationCache m_revocationVerdicts{*this};
};

// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions)
class QX_API AsyncCURLFactory {
 public:
  virtual ~AsyncCURLFactory();
  // A new request client the caller owns (delete it), or null when it could
  // not be made (logged). payload is copied.
  virtual AsyncCURL* generateAsyncCURL(const std::string& server, int port,
                                       const std::string& urlPath, std::string& payload,
                                       REQTYPE reqType, cert_type certType,
                                       QXCurlSessionType sessionType) = 0;
};

class QX_API QXClientAsyncCURLFactory : public AsyncCURLFactory {
 public:
  QXClientAsyncCURLFactory();
  // Every client made gets these tunnel servers as additional candidates.
  explicit QXClientAsyncCURLFactory(const std::list<std::string>& tunnelServers);
  // A QXClientAsyncCURL, or null.
  AsyncCURL* generateAsyncCURL(const std::string& server, int port, const std::string& urlPath,
                               std::string& payload, REQTYPE reqType, cert_type certType,
                               QXCurlSessionType sessionType) override;
  // The same, typed: for getRetrySleepTime and the poll interface.
  QXClientAsyncCURL* createClientAsyncCURL(const std::string& server, int port,
                                           const std::string& urlPath, const std::string& payload,
                                           REQTYPE reqType, cert_type certType,
                                           QXCurlSessionType sessionType);

 private:
  std::list<std::string> m_tunnelServers;
};
#endif  // QXCURL_QXCLNT_CURLASYNC_H
