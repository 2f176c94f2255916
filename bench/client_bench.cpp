// What the client costs per request next to raw libcurl doing the same HTTPS
// GET against the same local nginx, and what the qxcurl tool costs next to
// curl as a whole process.
//
// The parent starts nginx and, for every (scenario, preferred-network
// switch) row, runs each side in a fresh child process
// (qxcurl_client_bench_child, next to this executable, linked with the shared
// library as programs that use it are), alternating which side goes first,
// several rounds. Each round gives one
// ratio; the table shows the median of the rounds with their spread. The
// child's process CPU time includes every thread of libcurl's; wall time
// includes nginx, whose own share is small.
//
// Counted, not timed: allocations per request (an interposer in
// bench_util.cpp counts every malloc-family call of the process) and system
// calls per request (strace -c over two runs of different lengths: the
// difference divided by the difference in requests).
#include <curl/curl.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "bench/bench_nginx.h"
#include "bench/bench_util.h"
#include "bench/client_scenarios.h"
#include "testing/fixture/qx_test_env.h"

namespace {

const char* const kConfigCommon =
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
    "PREFERRED_NETWORK = 10.0.0.0/8 PROHIBITED\n";

// Per-request figures of one run (one child, or a batch of tool processes).
struct Result {
  double wallUs = 0, cpuUs = 0, allocs = 0, bytes = 0;
  long peakRssKb = 0;
};

struct Options {
  int keepAlive = 1000;  // requests per kept-alive run
  int fresh = 200;       // requests per run that connects each time
  int rounds = 21;       // alternating rounds per row (at least five for the table)
  int warmup = 20;
  int toolRuns = 20;      // processes per side and round
  bool syscalls = true;   // strace available and wanted
  bool toolOnly = false;  // only the tool against curl
  bool hold = false;      // set up, print how to run a child, wait for end of input
};

struct Spawned {
  int exitCode = -1;
  std::string out;
  rusage usage{};
  int64_t wallNs = 0;
};

Spawned spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
              bool captureStdout = true) {
  Spawned s;
  int fds[2];
  if (pipe(fds) != 0) return s;
  int64_t t0 = qxBenchNowNs(CLOCK_MONOTONIC);
  pid_t pid = fork();
  if (pid < 0) return s;
  if (pid == 0) {
    if (captureStdout) {
      dup2(fds[1], STDOUT_FILENO);
    } else {
      int devnull = open("/dev/null", O_WRONLY);
      dup2(devnull, STDOUT_FILENO);
    }
    close(fds[0]);
    close(fds[1]);
    for (const std::string& e : env) putenv(const_cast<char*>(e.c_str()));
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  close(fds[1]);
  char buf[4096];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0) s.out.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  wait4(pid, &status, 0, &s.usage);
  s.wallNs = qxBenchNowNs(CLOCK_MONOTONIC) - t0;
  s.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128;
  return s;
}

bool parseResult(const std::string& text, Result& r) {
  size_t at = text.find("RESULT ");
  if (at == std::string::npos) return false;
  std::istringstream in(text.substr(at + 7));
  int failures = 0;
  in >> failures >> r.wallUs >> r.cpuUs >> r.allocs >> r.bytes >> r.peakRssKb;
  return !in.fail() && failures == 0;
}

double median(std::vector<double> v) {
  if (v.empty()) return NAN;
  std::sort(v.begin(), v.end());
  size_t m = v.size() / 2;
  return v.size() % 2 ? v[m] : (v[m - 1] + v[m]) / 2;
}

// One metric of a row: per-round values of both sides, per-round ratios.
struct Series {
  std::vector<double> raw, qx, ratio;
  void add(double r, double q) {
    raw.push_back(r);
    qx.push_back(q);
    ratio.push_back(r > 0 ? q / r : NAN);
  }
};

struct Row {
  std::string scenario;
  std::string prefnet;  // "on", "off" or "" (tool row)
  std::string rawName;
  Series wall, cpu;
  double allocRaw = NAN, allocQx = NAN;
  double sysRaw = NAN, sysQx = NAN;
  double rssRaw = NAN, rssQx = NAN;  // MiB
  double target = 1.05;
};

std::string fmtUs(double us) {
  char b[32];
  if (us >= 1000)
    std::snprintf(b, sizeof b, "%.2f ms", us / 1000);
  else
    std::snprintf(b, sizeof b, "%.1f us", us);
  return b;
}

std::string fmtRatio(const Series& s) {
  if (s.ratio.empty()) return "-";
  auto mm = std::minmax_element(s.ratio.begin(), s.ratio.end());
  char b[64];
  std::snprintf(b, sizeof b, "%.3fx (%.2f-%.2f)", median(s.ratio), *mm.first, *mm.second);
  return b;
}

