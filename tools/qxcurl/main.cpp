// qxcurl: call the web service of a master server from the command line.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "qxcurl/json_token_manager.h"
#include "qxcurl/login_with_user_token_manager.h"
#include "qxcurl/qx_status.h"
#include "qxcurl/qxclnt_curl.h"
#include "qxcurl/supplied_token_manager.h"
#include "qxcurl_tool.h"

using namespace qxtool;

namespace {

const char* const kUsage =
    "usage: qxcurl [options] METHOD PATH\n"
    "       qxcurl login  --server S [--port N] --user NAME --domain-type T [--domain-name D]\n"
    "                     [--password-file FILE] | [--api-key KEYS]\n"
    "       qxcurl logout --server S [--port N]\n"
    "       qxcurl token  --server S [--port N] [--cert-type N] [--new] [--show] [--clear]\n"
    "       qxcurl tunnels --server S [--tunnel NAME]... [--reset]\n"
    "       qxcurl route  --server S [--port N] [--timeout S]   (how PREFERRED_NETWORK routes)\n"
    "       qxcurl cache  --server S [--port N] [--list | --clear]\n"
    "  METHOD  GET, POST, PUT, PATCH, DELETE or UPLOAD (multipart POST of --file)\n"
    "  PATH    web-service path, e.g. arvion/ping\n"
    "options of every command:\n"
    "  --server NAME            master server (required)\n"
    "  --port N                 port (default 1556)\n"
    "  --cert-type N            certificate type (default 1)\n"
    "  --timeout S              whole-transfer time-out, seconds\n"
    "  --verbose                library log (and wire trace of requests) on stderr, masked\n"
    "  --help                   this text\n"
    "options of METHOD PATH:\n"
    "  --session TYPE           insecure|token|newtoken|tpca (default: token with --token\n"
    "                           or --user-session, else insecure); token without --token\n"
    "                           logs in with the host certificate\n"
    "  --user-session           present the user session of 'qxcurl login'\n"
    "  --ca-type QXCA|ECA       force the certificate authority\n"
    "  --data TEXT|@FILE        request body for POST, PUT, PATCH\n"
    "  --token TEXT|@FILE       authorisation token to present\n"
    "  --bearer                 send the token as \"Bearer <token>\"\n"
    "  --header 'Name: value'   add a request header (repeatable)\n"
    "  --file FILE              UPLOAD: local file\n"
    "  --remote-name NAME       UPLOAD: file name sent (default: base name of --file)\n"
    "  --content-type TYPE      UPLOAD: content type (default application/octet-stream)\n"
    "  --cacert FILE            trust this CA bundle\n"
    "  --cert FILE --key FILE   present this certificate and key (mutual TLS)\n"
    "  --passphrase-file FILE   passphrase of --key\n"
    "  --insecure               do not verify the server's certificate or name\n"
    "  --crl FILE               also use the CRLs in FILE for the revocation check\n"
    "  --crl-level 0|1|2        revocation check: off, leaf, whole chain\n"
    "  --allow-failed-crl       accept a peer whose revocation check could not be done\n"
    "  --no-crl-download        never download a CRL\n"
    "  --connect-timeout S      connect time-out, seconds\n"
    "  --retry-window S         connection-retry window, seconds (0: no retries)\n"
    "  --api-version V          send media type version V\n"
    "  --include                print the response headers before the body (and the\n"
    "                           tunnel that carried the request, if one did; \"served\n"
    "                           from cache\" for an answer from the cache)\n"
    "  --tunnel NAME            also try the HTTP tunnel NAME:1556 (repeatable)\n"
    "  --no-tunnel              never use a tunnel for this request\n"
    "  --cache 0..4             GET: 0 no cache, 1 cache, 2 always ask and cache,\n"
    "                           3 and 4 as 1 and 2 with the body in the secure store\n"
    "  --ttl S                  GET: seconds to cache when the server names none\n"
    "                           (default 86400)\n"
    "  --repeat N               send the request N times, in one thread, and print a\n"
    "                           summary (outcomes, statuses, HTTP codes, latency)\n"
    "  --parallel M             with --repeat: at most M requests in flight (default 1)\n"
    "options of login:\n"
    "  --user NAME --domain-type T [--domain-name D (default: the server)]\n"
    "  --password-file FILE     password on its first line (else prompted, or read from\n"
    "                           standard input when it is not a terminal)\n"
    "  --api-key KEYS           API key instead of a password: @FILE or server:key[,...]\n"
    "                           (ARVION_APIKEY is used when neither --user nor --api-key)\n"
    "options of token:\n"
    "  --new                    log in again even if the cached token is good\n"
    "  --show                   print the token in full (default: masked)\n"
    "  --clear                  clear the cached token (with --new: then log in)\n"
    "options of tunnels (lists the tunnels cached for the server, one a line):\n"
    "  --reset                  forget them instead\n"
    "  --tunnel NAME            as for requests: lets the cache live in /tmp when the\n"
    "                           install directory cannot be written\n"
    "options of cache:\n"
    "  --list                   list the cached results of the server (the default)\n"
    "  --clear                  remove them\n"
    "exit status: 0 success (HTTP 2xx), 1 HTTP error, 2 usage error, 3 library status\n";

// Options every command takes; the others belong to one command.
const char* const kCommonOptions[] = {"--server", "--port", "--cert-type", "--timeout",
                                      "--verbose"};
const char* const kLoginOptions[] = {"--user", "--domain-type", "--domain-name", "--password-file",
                                     "--api-key"};
const char* const kTokenOptions[] = {"--new", "--show", "--clear"};
const char* const kTunnelsOptions[] = {"--reset", "--tunnel"};
const char* const kCacheOptions[] = {"--list", "--clear"};
const char* const kCachedGetOptions[] = {"--cache", "--ttl"};

// TEXT, or the contents of FILE for "@FILE".
std::string valueOrFile(const std::string& arg, const char* option) {
  if (arg.empty() || arg[0] != '@') return arg;
  std::ifstream in(arg.substr(1), std::ios::binary);
  if (!in) throw UsageError(std::string("cannot read ") + option + " file " + arg.substr(1));
  std::ostringstream os;
  os << in.rdbuf();
  return os.str();
}

long toNumber(const std::string& text, const char* option) {
  char* end = nullptr;
  errno = 0;
  long v = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0) {
    throw UsageError(std::string(option) + " needs a number, not '" + text + "'");
  }
  return v;
}

