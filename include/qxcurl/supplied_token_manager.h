// A token manager for a token the caller already holds (web_sync's token,
// qxcurl --token): no login, no file, no retry.
//
//   SuppliedTokenManager t(jwt);
//   QXClientCURL c("master1", 1556, CERT_TYPE_HOST, QXCURL_USE_TOKEN, &t);  // t stays the caller's
#ifndef QXCURL_SUPPLIED_TOKEN_MANAGER_H
#define QXCURL_SUPPLIED_TOKEN_MANAGER_H
#include <string>
#include <vector>

#include "qxcurl/qxcurl_export.h"
#include "qxcurl/token_manager_base.h"

// Hands out a token the caller already holds: no login, no file, no retry.
// Polymorphic, with its destructor out of line to anchor the type in the
// library; the members copy safely.
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions)
class QX_API SuppliedTokenManager : public TokenManager_Base {
 public:
  explicit SuppliedTokenManager(const std::string& token);
  ~SuppliedTokenManager() override;

  // Always 0; the trace shows only the first two and the last character.
  int getToken(const std::string& server, std::string& token, bool forceNew,
               std::vector<std::string>* certNames) override;
  bool isRetryRequired(int httpCode, const std::string& responseBody) override;
  void setupCurlOption(QXClientCURL* client) override;

 private:
  std::string m_token;
};
#endif  // QXCURL_SUPPLIED_TOKEN_MANAGER_H
