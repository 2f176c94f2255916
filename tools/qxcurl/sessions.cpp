// The login, logout and token commands of qxcurl.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "qxcurl/login_with_cert_manager.h"
#include "qxcurl/login_with_user_token_manager.h"
#include "qxcurl/qx_status.h"
#include "qxcurl/qxclnt_curl.h"
#include "qxcurl_tool.h"

namespace qxtool {
namespace {

// An API key has no expiry the client could know; the stored session that
// carries it is kept for a day, then the user logs in again.
constexpr int kApiKeySessionSec = 24 * 60 * 60;

cert_type certTypeOf(const Options& o) { return static_cast<cert_type>(o.certType); }

// The checks the client constructor would make, with the tool's wording;
// the managers build their clients later, deep inside.
int checkTarget(const Options& o) {
  if (!o.server.empty() && o.port >= 1) return 0;
  if (o.server.empty()) std::fprintf(stderr, "qxcurl: --server is required\n");
  if (o.port < 1) std::fprintf(stderr, "qxcurl: --port must be 1 or more\n");
  return reportStatus(QX_ERR_BAD_ARGUMENT, nullptr);
}

int reportFailure(const char* what, const Options& o, int status,
                  const std::vector<std::string>& names) {
  std::fprintf(stderr, "qxcurl: %s %s failed\n", what, o.server.c_str());
  int exitCode = reportStatus(status, nullptr);
  if (status == QX_ERR_HOST_MISMATCH) reportCertNames(names);
  return exitCode;
}

struct StoredUser {
  std::string userName, domainName, domainType;
};

// The user of the session stored by the last login; 0 when there is one.
int readStoredUser(const Options& o, StoredUser& user) {
  LoginWithUserTokenManager probe(o.port, "", "", "", "", certTypeOf(o));
  std::string issuedBy, token;
  int expireAt = 0;
  int rc = probe.getLoggedInUserDetails(user.userName, user.domainName, issuedBy, user.domainType,
                                        token, expireAt);
  wipe(token);
  return rc;
}

// A key in ARVION_APIKEY for the server stands in for a stored session (the
// manager presents it when the host allows API keys).
bool haveEnvironmentApiKey(const Options& o) {
  if (std::getenv("ARVION_APIKEY") == nullptr) return false;
  LoginWithUserTokenManager probe(o.port, "", "", "", "", certTypeOf(o));
  std::string key = probe.fetchApikeyFromEnv(o.server);
  bool found = !key.empty();
  wipe(key);
  return found;
}

int loginWithApiKey(const Options& o) {
  if (o.haveApiKey) {
    if (!o.user.empty() || !o.passwordFile.empty()) {
      throw UsageError("--api-key excludes --user and --password-file");
    }
    std::string keys = o.apiKey;
    // A bare key is the key for --server.
    if (!keys.empty() && keys[0] != '@' && keys.find(':') == std::string::npos) {
      keys = o.server + ":" + keys;
    }
    setenv("ARVION_APIKEY", keys.c_str(), 1);
    wipe(keys);
  }
  LoginWithUserTokenManager manager(o.port, o.domainType, o.domainName, o.user, "", certTypeOf(o));
  std::string key = manager.fetchApikeyFromEnv(o.server);
  if (key.empty()) {
    throw UsageError("no API key for " + o.server + " in " +
                     (o.haveApiKey ? "--api-key" : "ARVION_APIKEY"));
  }
  int validity = kApiKeySessionSec;
  int rc = manager.saveNewToken(o.server, key, validity);
  wipe(key);
  if (rc != 0) return reportFailure("login to", o, rc, {});
  std::printf("Logged in to %s\n", o.server.c_str());
  return EXIT_OK;
}

std::string isoTime(time_t t) {
  struct tm tm;
  char buf[32];
  if (gmtime_r(&t, &tm) == nullptr ||
      std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm) == 0)
    return std::to_string(static_cast<long long>(t));
  return buf;
}

}  // namespace

int openUserSession(const Options& o, std::unique_ptr<LoginWithUserTokenManager>& out) {
  StoredUser user;
  int rc = readStoredUser(o, user);
  if (rc != 0 && !haveEnvironmentApiKey(o)) {
    std::fprintf(stderr, "qxcurl: no user session: log in first with 'qxcurl login'\n");
    return reportStatus(rc, nullptr);
  }
  out.reset(new LoginWithUserTokenManager(o.port, user.domainType, user.domainName, user.userName,
                                          "", certTypeOf(o)));
  return 0;
}

