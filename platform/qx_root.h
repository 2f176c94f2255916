#ifndef QXCURL_PLATFORM_QX_ROOT_H
#define QXCURL_PLATFORM_QX_ROOT_H
#include <cstddef>
#include <cstdint>
#include <string>

// The install root: "/usr/tarvo" unless ARVION_ROOT names another directory.
// Follows the environment on every call, so a test can relocate it.
std::string qxInstallRoot();
// The same, without a copy: valid until this thread's next call.
const std::string& qxInstallRootRef();
// Changes whenever this thread sees the install root change: a cheap key for
// anything worked out from the root.
uint64_t qxInstallRootVersion();

// Maps one of the product's fixed paths ("/usr/tarvo/tmp",
// "/usr/tarvo/var/webtruststore/cacert.pem") to the same suffix under the
// install root. A path outside "/usr/tarvo" comes back unchanged.
std::string qxRootPath(const std::string& productPath);

// The install root followed by "/", copied into buf. 0 on success, 20 when
// buf is null or too small.
int getQXInstallDir(char* buf, size_t size);
#endif  // QXCURL_PLATFORM_QX_ROOT_H