int toInt(const std::string& text, const char* option) {
  long v = toNumber(text, option);
  if (v < -2147483647L || v > 2147483647L) {
    throw UsageError(std::string(option) + " is out of range: '" + text + "'");
  }
  return static_cast<int>(v);
}

std::string stripLineEnd(std::string s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
  return s;
}

template <size_t N>
bool listed(const char* const (&names)[N], const std::string& name) {
  for (const char* n : names) {
    if (name == n) return true;
  }
  return false;
}

// Refuses an option that the chosen command does not take.
void checkOptionsBelong(const Options& o) {
  static const char* const kCommandNames[] = {"METHOD PATH", "login", "logout", "token",
                                              "tunnels",     "route", "cache"};
  for (const std::string& name : o.seen) {
    bool ok = listed(kCommonOptions, name);
    switch (o.command) {
      case CMD_REQUEST:
        ok = ok || !(listed(kLoginOptions, name) || listed(kTokenOptions, name) ||
                     listed(kCacheOptions, name) || name == "--reset");
        break;
      case CMD_LOGIN:
        ok = ok || listed(kLoginOptions, name);
        break;
      case CMD_TOKEN:
        ok = ok || listed(kTokenOptions, name);
        break;
      case CMD_TUNNELS:
        ok = ok || listed(kTunnelsOptions, name);
        break;
      case CMD_CACHE:
        ok = ok || listed(kCacheOptions, name);
        break;
      case CMD_LOGOUT:
      case CMD_ROUTE:
        break;
    }
    if (!ok) throw UsageError(name + " does not apply to " + kCommandNames[o.command]);
  }
}

