// One side of qxcurl_client_bench, in a process of its own: "qx" (the
// client, through the shared library, as a program using it would)
// or "raw" (libcurl alone) makes REQUESTS requests of one scenario after
// WARMUP unmeasured ones and prints its figures on one line:
//   RESULT <failures> <wall us> <CPU us> <allocations> <bytes> <peak KiB>
// (per request). Usage: qxcurl_client_bench_child qx|raw SCENARIO PORT
// REQUESTS WARMUP CAFILE, with ARVION_ROOT naming the install root.
#include <curl/curl.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "bench/bench_util.h"
#include "bench/client_scenarios.h"
#include "qxcurl/qxclnt_curl.h"

namespace {

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

// The options the client itself puts on its handle for such a request: peer
// and host verification against the trust store, the default headers, body
// and headers collected into strings.
class RawRequester {
 public:
  RawRequester(const std::string& url, const std::string& caFile, bool fresh) {
    m_handle = curl_easy_init();
    if (m_handle == nullptr) throw 103;
    std::string id = "X-Client-ID: QX-CURL-qxcurl_client_bench_child-" + std::to_string(getpid());
    m_headers = curl_slist_append(m_headers, "Accept: application/vnd.arvion+json;version=6.0");
    m_headers =
        curl_slist_append(m_headers, "Content-Type: application/vnd.arvion+json;version=6.0");
    m_headers = curl_slist_append(m_headers, id.c_str());
    curl_easy_setopt(m_handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(m_handle, CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(m_handle, CURLOPT_CAINFO, caFile.c_str());
    // The client trusts the file alone and lets libcurl keep the store it
    // built for a second; QXBENCH_RAW_PLAIN_CA=1 leaves libcurl's defaults
    // (the system's hashed directory too, the file read for every connection).
    // Read once: a new requester per request must not add the lookup.
    static const bool plain = [] {
      const char* v = std::getenv("QXBENCH_RAW_PLAIN_CA");
      return v != nullptr && std::strcmp(v, "1") == 0;
    }();
    if (!plain) {
      curl_easy_setopt(m_handle, CURLOPT_CAPATH, static_cast<const char*>(nullptr));
      curl_easy_setopt(m_handle, CURLOPT_CA_CACHE_TIMEOUT, 1L);
    }
    curl_easy_setopt(m_handle, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(m_handle, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(m_handle, CURLOPT_HTTPHEADER, m_headers);
    curl_easy_setopt(m_handle, CURLOPT_WRITEFUNCTION, &qxBenchAppend);
    curl_easy_setopt(m_handle, CURLOPT_WRITEDATA, &m_body);
    curl_easy_setopt(m_handle, CURLOPT_HEADERFUNCTION, &qxBenchAppend);
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

// An insecure-session client (no token) trusting the same CA file.
class ClientRequester {
 public:
  ClientRequester(int port, const std::string& caFile, bool fresh)
      : m_client("localhost", port, CERT_TYPE_HOST, QXCURL_INSECURE, nullptr, "", true, false,
                 false, "QXCA", caFile) {
    if (m_client.setCustomCAPath(caFile, "QXCA") != 0) throw 12;
    if (fresh) {
      curl_easy_setopt(m_client.m_curlHandle, CURLOPT_FRESH_CONNECT, 1L);
      curl_easy_setopt(m_client.m_curlHandle, CURLOPT_FORBID_REUSE, 1L);
    }
  }
  bool get() {
    return m_client.Get(kPath) == 0 && m_client.getHttpCode() == 200 &&
           !m_client.getResponseBody().empty();
  }

 private:
  QXClientCURL m_client;
};

struct ChildArgs {
  std::string impl;  // "raw" or "qxcurl"
  int scenario = 0;
  int port = 0;
  int requests = 0;
  int warmup = 0;
  std::string caFile;
};

class Driver {
 public:
  explicit Driver(const ChildArgs& a) : m_args(a), m_reuse(kScenarios[a.scenario].reuse) {
    m_url = "https://localhost:" + std::to_string(a.port) + "/" + kPath;
    if (m_reuse == Reuse::NewObject) return;
    bool fresh = m_reuse == Reuse::Fresh;
    if (raw())
      m_raw = std::make_unique<RawRequester>(m_url, a.caFile, fresh);
    else
      m_client = std::make_unique<ClientRequester>(a.port, a.caFile, fresh);
  }
  bool once() {
    if (m_raw) return m_raw->get();
    if (m_client) return m_client->get();
    if (raw()) return RawRequester(m_url, m_args.caFile, false).get();
    return ClientRequester(m_args.port, m_args.caFile, false).get();
  }

 private:
  bool raw() const { return m_args.impl == "raw"; }
  ChildArgs m_args;
  Reuse m_reuse;
  std::string m_url;
  std::unique_ptr<RawRequester> m_raw;
  std::unique_ptr<ClientRequester> m_client;
};

int runChild(const ChildArgs& a) {
  if (a.scenario < 0 || a.scenario >= static_cast<int>(std::size(kScenarios))) return 2;
  curl_global_init(CURL_GLOBAL_ALL);
  double wallUs = 0, cpuUs = 0, allocs = 0, bytes = 0;
  int failures = 0;
  try {
    Driver d(a);
    for (int i = 0; i < a.warmup; ++i) failures += d.once() ? 0 : 1;
    QXAllocCounters h0 = qxBenchAllocNow();
    int64_t cpu0 = qxBenchNowNs(CLOCK_PROCESS_CPUTIME_ID), wall0 = qxBenchNowNs(CLOCK_MONOTONIC);
    for (int i = 0; i < a.requests; ++i) failures += d.once() ? 0 : 1;
    int64_t cpu1 = qxBenchNowNs(CLOCK_PROCESS_CPUTIME_ID), wall1 = qxBenchNowNs(CLOCK_MONOTONIC);
    QXAllocCounters h1 = qxBenchAllocNow();
    double n = a.requests > 0 ? a.requests : 1;
    wallUs = (wall1 - wall0) / 1e3 / n;
    cpuUs = (cpu1 - cpu0) / 1e3 / n;
    allocs = (h1.calls - h0.calls) / n;
    bytes = (h1.bytes - h0.bytes) / n;
  } catch (int status) {
    std::fprintf(stderr, "%s: set-up failed with status %d\n", a.impl.c_str(), status);
    return 3;
  }
  std::printf("RESULT %d %.3f %.3f %.2f %.1f %ld\n", failures, wallUs, cpuUs, allocs, bytes,
              statusKb("VmHWM"));
  std::fflush(stdout);
  return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 7) {
    std::fprintf(stderr, "usage: %s qx|raw SCENARIO PORT REQUESTS WARMUP CAFILE\n", argv[0]);
    return 2;
  }
  ChildArgs a;
  a.impl = argv[1];
  a.scenario = std::atoi(argv[2]);
  a.port = std::atoi(argv[3]);
  a.requests = std::atoi(argv[4]);
  a.warmup = std::atoi(argv[5]);
  a.caFile = argv[6];
  return runChild(a);
}