std::string fmtCount(double v) {
  if (std::isnan(v)) return "-";
  char b[32];
  std::snprintf(b, sizeof b, "%.1f", v);
  return b;
}

// System calls of a whole child run as strace -c counts them ("total" line).
double countSyscalls(const std::string& straceOut) {
  std::istringstream in(qxReadFile(straceOut));
  std::string line;
  double total = NAN;
  while (std::getline(in, line)) {
    if (line.find("total") == std::string::npos) continue;
    std::istringstream f(line);
    double pct, secs, usecs, calls;
    if (f >> pct >> secs >> usecs >> calls) total = calls;
  }
  return total;
}

bool haveStrace() { return spawn({"strace", "-V"}).exitCode == 0; }

std::string machineLine() {
  utsname u{};
  uname(&u);
  std::string cpu;
  std::ifstream in("/proc/cpuinfo");
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, 10, "model name") == 0) {
      cpu = line.substr(line.find(':') + 2);
      break;
    }
  }
  double load[3] = {0, 0, 0};
  getloadavg(load, 3);
  char b[512];
  std::snprintf(b, sizeof b, "%s, %ld cores, %s %s, %s, load average %.1f", cpu.c_str(),
                sysconf(_SC_NPROCESSORS_ONLN), u.sysname, u.release, curl_version(), load[0]);
  return b;
}

// Whether nginx and the measured processes ran on separate CPUs.
bool g_pinned = false;

void printTable(const std::vector<Row>& rows, const Options& o) {
  std::printf(
      "\n| scenario | preferred networks | metric | library | raw | ratio (spread) | target |\n");
  std::printf("|---|---|---|---:|---:|---|---|\n");
  bool missed = false;
  for (const Row& r : rows) {
    const struct {
      const char* name;
      const Series* s;
    } timed[] = {{"wall", &r.wall}, {"CPU", &r.cpu}};
    for (const auto& t : timed) {
      double ratio = median(t.s->ratio);
      bool ok = ratio <= r.target;
      missed = missed || !ok;
      std::printf("| %s | %s | %s | %s | %s | %s | <= %.2fx %s |\n", r.scenario.c_str(),
                  r.prefnet.empty() ? "-" : r.prefnet.c_str(), t.name,
                  fmtUs(median(t.s->qx)).c_str(), fmtUs(median(t.s->raw)).c_str(),
                  fmtRatio(*t.s).c_str(), r.target, ok ? "ok" : "MISSED");
    }
    if (!std::isnan(r.rssQx)) {
      bool ok = r.rssQx - r.rssRaw <= 2.0;
      missed = missed || !ok;
      std::printf("| %s | %s | peak memory | %.1f MiB | %.1f MiB | %+.1f MiB | <= +2 MiB %s |\n",
                  r.scenario.c_str(), "-", r.rssQx, r.rssRaw, r.rssQx - r.rssRaw,
                  ok ? "ok" : "MISSED");
    }
  }
  std::printf(
      "\nCounted per request (medians of the timed runs; system calls from strace -c):\n\n");
  std::printf(
      "| scenario | preferred networks | allocations library / raw | system calls library / raw "
      "|\n");
  std::printf("|---|---|---:|---:|\n");
  for (const Row& r : rows) {
    if (!r.prefnet.empty())
      std::printf("| %s | %s | %s / %s | %s / %s |\n", r.scenario.c_str(), r.prefnet.c_str(),
                  fmtCount(r.allocQx).c_str(), fmtCount(r.allocRaw).c_str(),
                  fmtCount(r.sysQx).c_str(), fmtCount(r.sysRaw).c_str());
  }
  std::printf(
      "\nMachine: %s. Release build; medians of %d alternating rounds, spread min-max of "
      "the per-round ratios%s.\n",
      machineLine().c_str(), o.rounds,
      g_pinned ? "; nginx on one CPU, the measured processes on the others" : "");
  std::printf("\n%s\n", missed ? "some targets MISSED" : "all targets met");
}

struct Env {
  std::string exe;  // the child
  std::string caFile;
  std::string rootOn, rootOff;  // install roots: preferred networks on, off
  int port = 0;
};

std::vector<std::string> childArgv(const Env& e, const char* impl, int scenario, int requests,
                                   int warmup) {
  return {e.exe,
          impl,
          std::to_string(scenario),
          std::to_string(e.port),
          std::to_string(requests),
          std::to_string(warmup),
          e.caFile};
}