// --repeat and --parallel go together, for requests the asynchronous client
// can send.
void checkRepeat(const Options& o) {
  auto given = [&](const char* name) {
    return std::find(o.seen.begin(), o.seen.end(), name) != o.seen.end();
  };
  if (!given("--repeat") && !given("--parallel")) return;
  if (o.repeat < 1) throw UsageError("--repeat needs a count of 1 or more");
  if (o.parallel < 1) throw UsageError("--parallel needs a count of 1 or more");
  if (o.method == "UPLOAD") throw UsageError("--repeat does not take UPLOAD");
  if (o.haveToken || o.userSession) {
    throw UsageError("--repeat sends no --token or --user-session: use --session token");
  }
}

void checkRequest(Options& o, const std::vector<std::string>& positional) {
  if (positional.size() != 2) throw UsageError("expected METHOD and PATH");
  o.method = positional[0];
  for (char& c : o.method) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  o.path = positional[1];
  if (!o.path.empty() && o.path[0] == '/') o.path.erase(0, 1);
  static const char* const kMethods[] = {"GET", "POST", "PUT", "PATCH", "DELETE", "UPLOAD"};
  if (!listed(kMethods, o.method)) throw UsageError("unknown METHOD " + o.method);
  if ((o.method == "POST" || o.method == "PUT" || o.method == "PATCH") && !o.haveData) {
    throw UsageError(o.method + " needs --data");
  }
  if (o.method == "UPLOAD" && o.file.empty()) throw UsageError("UPLOAD needs --file");
  for (const std::string& name : o.seen) {
    if (listed(kCachedGetOptions, name) && o.method != "GET") {
      throw UsageError(name + " applies to GET only");
    }
  }
  if (o.remoteName.empty() && !o.file.empty()) {
    size_t slash = o.file.rfind('/');
    o.remoteName = slash == std::string::npos ? o.file : o.file.substr(slash + 1);
  }
  if (o.cert.empty() != o.key.empty()) throw UsageError("--cert and --key go together");
  if (!o.caType.empty() && o.caType != "QXCA" && o.caType != "ECA") {
    throw UsageError("--ca-type is QXCA or ECA");
  }
  if (o.userSession && o.haveToken)
    throw UsageError("--user-session and --token exclude each other");
  if (o.noTunnel && !o.tunnels.empty())
    throw UsageError("--tunnel and --no-tunnel exclude each other");
  if (o.userSession && !o.session.empty() && o.session != "token") {
    throw UsageError("--user-session needs --session token");
  }
  if (!o.crl.empty() && access(o.crl.c_str(), R_OK) != 0) {
    throw UsageError("cannot read --crl file " + o.crl);
  }
  checkRepeat(o);
}

