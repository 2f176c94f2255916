// qxcurl: call the web service of a master server from the command line.
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

#include "qx_status.h"
#include "qxclnt_curl.h"
#include "supplied_token_manager.h"

namespace {

enum ExitCode { EXIT_OK = 0, EXIT_HTTP = 1, EXIT_USAGE = 2, EXIT_STATUS = 3 };

const char* const kUsage =
    "usage: qxcurl [options] METHOD PATH\n"
    "  METHOD  GET, POST, PUT, PATCH, DELETE or UPLOAD (multipart POST of --file)\n"
    "  PATH    web-service path, e.g. arvion/ping\n"
    "options:\n"
    "  --server NAME            master server (required)\n"
    "  --port N                 port (default 1556)\n"
    "  --session TYPE           insecure|token|newtoken|tpca (default: token with --token,\n"
    "                           else insecure)\n"
    "  --cert-type N            certificate type (default 1)\n"
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
    "  --timeout S              whole-transfer time-out, seconds\n"
    "  --connect-timeout S      connect time-out, seconds\n"
    "  --retry-window S         connection-retry window, seconds (0: no retries)\n"
    "  --api-version V          send media type version V\n"
    "  --include                print the response headers before the body\n"
    "  --verbose                masked wire trace on stderr\n"
    "  --help                   this text\n"
    "exit status: 0 success (HTTP 2xx), 1 HTTP error, 2 usage error, 3 library status\n";

struct Options {
  std::string server;
  int port = 1556;
  std::string session;
  int certType = 1;
  std::string caType;
  std::string data;
  bool haveData = false;
  std::string token;
  bool haveToken = false;
  bool bearer = false;
  std::vector<std::string> headers;
  std::string file, remoteName, contentType = "application/octet-stream";
  std::string cacert, cert, key, passphraseFile;
  bool insecure = false;
  long timeout = -1, connectTimeout = -1, retryWindow = -1;
  std::string apiVersion;
  bool include = false;
  bool verbose = false;
  std::string method, path;
};

class UsageError {
 public:
  explicit UsageError(std::string text) : m_text(std::move(text)) {}
  const std::string& text() const { return m_text; }

 private:
  std::string m_text;
};

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

std::string stripLineEnd(std::string s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
  return s;
}

Options parseArgs(int argc, char** argv) {
  Options o;
  std::vector<std::string> positional;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto next = [&]() -> std::string {
      if (i + 1 >= argc) throw UsageError(a + " needs a value");
      return argv[++i];
    };
    if (a == "--help" || a == "-h") {
      std::cout << kUsage;
      std::exit(EXIT_OK);
    } else if (a == "--server") {
      o.server = next();
    } else if (a == "--port") {
      o.port = static_cast<int>(toNumber(next(), "--port"));
    } else if (a == "--session") {
      o.session = next();
    } else if (a == "--cert-type") {
      o.certType = static_cast<int>(toNumber(next(), "--cert-type"));
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
    } else if (a == "--insecure" || a == "-k") {
      o.insecure = true;
    } else if (a == "--timeout") {
      o.timeout = toNumber(next(), "--timeout");
    } else if (a == "--connect-timeout") {
      o.connectTimeout = toNumber(next(), "--connect-timeout");
    } else if (a == "--retry-window") {
      o.retryWindow = toNumber(next(), "--retry-window");
    } else if (a == "--api-version") {
      o.apiVersion = next();
    } else if (a == "--include" || a == "-i") {
      o.include = true;
    } else if (a == "--verbose" || a == "-v") {
      o.verbose = true;
    } else if (a.size() > 1 && a[0] == '-') {
      throw UsageError("unknown option " + a);
    } else {
      positional.push_back(a);
    }
  }
  if (positional.size() != 2) throw UsageError("expected METHOD and PATH");
  o.method = positional[0];
  for (char& c : o.method) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  o.path = positional[1];
  if (!o.path.empty() && o.path[0] == '/') o.path.erase(0, 1);
  static const char* const kMethods[] = {"GET", "POST", "PUT", "PATCH", "DELETE", "UPLOAD"};
  bool known = false;
  for (const char* m : kMethods) known = known || o.method == m;
  if (!known) throw UsageError("unknown METHOD " + o.method);
  if ((o.method == "POST" || o.method == "PUT" || o.method == "PATCH") && !o.haveData) {
    throw UsageError(o.method + " needs --data");
  }
  if (o.method == "UPLOAD" && o.file.empty()) throw UsageError("UPLOAD needs --file");
  if (o.remoteName.empty() && !o.file.empty()) {
    size_t slash = o.file.rfind('/');
    o.remoteName = slash == std::string::npos ? o.file : o.file.substr(slash + 1);
  }
  if (o.cert.empty() != o.key.empty()) throw UsageError("--cert and --key go together");
  return o;
}

