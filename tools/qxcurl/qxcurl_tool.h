// Pieces of the qxcurl command-line tool shared by its source files.
#ifndef QXCURL_TOOLS_QXCURL_QXCURL_TOOL_H
#define QXCURL_TOOLS_QXCURL_QXCURL_TOOL_H
#include <memory>
#include <string>
#include <vector>

class QXClientCURL;
class LoginWithUserTokenManager;

namespace qxtool {

enum ExitCode { EXIT_OK = 0, EXIT_HTTP = 1, EXIT_USAGE = 2, EXIT_STATUS = 3 };

enum Command { CMD_REQUEST, CMD_LOGIN, CMD_LOGOUT, CMD_TOKEN, CMD_TUNNELS, CMD_ROUTE, CMD_CACHE };

struct Options {
  Command command = CMD_REQUEST;
  std::vector<std::string> seen;  // long names of the options given, for per-command checks

  // Every command.
  std::string server;
  int port = 1556;
  int certType = 1;
  long timeout = -1;
  bool verbose = false;

  // METHOD PATH requests.
  std::string session;
  std::string caType;
  std::string data;
  bool haveData = false;
  std::string token;
  bool haveToken = false;
  bool bearer = false;
  bool userSession = false;
  std::vector<std::string> headers;
  std::string file, remoteName, contentType = "application/octet-stream";
  std::string cacert, cert, key, passphraseFile;
  bool insecure = false;
  long connectTimeout = -1, retryWindow = -1;
  std::string apiVersion;
  bool include = false;
  int cache = -1;   // GET: cache decision 0..4; -1: no cache
  int ttl = 86400;  // GET: time to live when the server names none
  std::string crl;
  int crlLevel = -1;  // -1: as configured
  bool allowFailedCrl = false;
  bool noCrlDownload = false;
  std::string method, path;

  // login
  std::string user, domainType, domainName, passwordFile, apiKey;
  bool haveApiKey = false;

  // token
  bool newToken = false;
  bool showToken = false;
  bool clearToken = false;

  // Tunnels: requests and the tunnels command.
  std::vector<std::string> tunnels;  // --tunnel, in order
  bool noTunnel = false;
  bool resetTunnels = false;
  // cache
  bool listCache = false;
  bool clearCache = false;

  // --repeat N --parallel M: N requests, at most M in flight (0: one request).
  int repeat = 0;
  int parallel = 1;
};

class UsageError {
 public:
  explicit UsageError(std::string text) : m_text(std::move(text)) {}
  const std::string& text() const { return m_text; }

 private:
  std::string m_text;
};

// "qxcurl: status N: <text>" and, when an answer arrived, "HTTP <code>" on
// stderr. Returns the exit code: EXIT_USAGE for 20, else EXIT_STATUS.
int reportStatus(int status, const QXClientCURL* client);
// The names a server certificate carries, after a name mismatch (8509).
void reportCertNames(const std::vector<std::string>& names);

// Shows a credential by its first two and last characters ("ey...Q"); one
// shorter than 16 characters is not shown at all.
std::string maskSecret(const std::string& secret);
// Overwrites a credential before it is released.
void wipe(std::string& secret);

// The login password: first line of file, else a prompt without echo when
// standard input is a terminal, else the first line of standard input.
// Throws UsageError when none can be read or it is empty.
std::string readPassword(const std::string& file, const std::string& prompt);

// The user session stored by an earlier login, as a token manager for
// requests (user name and domain as stored; no password). Without one,
// reports the status and returns its exit code; 0 when out was set.
int openUserSession(const Options& o, std::unique_ptr<LoginWithUserTokenManager>& out);

// --tunnel and --no-tunnel on a request's client.
void applyTunnelOptions(const Options& o, QXClientCURL& client);
// After a request: the tunnel that carried it, as one line first on stdout
// with --include (when there was one) and on stderr with --verbose.
void reportTunnel(const Options& o, const QXClientCURL& client);
int runTunnels(const Options& o);

// Session name to type; -1 for an unknown name (the client refuses it with 20).
int sessionTypeFor(const Options& o);
// Everything of a request's options that is set on its client: time-outs,
// TLS, retry window, API version, tunnels, headers. 0, or the exit code
// after reporting why not.
int configureRequestClient(const Options& o, QXClientCURL& c);
// --repeat: the request N times through the asynchronous client, at most
// --parallel in flight, in one thread; prints the summary.
int runParallel(const Options& o);

int runLogin(const Options& o);
int runLogout(const Options& o);
int runToken(const Options& o);
int runRoute(const Options& o);
int runCache(const Options& o);

}  // namespace qxtool
#endif  // QXCURL_TOOLS_QXCURL_QXCURL_TOOL_H