bool runPair(const Env& e, const Options& o, int scenario, bool prefnet, Row& row) {
  int n = kScenarios[scenario].reuse == Reuse::KeepAlive ? o.keepAlive : o.fresh;
  std::vector<std::string> env = {"ARVION_ROOT=" + (prefnet ? e.rootOn : e.rootOff)};
  std::vector<double> allocRaw, allocQx;
  for (int round = 0; round < o.rounds; ++round) {
    const char* order[2] = {"raw", "qxcurl"};
    if (round % 2) std::swap(order[0], order[1]);
    Result res[2];
    for (const char* impl : order) {
      Spawned s = spawn(childArgv(e, impl, scenario, n, o.warmup), env);
      Result r;
      if (s.exitCode != 0 || !parseResult(s.out, r)) {
        std::fprintf(stderr, "%s / %s: child failed (exit %d)\n", row.scenario.c_str(), impl,
                     s.exitCode);
        return false;
      }
      res[std::strcmp(impl, "raw") == 0 ? 0 : 1] = r;
    }
    row.wall.add(res[0].wallUs, res[1].wallUs);
    row.cpu.add(res[0].cpuUs, res[1].cpuUs);
    allocRaw.push_back(res[0].allocs);
    allocQx.push_back(res[1].allocs);
  }
  row.allocRaw = median(allocRaw);
  row.allocQx = median(allocQx);
  if (o.syscalls) {
    // Two lengths; the difference is the per-request count without start-up.
    const int shortRun = 20, longRun = kScenarios[scenario].reuse == Reuse::KeepAlive ? 220 : 120;
    for (const char* impl : {"raw", "qxcurl"}) {
      double calls[2];
      int lens[2] = {shortRun, longRun};
      for (int i = 0; i < 2; ++i) {
        std::string out = e.rootOn + "/strace-" + impl + ".txt";
        std::vector<std::string> argv = {"strace", "-f", "-c", "-o", out};
        for (const std::string& a : childArgv(e, impl, scenario, lens[i], o.warmup))
          argv.push_back(a);
        Spawned s = spawn(argv, env);
        calls[i] = s.exitCode == 0 ? countSyscalls(out) : NAN;
      }
      double per = (calls[1] - calls[0]) / (longRun - shortRun);
      (std::strcmp(impl, "raw") == 0 ? row.sysRaw : row.sysQx) = per;
    }
  }
  return true;
}

// The tool and curl, each started afresh for one GET: start, TLS, exit.
bool runTool(const Env& e, const Options& o, const std::string& tool, Row& row) {
  std::string url = "https://localhost:" + std::to_string(e.port) + "/" + kPath;
  std::vector<std::string> curlArgv = {"curl",   "-s", "-f",        "--cacert",
                                       e.caFile, "-o", "/dev/null", url};
  std::vector<std::string> qxArgv = {
      tool,       "--server", "localhost", "--port", std::to_string(e.port),
      "--cacert", e.caFile,   "GET",       kPath};
  std::vector<std::string> env = {"ARVION_ROOT=" + e.rootOn};
  long rssRaw = 0, rssQx = 0;
  for (int round = 0; round < o.rounds; ++round) {
    double wall[2] = {0, 0}, cpu[2] = {0, 0};
    for (int i = 0; i < o.toolRuns; ++i) {
      // Alternate within the round as well: a pair at a time.
      for (int k = 0; k < 2; ++k) {
        int side = (round + i + k) % 2;  // 0 curl, 1 qxcurl
        Spawned s = spawn(side == 0 ? curlArgv : qxArgv, env, false);
        if (s.exitCode != 0) {
          std::fprintf(stderr, "%s exited with %d\n", side == 0 ? "curl" : "qxcurl", s.exitCode);
          return false;
        }
        wall[side] += s.wallNs / 1e3;
        cpu[side] += (s.usage.ru_utime.tv_sec + s.usage.ru_stime.tv_sec) * 1e6 +
                     s.usage.ru_utime.tv_usec + s.usage.ru_stime.tv_usec;
        long& rss = side == 0 ? rssRaw : rssQx;
        rss = std::max(rss, s.usage.ru_maxrss);
      }
    }
    row.wall.add(wall[0] / o.toolRuns, wall[1] / o.toolRuns);
    row.cpu.add(cpu[0] / o.toolRuns, cpu[1] / o.toolRuns);
  }
  row.rssRaw = rssRaw / 1024.0;
  row.rssQx = rssQx / 1024.0;
  return true;
}