Options parseArgs(int argc, char** argv) {
  Options o;
  std::vector<std::string> positional;
  int first = 1;
  if (argc > 1) {
    std::string word = argv[1];
    if (word == "login") o.command = CMD_LOGIN;
    if (word == "logout") o.command = CMD_LOGOUT;
    if (word == "token") o.command = CMD_TOKEN;
    if (word == "tunnels") o.command = CMD_TUNNELS;
    if (word == "route") o.command = CMD_ROUTE;
    if (word == "cache") o.command = CMD_CACHE;
    if (o.command != CMD_REQUEST) first = 2;
  }
  for (int i = first; i < argc; ++i) {
    std::string a = argv[i];
    auto next = [&]() -> std::string {
      if (i + 1 >= argc) throw UsageError(a + " needs a value");
      return argv[++i];
    };
    // Short forms count as their long names.
    if (a == "-h") a = "--help";
    if (a == "-k") a = "--insecure";
    if (a == "-i") a = "--include";
    if (a == "-v") a = "--verbose";
    if (a.size() > 2 && a[0] == '-' && a[1] == '-') o.seen.push_back(a);

    if (a == "--help") {
      std::cout << kUsage;
      std::exit(EXIT_OK);
    } else if (a == "--server") {
      o.server = next();
    } else if (a == "--port") {
      o.port = toInt(next(), "--port");
    } else if (a == "--session") {
      o.session = next();
    } else if (a == "--cert-type") {
      o.certType = toInt(next(), "--cert-type");
    } else if (a == "--ca-type") {
      o.caType = next();
    } else if (a == "--data") {
      o.data = valueOrFile(next(), "--data");
      o.haveData = true;
    } else if (a == "--token") {
      o.token = stripLineEnd(valueOrFile(next(), "--token"));
      o.haveToken = true;
    } else if (a == "--bearer") {
      o.bearer = true;
    } else if (a == "--user-session") {
      o.userSession = true;
    } else if (a == "--header") {
      o.headers.push_back(next());
    } else if (a == "--file") {
      o.file = next();
    } else if (a == "--remote-name") {
      o.remoteName = next();
    } else if (a == "--content-type") {
      o.contentType = next();
    } else if (a == "--cacert") {
      o.cacert = next();
    } else if (a == "--cert") {
      o.cert = next();
    } else if (a == "--key") {
      o.key = next();
    } else if (a == "--passphrase-file") {
      o.passphraseFile = next();
    } else if (a == "--insecure") {
      o.insecure = true;
    } else if (a == "--crl") {
      o.crl = next();
    } else if (a == "--crl-level") {
      std::string v = next();
      if (v != "0" && v != "1" && v != "2") throw UsageError("--crl-level is 0, 1 or 2");
      o.crlLevel = v[0] - '0';
    } else if (a == "--allow-failed-crl") {
      o.allowFailedCrl = true;
    } else if (a == "--no-crl-download") {
      o.noCrlDownload = true;
    } else if (a == "--timeout") {
      o.timeout = toNumber(next(), "--timeout");
    } else if (a == "--connect-timeout") {
      o.connectTimeout = toNumber(next(), "--connect-timeout");
    } else if (a == "--retry-window") {
      o.retryWindow = toNumber(next(), "--retry-window");
    } else if (a == "--api-version") {
      o.apiVersion = next();
    } else if (a == "--include") {
      o.include = true;
    } else if (a == "--verbose") {
      o.verbose = true;
    } else if (a == "--user") {
      o.user = next();
    } else if (a == "--domain-type") {
      o.domainType = next();
    } else if (a == "--domain-name") {
      o.domainName = next();
    } else if (a == "--password-file") {
      o.passwordFile = next();
    } else if (a == "--api-key") {
      o.apiKey = next();
      o.haveApiKey = true;
    } else if (a == "--new") {
      o.newToken = true;
    } else if (a == "--show") {
      o.showToken = true;
    } else if (a == "--clear") {
      o.clearToken = true;
      o.clearCache = true;
    } else if (a == "--tunnel") {
      o.tunnels.push_back(next());
    } else if (a == "--no-tunnel") {
      o.noTunnel = true;
    } else if (a == "--repeat") {
      o.repeat = toInt(next(), "--repeat");
    } else if (a == "--parallel") {
      o.parallel = toInt(next(), "--parallel");
    } else if (a == "--reset") {
      o.resetTunnels = true;
    } else if (a == "--list") {
      o.listCache = true;
    } else if (a == "--cache") {
      std::string v = next();
      if (v.size() != 1 || v[0] < '0' || v[0] > '4') throw UsageError("--cache is 0 to 4");
      o.cache = v[0] - '0';
    } else if (a == "--ttl") {
      o.ttl = toInt(next(), "--ttl");
      if (o.ttl < 1) throw UsageError("--ttl must be 1 or more");
    } else if (a.size() > 1 && a[0] == '-') {
      throw UsageError("unknown option " + a);
    } else {
      positional.push_back(a);
    }
  }
  checkOptionsBelong(o);
  if (o.command == CMD_REQUEST) {
    checkRequest(o, positional);
  } else if (!positional.empty()) {
    throw UsageError("unexpected argument " + positional[0]);
  }
  return o;
}

}  // namespace

namespace qxtool {

int sessionTypeFor(const Options& o) {
  std::string s = o.session;
  if (s.empty()) s = o.haveToken || o.userSession ? "token" : "insecure";
  if (s == "insecure") return QXCURL_INSECURE;
  if (s == "token") return QXCURL_USE_TOKEN;
  if (s == "newtoken") return QXCURL_GET_NEW_TOKEN;
  if (s == "tpca") return QXCURL_USE_TPCA_CERT;
  return -1;
}

}  // namespace qxtool

