// The one way the client obtains a token manager it did not get from its
// caller, so that the client depends on the abstract interface only.
#ifndef QXCURL_TOKEN_TOKEN_FACTORY_H
#define QXCURL_TOKEN_TOKEN_FACTORY_H
#include <memory>
#include <string>

#include "qxcurl/qx_types.h"
#include "qxcurl/token_manager_base.h"

// The certificate-login manager for server and port, keeping its token files
// in "/usr/tarvo/tmp" (under the install root) named for the server, the
// certificate type and whether the caller is the service administrator.
std::unique_ptr<TokenManager_Base> qxNewCertLoginManager(const std::string& server, int port,
                                                         cert_type certType,
                                                         bool skipTrustProcessing);
#endif  // QXCURL_TOKEN_TOKEN_FACTORY_H
