// Pure code on the request path, timed in-process: header lookup, trace
// masking, status mapping, token masking, the per-request configuration read
// and the cost of a log statement nobody reads.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_util.h"
#include "client/qxclnt_curl_trace.h"
#include "platform/qx_config.h"
#include "platform/qx_log.h"
#include "platform/qx_util.h"
#include "qxcurl/qxclnt_curl.h"
#include "testing/fixture/qx_test_env.h"

namespace {

// A response header block as the web service sends it (about 600 bytes).
const char* const kResponseHeaders =
    "HTTP/1.1 200 OK\r\n"
    "Date: Mon, 03 Mar 2025 10:15:42 GMT\r\n"
    "Server: webservice\r\n"
    "Content-Type: application/vnd.arvion+json;version=6.0\r\n"
    "Content-Length: 2417\r\n"
    "X-Arvion-API-Version: 6.0\r\n"
    "X-Target-Master: master01.example.com\r\n"
    "X-Target-Master-ID: 8d1f2c2e-5b7a-4c4e-9a51-0f3e2d6b7c11\r\n"
    "Cache-Control: no-cache, no-store, must-revalidate\r\n"
    "Strict-Transport-Security: max-age=31536000; includeSubDomains\r\n"
    "X-Content-Type-Options: nosniff\r\n"
    "X-Frame-Options: DENY\r\n"
    "X-Request-ID: 5f0c9a1e-2b3d-4e5f-8a9b-0c1d2e3f4a5b\r\n"
    "X-Cache-Validity: \"3600\"\r\n"
    "Connection: keep-alive\r\n"
    "\r\n";

const char* const kJwt =
    "eyJhbGciOiJIUzI1NiIsInR5cCI6IkpXVCJ9.eyJzdWIiOiJPPVFYQ0EgVGVzdCwgQ049dGVzdGhvc3QucXhjYSIsImlh"
    "dCI6MTc0MTAwMDAwMCwiZXhwIjoxNzQxMDAzNjAwLCJqdGkiOiI3YjJkIiwiaXNzIjoibWFzdGVyIiwia2luZCI6Im1h"
    "Y2hpbmUifQ.2n0v5Jt6eQm7Xk3wL9bYp8sR1cU4aZdF0gHhJiKlMnO";

// An outgoing request header block padded to 4 KiB with a token and cookies.
std::string requestHeaderBlock() {
  std::string h =
      "POST /arvion/login HTTP/1.1\r\n"
      "Host: master01.example.com:1556\r\n"
      "Accept: application/vnd.arvion+json;version=6.0\r\n"
      "Content-Type: application/vnd.arvion+json;version=6.0\r\n"
      "X-Client-ID: QX-CURL-bench-4242\r\n"
      "Accept-Language: en\r\n";
  h += "Authorization: Bearer " + std::string(kJwt) + "\r\n";
  int n = 0;
  while (h.size() < 4096 - 80) {
    h += "X-Custom-" + std::to_string(n++) + ": value-" + std::string(40, 'v') + "\r\n";
  }
  h += "\r\n";
  return h;
}

// A 4 KiB login body with a password in it.
std::string jsonBody() {
  std::string b =
      "{\"domainType\":\"unixpwd\",\"domainName\":\"example\",\"userName\":\"admin\","
      "\"password\":\"s3cr\\\"et\",\"items\":[";
  for (int i = 0; b.size() < 4096 - 64; ++i) {
    b += (i ? "," : "") + std::string("{\"id\":") + std::to_string(i) + ",\"name\":\"host-" +
         std::to_string(i) + ".example.com\"}";
  }
  b += "]}";
  return b;
}

// Allocations per iteration, next to the time.
class AllocScope {
 public:
  explicit AllocScope(benchmark::State& s) : m_state(s), m_start(qxBenchAllocNow()) {}
  ~AllocScope() {
    QXAllocCounters end = qxBenchAllocNow();
    double n = static_cast<double>(m_state.iterations());
    if (n <= 0) return;
    m_state.counters["allocs"] = benchmark::Counter((end.calls - m_start.calls) / n);
    m_state.counters["bytes"] = benchmark::Counter((end.bytes - m_start.bytes) / n);
  }

