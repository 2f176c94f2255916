#include "qxcurl/supplied_token_manager.h"

#include "platform/qx_log.h"

SuppliedTokenManager::SuppliedTokenManager(const std::string& token) : m_token(token) {}

SuppliedTokenManager::~SuppliedTokenManager() = default;

int SuppliedTokenManager::getToken(const std::string&, std::string& token, bool,
                                   std::vector<std::string>*) {
  token = m_token;
  // Long enough that two leading and one trailing character reveal nothing
  // useful, yet tell a reader of the trace which token was used.
  if (m_token.size() > 15) {
    logmsgf(QXLOG_PROGRESS, QXLOG_CATEGORY, "SuppliedTokenManager::getToken", "provided:[%s..%c]",
            m_token.substr(0, 2).c_str(), m_token.back());
  }
  return 0;
}

bool SuppliedTokenManager::isRetryRequired(int, const std::string&) { return false; }

void SuppliedTokenManager::setupCurlOption(QXClientCURL*) {}
