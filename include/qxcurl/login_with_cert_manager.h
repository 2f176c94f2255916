// The token manager of hosts that log in with their own host certificate:
// a JSON Web Token per server and certificate type, cached in a four-line
// file of the token directory shared by every process of the host, refreshed
// 300 s before it expires, held back 300 s after a refused login.
//
//   LoginWithCertManager m(1556, CERT_TYPE_HOST, dir, "m1.1.webtoken.dat",
//                          "m1.1.websession.lck", false);
//   std::string token;
//   int rc = m.getToken("m1", token, false, nullptr);  // 5930: refused or held back
// A client of session type QXCURL_USE_TOKEN creates one itself when given
// none; a caller's manager stays the caller's unless ownsTokenManager says
// otherwise.
#ifndef QXCURL_LOGIN_WITH_CERT_MANAGER_H
#define QXCURL_LOGIN_WITH_CERT_MANAGER_H
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

#include "qxcurl/qx_types.h"
#include "qxcurl/qxcurl_export.h"
#include "qxcurl/token_manager_base.h"

// Results of LoginWithCertManager::isJWTRefreshRequired.
enum QXJWTRefreshDecision {
  QX_JWT_REFRESH_NOW = 1,    // log in now
  QX_JWT_CACHED_GOOD = 2,    // the cached token may be used
  QX_JWT_REFRESH_AVOID = 3,  // a recent login failed: do not try now
};

// Token manager for hosts that log in with their own host certificate. The
// token is kept, per server and certificate type, in a four-line cache file
// shared by every process of the host (token, issue time, expiry time, time
// of the last failed login) and guarded by the process-wide JWTLock.
// Polymorphic, with its destructor out of line to anchor the type in the
// library; the members copy safely.
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions)
class QX_API LoginWithCertManager : public TokenManager_Base {
 public:
  // A token closer than this to its expiry is refreshed; a failed login holds
  // further logins back for as long.
  static constexpr int64_t kRefreshMarginSec = 300;
  static constexpr int64_t kFailBackoffSec = 300;

  LoginWithCertManager(int port, cert_type certType, const std::string& directory,
                       const std::string& tokenFileName, const std::string& lockFileName,
                       const bool& skipTrustProcessing);
  ~LoginWithCertManager() override;

  // Appends the token file name and the lock file name for serverName and
  // certType to the two streams.
  static void setJWTFilePaths(const std::string& serverName, cert_type certType,
                              std::ostringstream& tokenFileName, std::ostringstream& lockFileName,
                              int isServiceAdmin);

  int getToken(const std::string& server, std::string& token, bool forceNew,
               std::vector<std::string>* certNames) override;
  bool isRetryRequired(int httpCode, const std::string& responseBody) override;
  void setupCurlOption(QXClientCURL* client) override;

  // Cache file access, each under JWTLock (shared to read, exclusive to write).
  int getLocalToken(jwtToken& token);
  int saveNewToken(const jwtToken& token);
  int clearToken();

  // QX_JWT_REFRESH_NOW, QX_JWT_CACHED_GOOD or QX_JWT_REFRESH_AVOID.
  int isJWTRefreshRequired(const jwtToken& token, const std::string& server) const;
  // Logs in over mutual TLS; fills token (the caller saves it).
  int getNewToken(const std::string& server, jwtToken& token, std::vector<std::string>* certNames);
  // Asks the certificate tool to bring trust store, CRL and certificate up to
  // date as the login answer requests.
  int performCertOperations(const std::string& server, const std::string& loginResponse);
  void updateJWTFailInfo(jwtToken& token);

  const std::string& getTokenFilePath() const { return m_tokenFilePath; }
  const std::string& getLockFilePath() const { return m_lockFilePath; }

  // Test seams: a pause while the cache file is held for writing, and the
  // clock every time rule reads (null restores time()).
  void T_setTsleep(int seconds);
  static void T_setClock(time_t (*clock)());

 private:
  void readTokenFile(jwtToken& token);
  // Held (exclusive) around a login and the save of its token, so that
  // processes that find the token due at once log in only once.
  std::string refreshLockPath() const;

  std::string m_lockFilePath;
  std::string m_tokenFilePath;
  cert_type m_certType;
  int m_port;
  int m_tsleep;
  bool m_trustProcessed;
  bool m_skipTrustProcessing;
};

// Replaces the run of the certificate tool by a call of hook (null restores
// the tool). Process-wide; meant to be set once before use.
QX_API void set_perform_cert_operations_cb(int (*hook)(std::string));
#endif  // QXCURL_LOGIN_WITH_CERT_MANAGER_H