namespace {

// TLS trust, client certificate and revocation switches of one request.
int applyTlsOptions(const Options& o, QXClientCURL& c) {
  caLoadType loadType = o.caType == "QXCA"  ? CA_LOAD_FORCE_QXCA
                        : o.caType == "ECA" ? CA_LOAD_FORCE_ECA
                                            : CA_LOAD_CONFIGURED;
  int rc = 0;
  if (!o.cert.empty()) {
    rc = c.setAssortedCurlPKIParams(loadType, o.cacert, true, o.crl, o.cert, o.key, "",
                                    o.passphraseFile);
  } else if (loadType == CA_LOAD_FORCE_ECA) {
    // The custom-CA setter would fall back to the configured CA kind: an ECA
    // request must keep its SNI marker and its revocation check.
    rc = c.setAssortedCurlPKIParams(loadType, o.cacert, false, o.crl, "", "", "", "");
  } else if (!o.cacert.empty()) {
    rc = c.setCustomCAPath(o.cacert, o.caType);
  }
  if (rc != 0) return rc;
  if (!o.crl.empty()) c.m_crlPath = o.crl;
  if (o.crlLevel == 0) {
    c.DisableCrlCheck();
  } else if (o.crlLevel > 0) {
    c.m_crlCheckLevel = static_cast<unsigned int>(o.crlLevel);
  }
  if (o.allowFailedCrl) c.allowConnectionWithFailedCRLCheck();
  if (o.noCrlDownload) c.setSkipCRLDownload();
  if (o.insecure) c.setSkipPeerHostVerification();
  return 0;
}

int runRequest(const Options& o) {
  if (o.repeat > 0) return runParallel(o);
  int sessionType = sessionTypeFor(o);
  std::unique_ptr<SuppliedTokenManager> supplied;
  std::unique_ptr<LoginWithUserTokenManager> userSession;
  TokenManager_Base* tokens = nullptr;
  if (o.haveToken) {
    supplied.reset(new SuppliedTokenManager(o.token));
    tokens = supplied.get();
  } else if (o.userSession) {
    int exitCode = openUserSession(o, userSession);
    if (exitCode != 0) return exitCode;
    tokens = userSession.get();
  }

  std::unique_ptr<QXClientCURL> client;
  try {
    client.reset(new QXClientCURL(o.server, o.port, static_cast<cert_type>(o.certType),
                                  static_cast<QXCurlSessionType>(sessionType), tokens, "", true,
                                  false, false, o.caType));
  } catch (int status) {
    if (o.server.empty()) std::fprintf(stderr, "qxcurl: --server is required\n");
    if (o.port < 1) std::fprintf(stderr, "qxcurl: --port must be 1 or more\n");
    if (sessionType < 0) std::fprintf(stderr, "qxcurl: bad --session '%s'\n", o.session.c_str());
    return reportStatus(status, nullptr);
  }
  QXClientCURL& c = *client;
  int exitCode = configureRequestClient(o, c);
  if (exitCode != 0) return exitCode;

  int status;
  if (o.method == "GET" && o.cache >= 0) {
    status = c.GetWithCache(static_cast<cache_usage_decision>(o.cache), o.path,
                            WEBSVC_RESPONSE_JSON, o.ttl);
  } else if (o.method == "GET") {
    status = c.Get(o.path);
  } else if (o.method == "POST") {
    status = c.Post(o.path, o.data);
  } else if (o.method == "PUT") {
    status = c.Put(o.path, o.data);
  } else if (o.method == "PATCH") {
    status = c.Patch(o.path, o.data);
  } else if (o.method == "DELETE") {
    status = c.Delete(o.path);
  } else {
    status = c.PostMultipartFile(o.path, o.file, o.remoteName, o.contentType);
  }

  reportTunnel(o, c);
  if (o.include && c.isServedFromCache()) {
    std::fputs("served from cache\r\n\r\n", stdout);
  } else if (o.include) {
    std::fwrite(c.getResponseHeaders().data(), 1, c.getResponseHeaders().size(), stdout);
  }
  const std::string& body = c.getResponseBody();
  std::fwrite(body.data(), 1, body.size(), stdout);
  std::fflush(stdout);

  if (status != 0) {
    int exitCode = reportStatus(status, &c);
    std::vector<std::string> names;
    if (c.getExtendedErrorInfo(status, &names)) reportCertNames(names);
    return exitCode;
  }
  long http = static_cast<long>(c.getHttpCode());
  if (http < 200 || http > 299) {
    std::fprintf(stderr, "HTTP %ld\n", http);
    return EXIT_HTTP;
  }
  return EXIT_OK;
}
}  // namespace

