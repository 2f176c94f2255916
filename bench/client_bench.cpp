// The client's own cost per request next to a bare libcurl easy handle doing
// the same HTTPS GET against the same emulated master server.
//
// The parent process makes a temporary install root, starts one emulator and
// runs every (implementation, scenario) pair in a fresh child process of this
// executable, so that each pair has its own peak RSS and no pair inherits
// another's warm heap. The server runs in another process: the child's thread
// CPU time is the client's alone.
#include <curl/curl.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "bench_util.h"
#include "qx_test_env.h"
#include "qxclnt_curl.h"

namespace {

const char* const kPingPath = "arvion/ping";
const char* const kJsonPath = "arvion/security/cacert";  // JSON, needs no token

// A client host's configuration: a little more than the one line tests use,
// so that the per-request configuration reads see a file of realistic size.
const char* const kConfig =
    "# written by the benchmark\n"
    "SERVER = localhost\n"
    "SERVER = media1.example\n"
    "MEDIA_SERVER = media1.example\n"
    "MEDIA_SERVER = media2.example\n"
    "CLIENT_NAME = benchhost\n"
    "CRL_CHECK_LEVEL = 1\n"
    "WEB_SERVER_CONNECT_TIMEOUT = 30\n"
    "WEB_SERVER_TUNNEL_USE = 2\n"
    "ENABLE_QXCURL_VERBOSE = NO\n"
    "DISABLE_QXCURL_CONNECTIONS = NO\n"
    "DISABLE_QXCURL_PREFERRED_NETWORKS = NO\n"
    "PREFERRED_NETWORK = 10.0.0.0/8 PROHIBITED\n";

enum class Reuse { KeepAlive, FreshConnection, NewObject };

struct Scenario {
  const char* name;
  const char* path;
  Reuse reuse;
};

const Scenario kScenarios[] = {
    {"ping keep-alive", kPingPath, Reuse::KeepAlive},
    {"json keep-alive", kJsonPath, Reuse::KeepAlive},
    {"ping new connection", kPingPath, Reuse::FreshConnection},
    {"json new connection", kJsonPath, Reuse::FreshConnection},
    {"ping new object", kPingPath, Reuse::NewObject},
};

// ---- measurement ----

int64_t clockNs(clockid_t id) {
  timespec ts{};
  clock_gettime(id, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

long statusKb(const char* key) {
  std::ifstream in("/proc/self/status");
  std::string line;
  size_t n = std::strlen(key);
  while (std::getline(in, line)) {
    if (line.compare(0, n, key) == 0 && line.size() > n && line[n] == ':')
      return std::strtol(line.c_str() + n + 1, nullptr, 10);
  }
  return -1;
}

struct Sample {
  int64_t threadNs = 0;
  int64_t processNs = 0;
  int64_t wallNs = 0;
  QXAllocCounters heap;

  static Sample now() {
    Sample s;
    s.heap = qxBenchAllocNow();
    s.threadNs = clockNs(CLOCK_THREAD_CPUTIME_ID);
    s.processNs = clockNs(CLOCK_PROCESS_CPUTIME_ID);
    s.wallNs = clockNs(CLOCK_MONOTONIC);
    return s;
  }
};

// Per-request figures of one child run.
struct Result {
  int requests = 0;
  int failures = 0;
  double threadUs = 0, processUs = 0, wallUs = 0, allocs = 0, bytes = 0;
  long peakRssKb = 0;
  int connections = 0;  // distinct TLS connections the server saw
  int serverRequests = 0;
};

// ---- the two implementations ----

size_t appendTo(char* data, size_t size, size_t nmemb, void* out) {
  static_cast<std::string*>(out)->append(data, size * nmemb);
  return size * nmemb;
}

std::string clientIdHeader() {
  return "X-Client-ID: QX-CURL-qxcurl_client_bench-" + std::to_string(getpid());
}

// The options the client itself puts on its handle for this request: peer
// and host verification against the trust store, the default headers, body
// and headers collected into strings.
class RawRequester {
 public:
  RawRequester(const std::string& url, const std::string& caFile, bool fresh) {
    m_handle = curl_easy_init();
    if (m_handle == nullptr) throw 103;
    m_headers = curl_slist_append(m_headers, "Accept: application/vnd.arvion+json;version=6.0");
    m_headers =
        curl_slist_append(m_headers, "Content-Type: application/vnd.arvion+json;version=6.0");
    m_headers = curl_slist_append(m_headers, clientIdHeader().c_str());
    curl_easy_setopt(m_handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(m_handle, CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(m_handle, CURLOPT_CAINFO, caFile.c_str());
    curl_easy_setopt(m_handle, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(m_handle, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(m_handle, CURLOPT_HTTPHEADER, m_headers);
    curl_easy_setopt(m_handle, CURLOPT_WRITEFUNCTION, &appendTo);
    curl_easy_setopt(m_handle, CURLOPT_WRITEDATA, &m_body);
    curl_easy_setopt(m_handle, CURLOPT_HEADERFUNCTION, &appendTo);
    curl_easy_setopt(m_handle, CURLOPT_HEADERDATA, &m_responseHeaders);
    curl_easy_setopt(m_handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(m_handle, CURLOPT_TIMEOUT, 300L);
    if (fresh) {
      curl_easy_setopt(m_handle, CURLOPT_FRESH_CONNECT, 1L);
      curl_easy_setopt(m_handle, CURLOPT_FORBID_REUSE, 1L);
    }
  }
  ~RawRequester() {
    curl_easy_cleanup(m_handle);
    curl_slist_free_all(m_headers);
  }
  RawRequester(const RawRequester&) = delete;
  RawRequester& operator=(const RawRequester&) = delete;

  bool get() {
    m_body.clear();
    m_responseHeaders.clear();
    if (curl_easy_perform(m_handle) != CURLE_OK) return false;
    long code = 0;
    curl_easy_getinfo(m_handle, CURLINFO_RESPONSE_CODE, &code);
    return code == 200 && !m_body.empty();
  }

 private:
  CURL* m_handle = nullptr;
  curl_slist* m_headers = nullptr;
  std::string m_body;
  std::string m_responseHeaders;
};

// An insecure-session client (no token) trusting the install's trust store.
class ClientRequester {
 public:
  ClientRequester(int port, const std::string& path, const std::string& caFile, bool fresh)
      : m_path(path) {
    m_client.reset(new QXClientCURL("localhost", port, CERT_TYPE_HOST, QXCURL_INSECURE, nullptr, "",
                                    true, false, false, "QXCA", caFile));
    if (m_client->setCustomCAPath(caFile, "QXCA") != 0) throw 12;
    if (fresh) {
      curl_easy_setopt(m_client->m_curlHandle, CURLOPT_FRESH_CONNECT, 1L);
      curl_easy_setopt(m_client->m_curlHandle, CURLOPT_FORBID_REUSE, 1L);
    }
  }

  bool get() {
    return m_client->Get(m_path) == 0 && m_client->getHttpCode() == 200 &&
           !m_client->getResponseBody().empty();
  }

 private:
  std::string m_path;
  std::unique_ptr<QXClientCURL> m_client;
};

struct ChildArgs {
  std::string impl;  // "raw" or "qxcurl"
  int scenario = 0;
  int port = 0;
  int requests = 0;
  int warmup = 0;
  std::string caFile;
};

// One request the way the scenario makes it; objects of the keep-alive and
// fresh-connection scenarios live across calls.
class Driver {
 public:
  explicit Driver(const ChildArgs& a) : m_args(a), m_scenario(kScenarios[a.scenario]) {
    m_url = "https://localhost:" + std::to_string(a.port) + "/" + m_scenario.path;
    if (m_scenario.reuse != Reuse::NewObject) {
      bool fresh = m_scenario.reuse == Reuse::FreshConnection;
      if (raw())
        m_raw.reset(new RawRequester(m_url, a.caFile, fresh));
      else
        m_client.reset(new ClientRequester(a.port, m_scenario.path, a.caFile, fresh));
    }
  }

  bool once() {
    if (m_raw) return m_raw->get();
    if (m_client) return m_client->get();
    if (raw()) return RawRequester(m_url, m_args.caFile, false).get();
    return ClientRequester(m_args.port, m_scenario.path, m_args.caFile, false).get();
  }

 private:
  bool raw() const { return m_args.impl == "raw"; }
  ChildArgs m_args;
  Scenario m_scenario;
  std::string m_url;
  std::unique_ptr<RawRequester> m_raw;
  std::unique_ptr<ClientRequester> m_client;
};

int runChild(const ChildArgs& a) {
  if (a.scenario < 0 || a.scenario >= static_cast<int>(std::size(kScenarios)) || a.requests < 1)
    return 2;
  curl_global_init(CURL_GLOBAL_ALL);
  Result r;
  try {
    Driver d(a);
    for (int i = 0; i < a.warmup; ++i) {
      if (!d.once()) ++r.failures;
    }
    Sample before = Sample::now();
    for (int i = 0; i < a.requests; ++i) {
      if (!d.once()) ++r.failures;
    }
    Sample after = Sample::now();
    double n = a.requests;
    r.requests = a.requests;
    r.threadUs = (after.threadNs - before.threadNs) / 1e3 / n;
    r.processUs = (after.processNs - before.processNs) / 1e3 / n;
    r.wallUs = (after.wallNs - before.wallNs) / 1e3 / n;
    r.allocs = (after.heap.calls - before.heap.calls) / n;
    r.bytes = (after.heap.bytes - before.heap.bytes) / n;
  } catch (int status) {
    std::fprintf(stderr, "%s: set-up failed with status %d\n", a.impl.c_str(), status);
    return 3;
  }
  r.peakRssKb = statusKb("VmHWM");
  std::printf("RESULT %d %d %.3f %.3f %.3f %.2f %.1f %ld\n", r.requests, r.failures, r.threadUs,
              r.processUs, r.wallUs, r.allocs, r.bytes, r.peakRssKb);
  std::fflush(stdout);
  return r.failures == 0 ? 0 : 1;
}

// ---- parent ----

struct Options {
  int keepAlive = 3000;  // requests per keep-alive run
  int fresh = 300;       // requests per run that connects each time
  int rounds = 5;        // runs per pair; the median is reported
  int warmup = 20;
};

int spawnChild(const std::string& exe, const std::vector<std::string>& args, std::string& out) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    dup2(fds[1], STDOUT_FILENO);
    close(fds[0]);
    close(fds[1]);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(exe.c_str()));
    for (const std::string& s : args) argv.push_back(const_cast<char*>(s.c_str()));
    argv.push_back(nullptr);
    execv(exe.c_str(), argv.data());
    _exit(127);
  }
  close(fds[1]);
  char buf[4096];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

bool parseResult(const std::string& text, Result& r) {
  size_t at = text.find("RESULT ");
  if (at == std::string::npos) return false;
  std::istringstream in(text.substr(at + 7));
  in >> r.requests >> r.failures >> r.threadUs >> r.processUs >> r.wallUs >> r.allocs >> r.bytes >>
      r.peakRssKb;
  return !in.fail();
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

struct Metric {
  const char* name;
  const char* unit;
  double Result::*field;
  double target;  // largest acceptable qxcurl/raw ratio; 0 when none is set
  bool keepAliveOnly;
};

double rssMiB(const Result& r) { return r.peakRssKb / 1024.0; }

void printTable(const std::vector<std::pair<std::string, std::pair<Result, Result>>>& rows) {
  const Metric metrics[] = {
      {"client CPU", "us", &Result::threadUs, 1.5, true},
      {"process CPU", "us", &Result::processUs, 0, false},
      {"wall time", "us", &Result::wallUs, 0, false},
      {"allocations", "", &Result::allocs, 3.0, true},
      {"bytes allocated", "B", &Result::bytes, 0, false},
  };
  std::printf("\nper request, median of the rounds; qxcurl/raw is the ratio\n");
  std::printf("%-22s %-16s %12s %12s %10s  %s\n", "scenario", "metric", "raw", "qxcurl",
              "qxcurl/raw", "target");
  bool missed = false;
  for (const auto& row : rows) {
    const Result& raw = row.second.first;
    const Result& qx = row.second.second;
    bool keepAlive = row.first.find("keep-alive") != std::string::npos;
    for (const Metric& m : metrics) {
      double a = raw.*m.field, b = qx.*m.field;
      double ratio = a > 0 ? b / a : NAN;
      std::string target = "-";
      if (m.target > 0 && (keepAlive || !m.keepAliveOnly)) {
        char t[48];
        bool ok = ratio <= m.target;
        missed = missed || !ok;
        std::snprintf(t, sizeof t, "<= %.1fx %s", m.target, ok ? "ok" : "MISSED");
        target = t;
      }
      char va[32], vb[32];
      std::snprintf(va, sizeof va, "%.1f %s", a, m.unit);
      std::snprintf(vb, sizeof vb, "%.1f %s", b, m.unit);
      std::printf("%-22s %-16s %12s %12s %9.2fx  %s\n", row.first.c_str(), m.name, va, vb, ratio,
                  target.c_str());
    }
    std::printf("%-22s %-16s %8.1f MiB %8.1f MiB %9.2fx  -\n", row.first.c_str(), "peak RSS",
                rssMiB(raw), rssMiB(qx), rssMiB(raw) > 0 ? rssMiB(qx) / rssMiB(raw) : NAN);
    // What the server saw proves the scenario: one connection for a
    // keep-alive run, one per request otherwise.
    std::printf(
        "%-22s %-16s %12s %12s\n", row.first.c_str(), "conns/requests",
        (std::to_string(raw.connections) + "/" + std::to_string(raw.serverRequests)).c_str(),
        (std::to_string(qx.connections) + "/" + std::to_string(qx.serverRequests)).c_str());
  }
  std::printf("\n%s\n", missed ? "some targets MISSED" : "all targets met");
}

int runParent(const std::string& exe, const Options& o) {
  QXTestRoot root;
  if (!root.ok()) {
    std::fprintf(stderr, "cannot make a test root: %s\n", root.error().c_str());
    return 1;
  }
  if (!root.writeConfig(kConfig) || !qxBenchAgeFile(root.path("arvion/arvion.conf"))) {
    std::fprintf(stderr, "cannot write the configuration\n");
    return 1;
  }
  QXEmulator emulator;
  std::string error;
  if (emulator.start(&error) != 0) {
    std::fprintf(stderr, "cannot start the emulator: %s\n", error.c_str());
    return 1;
  }
  const std::string caFile = root.path("var/webtruststore/cacert.pem");
  std::printf("emulator on port %d, %d keep-alive / %d connecting requests per run, %d rounds%s\n",
              emulator.port(), o.keepAlive, o.fresh, o.rounds,
              qxBenchAllocActive() ? "" : " (allocation counting unavailable)");
  std::fflush(stdout);

  std::vector<std::pair<std::string, std::pair<Result, Result>>> rows;
  int failures = 0;
  for (int s = 0; s < static_cast<int>(std::size(kScenarios)); ++s) {
    const Scenario& sc = kScenarios[s];
    int n = sc.reuse == Reuse::KeepAlive ? o.keepAlive : o.fresh;
    std::map<std::string, std::vector<Result>> runs;
    for (int round = 0; round < o.rounds; ++round) {
      // Alternate which side goes first so that drift on a shared machine
      // does not always favour the same one.
      const char* order[2] = {"raw", "qxcurl"};
      if (round % 2) std::swap(order[0], order[1]);
      for (const char* impl : order) {
        emulator.reset();
        std::string out;
        int rc = spawnChild(exe,
                            {"--child", impl, std::to_string(s), std::to_string(emulator.port()),
                             std::to_string(n), std::to_string(o.warmup), caFile},
                            out);
        Result r;
        if (rc != 0 || !parseResult(out, r)) {
          std::fprintf(stderr, "%s / %s: child failed (exit %d)\n", sc.name, impl, rc);
          ++failures;
          continue;
        }
        std::vector<QXRecordedRequest> seen = emulator.requests();
        std::set<long long> conns;
        for (const QXRecordedRequest& q : seen) conns.insert(q.connection);
        r.connections = static_cast<int>(conns.size());
        r.serverRequests = static_cast<int>(seen.size());
        runs[impl].push_back(r);
      }
    }
    auto summary = [&](const std::vector<Result>& v) {
      Result m;
      if (v.empty()) return m;
      auto med = [&](double Result::*f) {
        std::vector<double> x;
        for (const Result& r : v) x.push_back(r.*f);
        return median(x);
      };
      m.threadUs = med(&Result::threadUs);
      m.processUs = med(&Result::processUs);
      m.wallUs = med(&Result::wallUs);
      m.allocs = med(&Result::allocs);
      m.bytes = med(&Result::bytes);
      std::vector<double> rss;
      for (const Result& r : v) rss.push_back(static_cast<double>(r.peakRssKb));
      m.peakRssKb = static_cast<long>(median(rss));
      m.connections = v.back().connections;
      m.serverRequests = v.back().serverRequests;
      return m;
    };
    rows.push_back({sc.name, {summary(runs["raw"]), summary(runs["qxcurl"])}});
    std::fprintf(stderr, "done: %s\n", sc.name);
  }
  printTable(rows);
  return failures == 0 ? 0 : 1;
}

int positive(const char* text, const char* what) {
  char* end = nullptr;
  long v = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || v < 1 || v > 1000000) {
    std::fprintf(stderr, "%s: want a positive number, got \"%s\"\n", what, text);
    std::exit(2);
  }
  return static_cast<int>(v);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 8 && std::strcmp(argv[1], "--child") == 0) {
    ChildArgs a;
    a.impl = argv[2];
    a.scenario = std::atoi(argv[3]);
    a.port = std::atoi(argv[4]);
    a.requests = std::atoi(argv[5]);
    a.warmup = std::atoi(argv[6]);
    a.caFile = argv[7];
    return runChild(a);
  }
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : "";
    if (arg == "--requests") {
      o.keepAlive = positive(value, "--requests");
      ++i;
    } else if (arg == "--connect-requests") {
      o.fresh = positive(value, "--connect-requests");
      ++i;
    } else if (arg == "--rounds") {
      o.rounds = positive(value, "--rounds");
      ++i;
    } else {
      std::fprintf(stderr,
                   "usage: %s [--requests N] [--connect-requests N] [--rounds N]\n"
                   "  N keep-alive requests per run (3000), N requests per run that connect\n"
                   "  anew (300), runs per pair (5, the median is shown)\n",
                   argv[0]);
      return 2;
    }
  }
  // The real path, so that profilers name the children after this program.
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return 1;
  self[n] = '\0';
  return runParent(self, o);
}
