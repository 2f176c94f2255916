// The cached GET: the time of a cache hit in the process that filled the
// entry and in fresh processes of their own, and how many requests reach the
// server when many processes ask for one key at once.
//
// The parent makes a temporary install root and starts one emulated master;
// every "other process" is this program run anew (fork and exec), so that it
// inherits no warm state from the process that filled the cache.
#include <fcntl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/qx_cs_cache.h"
#include "qxcurl/qxclnt_curl.h"
#include "testing/fixture/qx_test_env.h"

namespace {

const char* const kPath = "arvion/security/cacert";  // a 2 KiB JSON answer, no token

int64_t nowNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

double percentileUs(std::vector<int64_t> ns, double p) {
  if (ns.empty()) return 0;
  std::sort(ns.begin(), ns.end());
  size_t i = std::min(ns.size() - 1, static_cast<size_t>(p * static_cast<double>(ns.size())));
  return static_cast<double>(ns[i]) / 1000.0;
}

std::unique_ptr<QXClientCURL> client(int port, const std::string& caFile) {
  std::unique_ptr<QXClientCURL> c(new QXClientCURL(
      "localhost", port, CERT_TYPE_HOST, QXCURL_INSECURE, nullptr, "", true, false, false, "QXCA"));
  c->setCustomCAPath(caFile, "QXCA");
  c->setConnectRetryTimeout(0);
  return c;
}

// Times `count` cached GETs on one client; -1 marks a failed one.
std::vector<int64_t> timedGets(QXClientCURL& c, int count) {
  std::vector<int64_t> out;
  out.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    int64_t t0 = nowNs();
    int rc = c.GetWithCache(CACHE_USAGE_READ_UPDATE, kPath, WEBSVC_RESPONSE_JSON, 3600);
    int64_t t1 = nowNs();
    out.push_back(rc == 0 && c.getHttpCode() == 200 ? t1 - t0 : -1);
  }
  return out;
}

// Child: `count` timed GETs, written to stdout as raw int64 values.
int runChild(int port, const std::string& caFile, int count, bool waitForGate) {
  auto c = client(port, caFile);
  if (waitForGate) {
    char b;
    if (read(STDIN_FILENO, &b, 1) < 0) return 1;  // all start when the gate closes
  }
  std::vector<int64_t> t = timedGets(*c, count);
  size_t bytes = t.size() * sizeof(int64_t);
  return write(STDOUT_FILENO, t.data(), bytes) == static_cast<ssize_t>(bytes) ? 0 : 1;
}

struct Child {
  pid_t pid;
  int out;
};

