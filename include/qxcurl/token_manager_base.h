// The interface between a client and whoever provides its authorisation
// token, and the token record the certificate-login manager keeps. The
// client calls getToken before a request, isRetryRequired after a refused
// one, setupCurlOption while it is built.
//
//   class MyTokens : public TokenManager_Base { ... };  // the caller owns it
//   QXClientCURL c(server, 1556, CERT_TYPE_HOST, QXCURL_USE_TOKEN, &mine);
#ifndef QXCURL_TOKEN_MANAGER_BASE_H
#define QXCURL_TOKEN_MANAGER_BASE_H
#include <cstdint>
#include <string>
#include <vector>

#include "qxcurl/qxcurl_export.h"

class QXClientCURL;

// What a client asks of whoever provides its authorisation token.
// Polymorphic, with its destructor out of line to anchor the type in the
// library; the members copy safely.
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions)
class QX_API TokenManager_Base {
 public:
  TokenManager_Base() = default;
  virtual ~TokenManager_Base();
  // Fills token for server; forceNew asks for a new one even if a cached one
  // is valid; certNames (may be null) receives the names a server certificate
  // carries when login fails on a name mismatch.
  virtual int getToken(const std::string& server, std::string& token, bool forceNew,
                       std::vector<std::string>* certNames) = 0;
  // After a request failed with httpCode: true asks the client for one retry
  // with a fresh token.
  virtual bool isRetryRequired(int httpCode, const std::string& responseBody) = 0;
  // Lets the manager add request options before a request is sent.
  virtual void setupCurlOption(QXClientCURL* client) = 0;

  // Operation time-out, seconds, for the manager's own login clients; -1 = not set.
  int64_t m_operationTimeout = -1;
};

// One server's token as the certificate-login manager keeps it.
struct QX_API jwtToken {
  std::string token;
  int64_t tokenIssueTimeSec = 0;
  int64_t tokenExpTimeSec = 0;
  int64_t tokenLastFailTimeSec = 0;
};
#endif  // QXCURL_TOKEN_MANAGER_BASE_H