int runParent(const std::string& exe, const Options& o) {
  QXTestRoot rootOn, rootOff;
  if (!rootOn.ok() || !rootOff.ok()) {
    std::fprintf(stderr, "cannot make a test root: %s%s\n", rootOn.error().c_str(),
                 rootOff.error().c_str());
    return 1;
  }
  std::string off = std::string(kConfigCommon) + "DISABLE_QXCURL_PREFERRED_NETWORKS = YES\n";
  if (!rootOn.writeConfig(kConfigCommon) || !rootOff.writeConfig(off) ||
      !qxBenchAgeFile(rootOn.path("arvion/arvion.conf")) ||
      !qxBenchAgeFile(rootOff.path("arvion/arvion.conf"))) {
    std::fprintf(stderr, "cannot write the configuration\n");
    return 1;
  }
  std::string ngxDir = rootOn.path("nginx");
  mkdir(ngxDir.c_str(), 0700);
  QXBenchNginx nginx;
  std::string error;
  const bool pinned = qxBenchPinTo(true);
  if (nginx.start(ngxDir, rootOn.pki("qxca/server.pem"), rootOn.pki("qxca/server.key"), &error) !=
      0) {
    std::fprintf(stderr, "cannot start nginx: %s\n", error.c_str());
    return 1;
  }
  g_pinned = pinned;
  if (pinned && !qxBenchPinTo(false)) {
    std::fprintf(stderr, "cannot move the clients off nginx's CPU\n");
    return 1;
  }
  Env e;
  e.exe = exe.substr(0, exe.rfind('/')) + "/qxcurl_client_bench_child";
  e.caFile = rootOn.pki("qxca/ca.pem");
  e.rootOn = rootOn.dir();
  e.rootOff = rootOff.dir();
  e.port = nginx.port();
  Options opt = o;
  if (opt.syscalls && !haveStrace()) {
    std::fprintf(stderr, "(strace not found: system calls not counted)\n");
    opt.syscalls = false;
  }
  if (opt.hold) {
    // A child measures SCENARIO (0 kept-alive, 1 new connection, 2 new
    // object) as "raw" or "qx" and prints its figures.
    std::printf(
        "ARVION_ROOT=%s %s qx|raw SCENARIO %d REQUESTS WARMUP %s\n"
        "(preferred networks off: ARVION_ROOT=%s); end of input stops nginx\n",
        e.rootOn.c_str(), e.exe.c_str(), e.port, e.caFile.c_str(), e.rootOff.c_str());
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return 0;
  }
  std::printf("nginx on port %d; %d kept-alive / %d connecting requests per run, %d rounds%s\n",
              e.port, opt.keepAlive, opt.fresh, opt.rounds,
              qxBenchAllocActive() ? "" : " (allocation counting unavailable)");
  std::fflush(stdout);

  std::vector<Row> rows;
  bool ok = true;
  for (int s = 0; s < static_cast<int>(std::size(kScenarios)) && !opt.toolOnly; ++s) {
    for (bool prefnet : {true, false}) {
      Row row;
      row.scenario = kScenarios[s].name;
      row.prefnet = prefnet ? "on" : "off";
      if (runPair(e, opt, s, prefnet, row))
        rows.push_back(row);
      else
        ok = false;
      std::fprintf(stderr, "done: %s, preferred networks %s\n", row.scenario.c_str(),
                   row.prefnet.c_str());
    }
  }
  // The tool sits next to the library in the build tree.
  std::string tool = exe.substr(0, exe.rfind('/')) + "/../qxcurl";
  if (access(tool.c_str(), X_OK) == 0) {
    Row row;
    row.scenario = "qxcurl tool vs curl, one GET per process";
    row.target = 1.10;
    if (runTool(e, opt, tool, row))
      rows.push_back(row);
    else
      ok = false;
  } else {
    std::fprintf(stderr, "(tool %s not built: tool row skipped)\n", tool.c_str());
  }
  printTable(rows, opt);
  return ok ? 0 : 1;
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
    } else if (arg == "--tool-runs") {
      o.toolRuns = positive(value, "--tool-runs");
      ++i;
    } else if (arg == "--no-syscalls") {
      o.syscalls = false;
    } else if (arg == "--tool-only") {
      o.toolOnly = true;
    } else if (arg == "--hold") {
      o.hold = true;
    } else {
      std::fprintf(stderr,
                   "usage: %s [--requests N] [--connect-requests N] [--rounds N] [--tool-runs N]"
                   " [--no-syscalls] [--tool-only] [--hold]\n"
                   "  N kept-alive requests per run (1000), N requests per run that connect\n"
                   "  anew (200), alternating rounds per row (21), tool processes per side and\n"
                   "  round (20); --no-syscalls skips the strace counts; --hold keeps nginx\n"
                   "  and the roots until end of input, for profiling a child by hand\n",
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