namespace qxtool {

int configureRequestClient(const Options& o, QXClientCURL& c) {
  c.m_useBearer = o.bearer;
  if (o.verbose) c.setCurlVerbose();
  // The token manager's own login requests get the same time-out.
  if (o.timeout >= 0 && c.m_tokenManager != nullptr)
    c.m_tokenManager->m_operationTimeout = o.timeout;

  int rc = applyTlsOptions(o, c);
  if (rc != 0) return reportStatus(rc, nullptr);
  if (o.timeout >= 0) c.setupCurlOperationTimeout(o.timeout);
  if (o.connectTimeout >= 0) c.setConnectTimeout(o.connectTimeout);
  if (o.retryWindow >= 0) c.setConnectRetryTimeout(o.retryWindow);
  if (!o.apiVersion.empty()) c.setJsonMediaTypeAPIVersion(o.apiVersion);
  applyTunnelOptions(o, c);
  for (const std::string& h : o.headers) {
    size_t colon = h.find(':');
    if (colon == std::string::npos) {
      std::fprintf(stderr, "qxcurl: bad --header '%s'\n", h.c_str());
      return EXIT_USAGE;
    }
    size_t value = h.find_first_not_of(' ', colon + 1);
    c.addHeaderField(h.substr(0, colon) + ": ",
                     value == std::string::npos ? std::string() : h.substr(value));
  }
  return 0;
}

int reportStatus(int status, const QXClientCURL* client) {
  // A status the server chose (a 503's error body) is explained by the
  // server's own message; the library's table cannot know its codes.
  int code = 0;
  std::string message;
  if (client != nullptr && !client->getResponseBody().empty() &&
      extractErrorFromJSON(client->getResponseBody(), code, message) == 0 && code == status &&
      !message.empty()) {
    std::fprintf(stderr, "qxcurl: status %d: %s (server)\n", status, message.c_str());
  } else {
    std::fprintf(stderr, "qxcurl: status %d: %s\n", status, getECmsg(status));
  }
  if (client != nullptr && client->getHttpCode() != 0) {
    std::fprintf(stderr, "HTTP %ld\n", static_cast<long>(client->getHttpCode()));
  }
  return status == QX_ERR_BAD_ARGUMENT ? EXIT_USAGE : EXIT_STATUS;
}

void reportCertNames(const std::vector<std::string>& names) {
  std::string list;
  for (const std::string& n : names) list += (list.empty() ? "" : ", ") + n;
  std::fprintf(stderr, "qxcurl: the server's certificate names: %s\n", list.c_str());
}

std::string maskSecret(const std::string& secret) {
  if (secret.size() < 16) return "(hidden)";
  return secret.substr(0, 2) + "..." + secret.substr(secret.size() - 1);
}

void wipe(std::string& secret) {
  // volatile, so that the stores are not dropped as dead before the free.
  volatile char* p = secret.empty() ? nullptr : &secret[0];
  for (size_t i = 0; i < secret.size(); ++i) p[i] = '\0';
  secret.clear();
}

}  // namespace qxtool

int main(int argc, char** argv) {
  Options o;
  try {
    o = parseArgs(argc, argv);
  } catch (const UsageError& e) {
    std::fprintf(stderr, "qxcurl: %s\nTry 'qxcurl --help'.\n", e.text().c_str());
    return EXIT_USAGE;
  }
  // The trace and the library's log go to stderr unless the caller already
  // chose a destination.
  if (o.verbose) setenv("QXCURL_LOG", "stderr", 0);
  try {
    switch (o.command) {
      case CMD_LOGIN:
        return runLogin(o);
      case CMD_LOGOUT:
        return runLogout(o);
      case CMD_TOKEN:
        return runToken(o);
      case CMD_TUNNELS:
        return runTunnels(o);
      case CMD_ROUTE:
        return runRoute(o);
      case CMD_CACHE:
        return runCache(o);
      case CMD_REQUEST:
        break;
    }
    return runRequest(o);
  } catch (const UsageError& e) {
    std::fprintf(stderr, "qxcurl: %s\n", e.text().c_str());
    return EXIT_USAGE;
  }
}
