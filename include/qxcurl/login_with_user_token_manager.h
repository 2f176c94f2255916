// The token manager of a person or script: a user session token obtained
// with user name and password (or an API key from ARVION_APIKEY), kept in
// the per-user session store, given up by deleteToken (logout).
//
//   LoginWithUserTokenManager m(1556, "unixpwd", "master1", "admin", pw, CERT_TYPE_HOST);
//   QXClientCURL c("master1", 1556, CERT_TYPE_HOST, QXCURL_USE_TOKEN, &m);
//   c.Get(HOSTS_URI);
//   m.deleteToken("master1", nullptr);  // logout; the stored session is gone
// The manager owns its session store; the client never owns the manager.
#ifndef QXCURL_LOGIN_WITH_USER_TOKEN_MANAGER_H
#define QXCURL_LOGIN_WITH_USER_TOKEN_MANAGER_H
#include <memory>
#include <string>
#include <vector>

#include "qxcurl/qx_types.h"
#include "qxcurl/qxcurl_export.h"
#include "qxcurl/token_manager_base.h"

namespace Arvion {
namespace Ostrel {
namespace TokenMgmt {
class SessionTokenMgmt;
}
}  // namespace Ostrel
}  // namespace Arvion

// Token manager for a person or script: a user session token obtained with
// user name and password (or an API key from ARVION_APIKEY), kept in the
// per-user session store, and given up again by deleteToken (logout).
// Polymorphic, with its destructor out of line to anchor the type in the
// library; the members copy safely.
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions)
class QX_API LoginWithUserTokenManager : public TokenManager_Base {
 public:
  LoginWithUserTokenManager(int port, const std::string& domainType, const std::string& domainName,
                            const std::string& userName, const std::string& password,
                            cert_type certType);
  ~LoginWithUserTokenManager() override;

  int getToken(const std::string& server, std::string& token, bool forceNew,
               std::vector<std::string>* certNames) override;
  // Always false: a user session is not renewed behind the user's back.
  bool isRetryRequired(int httpCode, const std::string& responseBody) override;
  // Accept: the versioned media type.
  void setupCurlOption(QXClientCURL* client) override;
  // Logs out on the server, then forgets the stored session whatever the
  // server said: 0 for HTTP 200 and 401, 130 for another HTTP status, or the
  // transport's status.
  virtual int deleteToken(const std::string& server, std::vector<std::string>* certNames);

  // Steps, public so that tools and tests can use them one by one.
  // expireAt: validity in seconds from getNewToken; saveNewToken turns it
  // into seconds since the epoch.
  int getNewToken(const std::string& server, std::string& token, int& expireAt,
                  std::vector<std::string>* certNames);
  int getLocalToken(std::string& token);
  int saveNewToken(const std::string& server, const std::string& token, int& expireAt);
  int getLoggedInUserDetails(std::string& userName, std::string& domainName, std::string& issuedBy,
                             std::string& domainType, std::string& token, int& expireAt);
  int setCredCacheKeyIfAppliance();
  int getSessionTokenTarget(std::string& target);
  bool isApplianceHost();

  // API key for server from ARVION_APIKEY: "server:key,server:key" or
  // "@file" with one "server:key" a line. Empty when none matches.
  std::string fetchApikeyFromEnv(const std::string& server);
  std::string parseApiKeyFromEnvValue(const std::string& value, const std::string& server);
  std::string parseApiKeyFromFile(const std::string& fileName, const std::string& server);
  // "server:key" split at the first ':', both trimmed; the key when the
  // server part names server (case ignored), else empty.
  static std::string extractApikey(const std::string& line, const std::string& server);
  // output must be begin, a non-empty target, end, and at most a line end.
  static int validateCmdOutput(const std::string& output, char begin, char end,
                               std::string& result);

 private:
  int logout(const std::string& server, std::vector<std::string>* certNames);

  int m_port;
  std::unique_ptr<Arvion::Ostrel::TokenMgmt::SessionTokenMgmt> m_sessionStore;
  std::string m_domainType;
  std::string m_domainName;
  std::string m_userName;
  std::string m_password;
  cert_type m_certType;
};
#endif  // QXCURL_LOGIN_WITH_USER_TOKEN_MANAGER_H