int runLogin(const Options& o) {
  if (int exitCode = checkTarget(o)) return exitCode;
  bool apiKey = o.haveApiKey || (o.user.empty() && std::getenv("ARVION_APIKEY") != nullptr);
  if (apiKey) return loginWithApiKey(o);
  if (o.user.empty()) throw UsageError("login needs --user (or --api-key)");
  if (o.domainType.empty()) throw UsageError("login needs --domain-type");

  std::string password = readPassword(o.passwordFile, "Password for " + o.user + ": ");
  // The domain of a local account is the master server itself.
  const std::string& domainName = o.domainName.empty() ? o.server : o.domainName;
  LoginWithUserTokenManager manager(o.port, o.domainType, domainName, o.user, password,
                                    certTypeOf(o));
  wipe(password);
  if (o.timeout >= 0) manager.m_operationTimeout = o.timeout;

  // The manager's steps rather than getToken: an API key in the environment
  // must not turn an explicit password login into a no-op.
  std::string token;
  int validity = 0;
  std::vector<std::string> names;
  int rc = manager.getNewToken(o.server, token, validity, &names);
  if (rc == 0) rc = manager.saveNewToken(o.server, token, validity);
  wipe(token);
  if (rc != 0) return reportFailure("login to", o, rc, names);
  std::printf("Logged in to %s\n", o.server.c_str());
  return EXIT_OK;
}

int runLogout(const Options& o) {
  if (int exitCode = checkTarget(o)) return exitCode;
  StoredUser user;
  if (readStoredUser(o, user) != 0 && !haveEnvironmentApiKey(o)) {
    std::printf("Not logged in to %s\n", o.server.c_str());
    return EXIT_OK;
  }
  LoginWithUserTokenManager manager(o.port, user.domainType, user.domainName, user.userName, "",
                                    certTypeOf(o));
  if (o.timeout >= 0) manager.m_operationTimeout = o.timeout;
  std::vector<std::string> names;
  int rc = manager.deleteToken(o.server, &names);
  if (rc != 0) {
    int exitCode = reportFailure("logout of", o, rc, names);
    std::fprintf(stderr, "qxcurl: the stored session was removed all the same\n");
    return exitCode;
  }
  std::printf("Logged out of %s\n", o.server.c_str());
  return EXIT_OK;
}

int runToken(const Options& o) {
  if (int exitCode = checkTarget(o)) return exitCode;
  // A token-session client creates the certificate-login manager with the
  // token files every request of this host uses; borrow it.
  std::unique_ptr<QXClientCURL> client;
  try {
    client.reset(new QXClientCURL(o.server, o.port, certTypeOf(o), QXCURL_USE_TOKEN));
  } catch (int status) {
    return reportStatus(status, nullptr);
  }
  auto* manager = dynamic_cast<LoginWithCertManager*>(client->m_tokenManager);
  if (manager == nullptr) return reportStatus(QX_ERR_TOKEN, nullptr);
  if (o.timeout >= 0) manager->m_operationTimeout = o.timeout;

  if (o.clearToken) {
    int rc = manager->clearToken();
    if (rc != 0) return reportFailure("clearing the token of", o, rc, {});
    std::printf("Token cleared for %s\n", o.server.c_str());
    if (!o.newToken) return EXIT_OK;
  }

  std::string token;
  std::vector<std::string> names;
  int rc = manager->getToken(o.server, token, o.newToken, &names);
  if (rc != 0) return reportFailure("certificate login to", o, rc, names);
  std::printf("token: %s\n", o.showToken ? token.c_str() : maskSecret(token).c_str());
  wipe(token);

  jwtToken record;
  if (manager->getLocalToken(record) == 0 && record.tokenExpTimeSec > 0) {
    long long left = static_cast<long long>(record.tokenExpTimeSec - time(nullptr));
    std::string when = isoTime(static_cast<time_t>(record.tokenExpTimeSec));
    if (left > 0) {
      std::printf("expires: %s (in %lld s)\n", when.c_str(), left);
    } else {
      std::printf("expires: %s (%lld s ago)\n", when.c_str(), -left);
    }
    wipe(record.token);
  }
  return EXIT_OK;
}

}  // namespace qxtool