 private:
  benchmark::State& m_state;
  QXAllocCounters m_start;
};

// One install root and one (never connected) client for the whole process.
struct Env {
  QXTestRoot root;
  std::unique_ptr<QXClientCURL> client;
  Env() {
    root.writeConfig(
        "SERVER = localhost\nSERVER = media1.example\nMEDIA_SERVER = media1.example\n"
        "CRL_CHECK_LEVEL = 1\nWEB_SERVER_CONNECT_TIMEOUT = 30\nENABLE_QXCURL_VERBOSE = NO\n");
    qxBenchAgeFile(root.path("arvion/arvion.conf"));
    client.reset(new QXClientCURL("localhost", 1556, CERT_TYPE_HOST, QXCURL_INSECURE, nullptr, "",
                                  true, false, false, "QXCA"));
    client->m_responseHeaders = kResponseHeaders;
  }
};

Env& env() {
  static Env e;
  return e;
}

void BM_getHttpHeaderField(benchmark::State& state, const char* field) {
  QXClientCURL& c = *env().client;
  std::string value;
  AllocScope scope(state);
  for (auto _ : state) {
    int rc = c.getHttpHeaderField(field, value);
    benchmark::DoNotOptimize(rc);
  }
}
BENCHMARK_CAPTURE(BM_getHttpHeaderField, version, "X-Arvion-API-Version");
BENCHMARK_CAPTURE(BM_getHttpHeaderField, quoted_last, "X-Cache-Validity");
BENCHMARK_CAPTURE(BM_getHttpHeaderField, absent, "X-Missing-Field");

// Masking and dump formatting of one trace record, with a log sink that
// drops the lines: the cost of the verbose trace without its I/O.
void BM_curlDebugLogger(benchmark::State& state, curl_infotype type) {
  std::string data = (type == CURLINFO_HEADER_OUT) ? requestHeaderBlock() : jsonBody();
  qxSetLogSink([](int, int, const std::string&, const std::string&) {});
  AllocScope scope(state);
  for (auto _ : state) {
    int rc = QXClientCURL::curl_debug_logger(nullptr, type, &data[0], data.size(), nullptr);
    benchmark::DoNotOptimize(rc);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
  qxSetLogSink(nullptr);
}
BENCHMARK_CAPTURE(BM_curlDebugLogger, header_4KiB, CURLINFO_HEADER_OUT);
BENCHMARK_CAPTURE(BM_curlDebugLogger, json_4KiB, CURLINFO_DATA_OUT);

void BM_curlDebugLoggerQuiet(benchmark::State& state) {
  std::string data = requestHeaderBlock();
  AllocScope scope(state);
  for (auto _ : state) {
    int rc = QXClientCURL::curl_debug_logger(nullptr, CURLINFO_HEADER_OUT, &data[0], data.size(),
                                             nullptr);
    benchmark::DoNotOptimize(rc);
  }
}
BENCHMARK(BM_curlDebugLoggerQuiet);

void BM_mapCurlError(benchmark::State& state) {
  QXClientCURL& c = *env().client;
  // Successes dominate in practice; the others are the common failures. 60
  // reads the handle's verification result and certificate information.
  const int codes[] = {CURLE_OK,
                       CURLE_OK,
                       CURLE_COULDNT_CONNECT,
                       CURLE_RECV_ERROR,
                       CURLE_OK,
                       CURLE_OPERATION_TIMEDOUT,
                       CURLE_SSL_CONNECT_ERROR,
                       CURLE_OK,
                       CURLE_PEER_FAILED_VERIFICATION,
                       CURLE_COULDNT_RESOLVE_HOST};
  size_t i = 0;
  AllocScope scope(state);
  for (auto _ : state) {
    c.m_curlError = codes[i];
    i = (i + 1) % std::size(codes);
    int status = c.mapCurlError();
    benchmark::DoNotOptimize(status);
  }
  c.m_curlError = 0;
}
BENCHMARK(BM_mapCurlError);

void BM_maskJwt(benchmark::State& state, bool withToken) {
  std::string text = kResponseHeaders;
  if (withToken) text += "Authorization: Bearer " + std::string(kJwt) + "\r\n";
  AllocScope scope(state);
  for (auto _ : state) {
    std::string masked = mask_jwt(text);
    benchmark::DoNotOptimize(masked.data());
  }
}
BENCHMARK_CAPTURE(BM_maskJwt, header_block_with_token, true);
BENCHMARK_CAPTURE(BM_maskJwt, header_block_without_token, false);

// What every request pays several times: the configuration read on an
// unchanged file, then a yes/no lookup.
void BM_readMasterConfigUnchanged(benchmark::State& state) {
  env();
  AllocScope scope(state);
  for (auto _ : state) {
    int rc = QX_read_master_config();
    benchmark::DoNotOptimize(rc);
  }
}
BENCHMARK(BM_readMasterConfigUnchanged);

void BM_bpconfKeyValueState(benchmark::State& state) {
  QXClientCURL& c = *env().client;
  AllocScope scope(state);
  for (auto _ : state) {
    bool on = c.qxcurl_bpconf_keyvalue_state("DISABLE_QXCURL_CONNECTIONS", false);
    benchmark::DoNotOptimize(on);
  }
}
BENCHMARK(BM_bpconfKeyValueState);

void BM_qxLogWantedQuiet(benchmark::State& state) {
  AllocScope scope(state);
  for (auto _ : state) {
    bool wanted = qxLogWanted(QXLOG_PROGRESS);
    benchmark::DoNotOptimize(wanted);
  }
}
BENCHMARK(BM_qxLogWantedQuiet);

// A whole statement in the stream form, as the library writes hundreds.
void BM_quietLogStatement(benchmark::State& state) {
  std::string value = "6.0";
  AllocScope scope(state);
  for (auto _ : state) {
    QXLOG(QXLOG_PROGRESS, "QXClientCURL::bench")
        << "Field = [" << value << "] | Value = [" << 42 << "].";
  }
}
BENCHMARK(BM_quietLogStatement);

// Keeps the per-call CPU times of the runs that carry a target: on a shared
// machine the wall time also counts other processes' turns.
class TargetReporter : public benchmark::ConsoleReporter {
 public:
  explicit TargetReporter(OutputOptions options) : ConsoleReporter(options) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      if (r.run_type == Run::RT_Iteration) m_ns[r.benchmark_name()] = r.GetAdjustedCPUTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> m_ns;
};

}  // namespace

int main(int argc, char** argv) {
  // Quiet, as a program that did not ask for a log.
  unsetenv("QXCURL_LOG");
  unsetenv("QXCURL_LOG_LEVEL");
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  curl_global_init(CURL_GLOBAL_ALL);
  if (!env().root.ok()) {
    std::fprintf(stderr, "cannot make a test root: %s\n", env().root.error().c_str());
    return 1;
  }
  // Colour only on a terminal, so that a saved run reads as plain text.
  TargetReporter reporter(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_ColorTabular
                                                : benchmark::ConsoleReporter::OO_Tabular);
  benchmark::RunSpecifiedBenchmarks(&reporter);

  struct Target {
    const char* run;
    double maxNs;
  } targets[] = {{"BM_qxLogWantedQuiet", 50}, {"BM_quietLogStatement", 50}};
  bool missed = false;
  std::printf("\ntargets (CPU time per call)\n");
  for (const Target& t : targets) {
    auto it = reporter.m_ns.find(t.run);
    if (it == reporter.m_ns.end()) continue;
    bool ok = it->second <= t.maxNs;
    missed = missed || !ok;
    std::printf("  %-28s %8.1f ns  <= %.0f ns %s\n", t.run, it->second, t.maxNs,
                ok ? "ok" : "MISSED");
  }
  benchmark::Shutdown();
  env().client.reset();
  return 0;
}