// Session name to type; -1 for an unknown name (the client refuses it with 20).
int sessionTypeFor(const Options& o) {
  std::string s = o.session.empty() ? (o.haveToken ? "token" : "insecure") : o.session;
  if (s == "insecure") return QXCURL_INSECURE;
  if (s == "token") return QXCURL_USE_TOKEN;
  if (s == "newtoken") return QXCURL_GET_NEW_TOKEN;
  if (s == "tpca") return QXCURL_USE_TPCA_CERT;
  return -1;
}

int reportStatus(int status, const QXClientCURL* client) {
  std::fprintf(stderr, "qxcurl: status %d: %s\n", status, getECmsg(status));
  if (client != nullptr && client->getHttpCode() != 0) {
    std::fprintf(stderr, "HTTP %ld\n", static_cast<long>(client->getHttpCode()));
  }
  return EXIT_STATUS;
}

int run(const Options& o) {
  int sessionType = sessionTypeFor(o);
  std::unique_ptr<SuppliedTokenManager> tokens;
  if (o.haveToken) tokens.reset(new SuppliedTokenManager(o.token));

  std::unique_ptr<QXClientCURL> client;
  try {
    client.reset(new QXClientCURL(o.server, o.port, static_cast<cert_type>(o.certType),
                                  static_cast<QXCurlSessionType>(sessionType), tokens.get(), "",
                                  true, false, false, o.caType));
  } catch (int status) {
    if (o.server.empty()) std::fprintf(stderr, "qxcurl: --server is required\n");
    if (o.port < 1) std::fprintf(stderr, "qxcurl: --port must be 1 or more\n");
    if (sessionType < 0) std::fprintf(stderr, "qxcurl: bad --session '%s'\n", o.session.c_str());
    reportStatus(status, nullptr);
    return status == 20 ? EXIT_USAGE : EXIT_STATUS;
  }
  QXClientCURL& c = *client;
  c.m_useBearer = o.bearer;
  if (o.verbose) c.setCurlVerbose();

  int rc = 0;
  caLoadType loadType = o.caType == "QXCA"  ? CA_LOAD_FORCE_QXCA
                        : o.caType == "ECA" ? CA_LOAD_FORCE_ECA
                                            : CA_LOAD_CONFIGURED;
  if (!o.cert.empty()) {
    rc = c.setAssortedCurlPKIParams(loadType, o.cacert, true, "", o.cert, o.key, "",
                                    o.passphraseFile);
  } else if (!o.cacert.empty()) {
    rc = c.setCustomCAPath(o.cacert, o.caType);
  }
  if (rc != 0) return reportStatus(rc, nullptr);
  if (o.insecure) c.setSkipPeerHostVerification();
  if (o.timeout >= 0) c.setupCurlOperationTimeout(o.timeout);
  if (o.connectTimeout >= 0) c.setConnectTimeout(o.connectTimeout);
  if (o.retryWindow >= 0) c.setConnectRetryTimeout(o.retryWindow);
  if (!o.apiVersion.empty()) c.setJsonMediaTypeAPIVersion(o.apiVersion);
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

  int status;
  if (o.method == "GET") {
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

  if (o.include)
    std::fwrite(c.getResponseHeaders().data(), 1, c.getResponseHeaders().size(), stdout);
  const std::string& body = c.getResponseBody();
  std::fwrite(body.data(), 1, body.size(), stdout);
  std::fflush(stdout);

  if (status != 0) {
    reportStatus(status, &c);
    std::vector<std::string> names;
    if (c.getExtendedErrorInfo(status, &names)) {
      std::string list;
      for (const std::string& n : names) list += (list.empty() ? "" : ", ") + n;
      std::fprintf(stderr, "qxcurl: the server's certificate names: %s\n", list.c_str());
    }
    return status == 20 ? EXIT_USAGE : EXIT_STATUS;
  }
  long http = static_cast<long>(c.getHttpCode());
  if (http < 200 || http > 299) {
    std::fprintf(stderr, "HTTP %ld\n", http);
    return EXIT_HTTP;
  }
  return EXIT_OK;
}
}  // namespace

int main(int argc, char** argv) {
  Options o;
  try {
    o = parseArgs(argc, argv);
  } catch (const UsageError& e) {
    std::fprintf(stderr, "qxcurl: %s\n%s", e.text().c_str(), kUsage);
    return EXIT_USAGE;
  }
  // The trace goes through the library's log; send it to stderr unless the
  // caller already chose a destination.
  if (o.verbose) setenv("QXCURL_LOG", "stderr", 0);
  return run(o);
}