// Starts this program as a child; stdin is the gate (closed to start them
// all at once), stdout the child's timings.
Child spawn(const char* self, int port, const std::string& caFile, int count, int gate) {
  // Close-on-exec: a child must not keep the gate's write end (or another
  // child's pipe) open, or nobody would ever see the gate close.
  int p[2];
  if (pipe2(p, O_CLOEXEC) != 0) std::exit(1);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(gate, STDIN_FILENO);
    dup2(p[1], STDOUT_FILENO);
    close(p[0]);
    std::string ports = std::to_string(port), counts = std::to_string(count);
    execl(self, self, "--child", ports.c_str(), caFile.c_str(), counts.c_str(),
          gate >= 0 ? "gate" : "nogate", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(p[1]);
  return {pid, p[0]};
}

std::vector<int64_t> collect(const Child& c, bool& ok) {
  std::vector<int64_t> out;
  int64_t v;
  while (read(c.out, &v, sizeof v) == static_cast<ssize_t>(sizeof v)) out.push_back(v);
  close(c.out);
  int status = 0;
  waitpid(c.pid, &status, 0);
  ok = ok && WIFEXITED(status) && WEXITSTATUS(status) == 0 &&
       std::find(out.begin(), out.end(), -1) == out.end();
  return out;
}

size_t serverGets(QXEmulator& emu) {
  size_t n = 0;
  for (const auto& r : emu.requests()) n += r.method == "GET" && r.path == kPath;
  return n;
}

void row(const char* name, const std::vector<int64_t>& t) {
  std::printf("| %-44s | %6zu | %8.1f | %8.1f |\n", name, t.size(), percentileUs(t, 0.5),
              percentileUs(t, 0.9));
}

int runParent(const char* self, int hits, int processes, int perProcess) {
  QXTestRoot root;
  if (!root.ok()) return std::fprintf(stderr, "%s\n", root.error().c_str()), 1;
  QXEmulator emu;
  std::string err;
  if (emu.start(&err) != 0) return std::fprintf(stderr, "%s\n", err.c_str()), 1;
  const std::string ca = root.pki("qxca/ca.pem");
  const std::string handle = qxCSCacheHandle("localhost", emu.port());
  bool ok = true;

  std::printf("| %-44s | %6s | %8s | %8s |\n", "cached GET (decision 1)", "calls", "median us",
              "p90 us");
  std::printf("|%s|%s|%s|%s|\n", std::string(46, '-').c_str(), std::string(8, '-').c_str(),
              std::string(10, '-').c_str(), std::string(10, '-').c_str());

  // In process: the first call fills the entry, the rest are hits.
  auto c = client(emu.port(), ca);
  std::vector<int64_t> first = timedGets(*c, 1);
  row("miss: request to the server, entry stored", first);
  std::vector<int64_t> inProcess = timedGets(*c, hits);
  row("hit in the process that filled it", inProcess);
  std::vector<int64_t> fetchOnly;
  for (int i = 0; i < hits; ++i) {
    json_t* v = nullptr;
    int64_t t0 = nowNs();
    int rc = fetch_cs_cache_info_or_lock_with_retry(handle, QX_CS_CACHE_KIND_WEBSVC, kPath, &v);
    fetchOnly.push_back(rc == 0 ? nowNs() - t0 : -1);
    json_decref(v);
  }
  row("  lookup that loads the value into a json_t", fetchOnly);

  // Other processes, one after another, reading the entry filled above.
  std::vector<int64_t> firstHits, otherHits;
  for (int i = 0; i < 20; ++i) {
    std::vector<int64_t> t = collect(spawn(self, emu.port(), ca, 50, -1), ok);
    if (t.empty()) continue;
    firstHits.push_back(t.front());
    otherHits.insert(otherHits.end(), t.begin() + 1, t.end());
  }
  row("hit from another process: its first call", firstHits);
  row("hit from another process: later calls", otherHits);

  // Many processes, empty cache, one key, all at once.
  qxCSCacheClear(handle, nullptr);
  emu.reset();
  int gate[2];
  if (pipe2(gate, O_CLOEXEC) != 0) return 1;
  std::vector<Child> children;
  for (int i = 0; i < processes; ++i) {
    children.push_back(spawn(self, emu.port(), ca, perProcess, gate[0]));
  }
  close(gate[0]);
  int64_t t0 = nowNs();
  close(gate[1]);
  std::vector<int64_t> all;
  for (const Child& ch : children) {
    std::vector<int64_t> t = collect(ch, ok);
    all.insert(all.end(), t.begin(), t.end());
  }
  double wallMs = static_cast<double>(nowNs() - t0) / 1e6;
  std::string name = std::to_string(processes) + " processes x " + std::to_string(perProcess) +
                     " GETs, empty cache";
  row(name.c_str(), all);
  std::fflush(stdout);
  std::printf("\n%s: %zu of %zu GETs reached the server, %.0f ms in all%s\n", name.c_str(),
              serverGets(emu), all.size(), wallMs, ok ? "" : " (SOME CALLS FAILED)");
  emu.stop();
  return ok ? 0 : 1;
}

int positive(const char* text) {
  int v = std::atoi(text);
  if (v < 1) {
    std::fprintf(stderr, "cache_bench: a count must be 1 or more\n");
    std::exit(2);
  }
  return v;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 6 && std::strcmp(argv[1], "--child") == 0) {
    return runChild(std::atoi(argv[2]), argv[3], std::atoi(argv[4]),
                    std::strcmp(argv[5], "gate") == 0);
  }
  int hits = 2000, processes = 16, perProcess = 100;
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string a = argv[i];
    if (a == "--hits") {
      hits = positive(argv[i + 1]);
    } else if (a == "--processes") {
      processes = positive(argv[i + 1]);
    } else if (a == "--per-process") {
      perProcess = positive(argv[i + 1]);
    }
  }
  if (argc % 2 == 0) {
    std::fprintf(stderr, "usage: %s [--hits N] [--processes N] [--per-process N]\n", argv[0]);
    return 2;
  }
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return 1;
  self[n] = '\0';
  return runParent(self, hits, processes, perProcess);
}
