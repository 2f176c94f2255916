// The token manager of a backup appliance: an access token from the
// appliance's authentication service, by user name and password, kept in
// memory for the object's life (forceNew logs in again).
//
//   qxAppTokenManager m(443, "appliance1", caFile, "admin", pw);
//   std::string token;
//   int rc = m.getToken("", token, false, nullptr);  // 5433 HTTP refusal, 43 bad answer
#ifndef QXCURL_QX_APP_TOKEN_MANAGER_H
#define QXCURL_QX_APP_TOKEN_MANAGER_H
#include <string>
#include <vector>

#include "qxcurl/qxcurl_export.h"
#include "qxcurl/token_manager_base.h"

// Access token of a backup appliance's authentication service, obtained by a
// user-name and password login and kept in memory for the object's life.
// Polymorphic, with its destructor out of line to anchor the type in the
// library; the members copy safely.
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions)
class QX_API qxAppTokenManager : public TokenManager_Base {
 public:
  qxAppTokenManager(int port, const std::string& server, const std::string& applianceConnection,
                    const std::string& userName, const std::string& password);
  ~qxAppTokenManager() override;

  // server and certNames are not used: the appliance is the one given here.
  int getToken(const std::string& server, std::string& token, bool forceNew,
               std::vector<std::string>* certNames) override;
  bool isRetryRequired(int httpCode, const std::string& responseBody) override;
  void setupCurlOption(QXClientCURL* client) override;

  // Logs in and keeps the access token; a failure keeps the previous one.
  int getNewToken();

 private:
  int login();

  int m_port;
  std::string m_server;
  std::string m_applianceConnection;
  std::string m_userName;
  std::string m_password;
  std::string m_token;
};
#endif  // QXCURL_QX_APP_TOKEN_MANAGER_H
