// Many requests in flight from one thread: the asynchronous client next to raw
// libcurl multi doing the same HTTPS GETs against the same emulated master.
//
// The parent makes a temporary install root, starts one emulator and, round
// after round, runs each implementation in a fresh child process
// (qxcurl_async_bench_child, linked with the shared library; the order
// alternates); a child sends N GETs with at most M in flight in one loop and
// reports its wall and CPU time. The table shows medians and the spread.
//
//   raw           one multi handle, M easy handles reused as transfers end,
//                 curl_multi_poll
//   qxcurl-poll   M QXClientAsyncCURL, each reused, the poll interface
//   qxcurl-select the same through fd_sets and select()
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "bench/bench_util.h"
#include "testing/fixture/qx_test_env.h"

namespace {

const char* const kPath = "arvion/ping";
const char* const kImpls[] = {"raw", "qxcurl-poll", "qxcurl-select"};

// The preferred-network connector is on (it dials every connection).
const char* const kConfig =
    "SERVER = localhost\n"
    "CRL_CHECK_LEVEL = 1\n"
    "WEB_SERVER_CONNECT_TIMEOUT = 30\n"
    "WEB_SERVER_TUNNEL_USE = 2\n"
    "DISABLE_QXCURL_PREFERRED_NETWORKS = NO\n"
    "PREFERRED_NETWORK = 10.0.0.0/8 PROHIBITED\n";

// ---- parent ----

int spawnChild(const std::string& exe, const std::vector<std::string>& args, std::string& out) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    dup2(fds[1], STDOUT_FILENO);
    close(fds[0]);
    close(fds[1]);
    std::vector<char*> argv{const_cast<char*>(exe.c_str())};
    for (const std::string& s : args) argv.push_back(const_cast<char*>(s.c_str()));
    argv.push_back(nullptr);
    execv(exe.c_str(), argv.data());
    _exit(127);
  }
  close(fds[1]);
  char buf[4096];
  for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

struct Run {
  double wallMs = 0, cpuMs = 0, allocs = 0, userMs = 0, sysMs = 0;
  int connections = 0;
};

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  if (v.empty()) return 0;
  return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

int runParent(const std::string& exe, int requests, int inFlight, int rounds) {
  QXTestRoot root;
  if (!root.ok() || !root.writeConfig(kConfig) ||
      !qxBenchAgeFile(root.path("arvion/arvion.conf"))) {
    std::fprintf(stderr, "cannot set up the install root: %s\n", root.error().c_str());
    return 1;
  }
  QXEmulator emulator;
  std::string error;
  if (emulator.start(&error) != 0) {
    std::fprintf(stderr, "cannot start the emulator: %s\n", error.c_str());
    return 1;
  }
  const std::string caFile = root.path("var/webtruststore/cacert.pem");
  std::printf("%d GETs of %s, at most %d in flight, one thread; %d rounds, order alternating\n",
              requests, kPath, inFlight, rounds);
  std::fflush(stdout);
  std::map<std::string, std::vector<Run>> runs;
  int failures = 0;
  const size_t nImpl = std::size(kImpls);
  for (int round = 0; round < rounds; ++round) {
    for (size_t k = 0; k < nImpl; ++k) {
      const char* impl = kImpls[(k + static_cast<size_t>(round)) % nImpl];
      emulator.reset();
      std::string out;
      int rc = spawnChild(exe,
                          {impl, std::to_string(emulator.port()), std::to_string(requests),
                           std::to_string(inFlight), caFile},
                          out);
      Run r;
      size_t at = out.find("RESULT ");
      int childFailures = -1;
      if (at != std::string::npos) {
        std::istringstream in(out.substr(at + 7));
        in >> childFailures >> r.wallMs >> r.cpuMs >> r.allocs >> r.userMs >> r.sysMs;
      }
      if (rc != 0 || childFailures != 0) {
        std::fprintf(stderr, "round %d, %s: child failed (exit %d, %d failures)\n", round, impl, rc,
                     childFailures);
        ++failures;
        continue;
      }
      std::set<long long> conns;
      for (const QXRecordedRequest& q : emulator.requests()) conns.insert(q.connection);
      r.connections = static_cast<int>(conns.size());
      runs[impl].push_back(r);
    }
  }
  auto stat = [&](const std::string& impl, double Run::*f, double& med, double& lo, double& hi) {
    std::vector<double> v;
    for (const Run& r : runs[impl]) v.push_back(r.*f);
    med = median(v);
    lo = v.empty() ? 0 : *std::min_element(v.begin(), v.end());
    hi = v.empty() ? 0 : *std::max_element(v.begin(), v.end());
  };
  // Runs of one round follow each other: the ratio within a round is steadier
  // on a shared machine than the ratio of medians.
  auto pairedRatio = [&](const std::string& impl, double Run::*f) {
    std::vector<double> r;
    const std::vector<Run>& a = runs[impl];
    const std::vector<Run>& b = runs["raw"];
    for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
      if (b[i].*f > 0) r.push_back(a[i].*f / (b[i].*f));
    }
    return median(r);
  };
  std::printf("\n%-14s %-12s %10s %21s %9s  %s\n", "impl", "metric", "median", "spread (min-max)",
              "/raw", "target (median of per-round ratios)");
  bool missed = false;
  const struct {
    const char* name;
    double Run::*field;
    double target;
  } metrics[] = {{"wall ms", &Run::wallMs, 1.10},
                 {"CPU ms", &Run::cpuMs, 1.10},
                 {" user ms", &Run::userMs, 0},
                 {" system ms", &Run::sysMs, 0},
                 {"allocs/req", &Run::allocs, 0}};
  for (const char* impl : kImpls) {
    for (const auto& m : metrics) {
      double med, lo, hi;
      stat(impl, m.field, med, lo, hi);
      double ratio = std::strcmp(impl, "raw") == 0 ? 1.0 : pairedRatio(impl, m.field);
      std::string target = "-";
      if (m.target > 0 && std::strcmp(impl, "raw") != 0) {
        bool ok = ratio <= m.target;
        missed = missed || !ok;
        target = std::string("<= 1.10x ") + (ok ? "ok" : "MISSED");
      }
      std::printf("%-14s %-12s %10.1f %10.1f - %-9.1f %8.2fx  %s\n", impl, m.name, med, lo, hi,
                  ratio, target.c_str());
    }
    int conns = runs[impl].empty() ? 0 : runs[impl].back().connections;
    std::printf("%-14s %-12s %10d\n", impl, "connections", conns);
  }
  std::printf("\n%s\n", missed ? "some targets MISSED" : "all targets met");
  return failures == 0 ? 0 : 1;
}

int positive(const char* text) {
  char* end = nullptr;
  long v = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || v < 1 || v > 100000) {
    std::fprintf(stderr, "want a positive number, got \"%s\"\n", text);
    std::exit(2);
  }
  return static_cast<int>(v);
}

}  // namespace

int main(int argc, char** argv) {
  int requests = 256, inFlight = 64, rounds = 9;
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string arg = argv[i];
    if (arg == "--requests") {
      requests = positive(argv[i + 1]);
    } else if (arg == "--parallel") {
      inFlight = positive(argv[i + 1]);
    } else if (arg == "--rounds") {
      rounds = positive(argv[i + 1]);
    } else {
      std::fprintf(stderr, "usage: %s [--requests N] [--parallel M] [--rounds R]\n", argv[0]);
      return 2;
    }
  }
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return 1;
  self[n] = '\0';
  // The children: linked with the shared library, as programs that use it are.
  std::string exe(self);
  return runParent(exe.substr(0, exe.rfind('/')) + "/qxcurl_async_bench_child", requests, inFlight,
                   rounds);
}
