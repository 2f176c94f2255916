// Many requests in flight from one thread: the asynchronous client next to raw
// libcurl multi doing the same HTTPS GETs against the same emulated master.
//
// The parent makes a temporary install root, starts one emulator and, round
// after round, runs each implementation in a fresh child process (the order
// alternates); a child sends N GETs with at most M in flight in one loop and
// reports its wall and CPU time. The table shows medians and the spread.
//
//   raw           one multi handle, M easy handles reused as transfers end,
//                 curl_multi_poll
//   qxcurl-poll   M QXClientAsyncCURL, each reused, the poll interface
//   qxcurl-select the same through fd_sets and select()
#include <curl/curl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/select.h>
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
#include "qxcurl/qxclnt_curlasync.h"
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

int64_t clockNs(clockid_t id) {
  timespec ts{};
  clock_gettime(id, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

size_t appendTo(char* data, size_t size, size_t nmemb, void* out) {
  static_cast<std::string*>(out)->append(data, size * nmemb);
  return size * nmemb;
}

struct Args {
  std::string impl;
  int port = 0;
  int requests = 0;
  int inFlight = 0;
  std::string caFile;
};

// ---- raw libcurl multi ----

struct RawTransfer {
  CURL* handle = nullptr;
  std::string body, headers;
};

int runRaw(const Args& a) {
  const std::string url = "https://localhost:" + std::to_string(a.port) + "/" + kPath;
  curl_slist* hdrs = curl_slist_append(nullptr, "Accept: application/vnd.arvion+json;version=6.0");
  hdrs = curl_slist_append(hdrs, "Content-Type: application/vnd.arvion+json;version=6.0");
  hdrs = curl_slist_append(hdrs, "X-Client-ID: QX-CURL-qxcurl_async_bench");
  CURLM* multi = curl_multi_init();
  std::vector<RawTransfer> t(static_cast<size_t>(std::min(a.inFlight, a.requests)));
  int started = 0, done = 0, failures = 0;
  auto launch = [&](RawTransfer& x) {
    x.body.clear();
    x.headers.clear();
    curl_multi_add_handle(multi, x.handle);
    ++started;
  };
  for (RawTransfer& x : t) {
    x.handle = curl_easy_init();
    curl_easy_setopt(x.handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(x.handle, CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(x.handle, CURLOPT_CAINFO, a.caFile.c_str());
    curl_easy_setopt(x.handle, CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    curl_easy_setopt(x.handle, CURLOPT_CA_CACHE_TIMEOUT, 1L);
    curl_easy_setopt(x.handle, CURLOPT_HTTPHEADER, hdrs);
    curl_easy_setopt(x.handle, CURLOPT_WRITEFUNCTION, &appendTo);
    curl_easy_setopt(x.handle, CURLOPT_WRITEDATA, &x.body);
    curl_easy_setopt(x.handle, CURLOPT_HEADERFUNCTION, &appendTo);
    curl_easy_setopt(x.handle, CURLOPT_HEADERDATA, &x.headers);
    curl_easy_setopt(x.handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(x.handle, CURLOPT_TIMEOUT, 300L);
    curl_easy_setopt(x.handle, CURLOPT_PRIVATE, &x);
    launch(x);
  }
  while (done < a.requests) {
    int running = 0;
    curl_multi_perform(multi, &running);
    int queued = 0;
    for (CURLMsg* m; (m = curl_multi_info_read(multi, &queued)) != nullptr;) {
      if (m->msg != CURLMSG_DONE) continue;
      RawTransfer* x = nullptr;
      curl_easy_getinfo(m->easy_handle, CURLINFO_PRIVATE, &x);
      long code = 0;
      curl_easy_getinfo(m->easy_handle, CURLINFO_RESPONSE_CODE, &code);
      if (m->data.result != CURLE_OK || code != 200 || x->body.empty()) ++failures;
      ++done;
      curl_multi_remove_handle(multi, m->easy_handle);
      if (started < a.requests) launch(*x);
    }
    if (done < a.requests) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
  }
  for (RawTransfer& x : t) curl_easy_cleanup(x.handle);
  curl_multi_cleanup(multi);
  curl_slist_free_all(hdrs);
  return failures;
}

// ---- the asynchronous client ----

struct Slot {
  std::unique_ptr<QXClientAsyncCURL> client;
  bool busy = false;
  int64_t dueNs = 0;
  std::vector<struct pollfd> fds;
  size_t first = 0;
};

bool finished(int st) { return st == ASYNC_COMPLETED || st == ASYNC_FAILED; }

// As a service would: each slot is called when one of its descriptors is
// ready or its time-out is due.
int runClient(const Args& a, bool useSelect) {
  std::vector<Slot> slots(static_cast<size_t>(std::min(a.inFlight, a.requests)));
  for (Slot& s : slots) {
    s.client.reset(new QXClientAsyncCURL("localhost", a.port, kPath, "", REQTYPE_GET,
                                         CERT_TYPE_HOST, QXCURL_INSECURE));
    if (s.client->setCustomCAPath(a.caFile, "QXCA") != 0) throw 12;
  }
  int started = 0, done = 0, failures = 0;
  std::vector<struct pollfd> round;
  fd_set rd, wr, ex;
  while (done < a.requests) {
    const int64_t now = clockNs(CLOCK_MONOTONIC);
    if (useSelect) {
      FD_ZERO(&rd);
      FD_ZERO(&wr);
      FD_ZERO(&ex);
    }
    int maxfd = -1;
    int64_t wake = now + 1000000000;
    for (Slot& s : slots) {
      bool ready = false;
      for (size_t k = 0; k < s.fds.size() && !ready; ++k) ready = round[s.first + k].revents != 0;
      if (s.busy && !ready && now < s.dueNs) {
        // Not called this round: it still waits on the same descriptors.
        if (useSelect) {
          for (const pollfd& p : s.fds) {
            if (p.events & POLLIN) FD_SET(p.fd, &rd);
            if (p.events & POLLOUT) FD_SET(p.fd, &wr);
            maxfd = std::max(maxfd, p.fd);
          }
        }
        wake = std::min(wake, s.dueNs);
        continue;
      }
      for (;;) {
        bool starting = !s.busy;
        if (starting && started == a.requests) {
          s.fds.clear();
          break;
        }
        if (starting) {
          s.busy = true;
          ++started;
        }
        s.fds.clear();
        int st, ms = -1;
        if (useSelect) {
          fd_set r2, w2, e2;
          FD_ZERO(&r2);
          FD_ZERO(&w2);
          FD_ZERO(&e2);
          int m2 = -1;
          st = starting ? s.client->performAsyncRequest(r2, w2, e2, m2)
                        : s.client->isAsyncOperationCompleted(r2, w2, e2, m2);
          for (int fd = 0; fd <= m2; ++fd) {
            short ev = static_cast<short>((FD_ISSET(fd, &r2) ? POLLIN : 0) |
                                          (FD_ISSET(fd, &w2) ? POLLOUT : 0));
            if (ev == 0) continue;
            s.fds.push_back({fd, ev, 0});
            if (ev & POLLIN) FD_SET(fd, &rd);
            if (ev & POLLOUT) FD_SET(fd, &wr);
          }
          maxfd = std::max(maxfd, m2);
          ms = static_cast<int>(s.client->getAsyncWaitTimeoutMs());
        } else {
          st = starting ? s.client->performAsyncRequestPoll(s.fds, ms)
                        : s.client->isAsyncOperationCompletedPoll(s.fds, ms);
        }
        if (finished(st)) {
          if (st != ASYNC_COMPLETED || s.client->getHttpResponseStatusCode() != 200 ||
              s.client->getResponseData().empty())
            ++failures;
          ++done;
          s.busy = false;
          continue;
        }
        const int64_t t = clockNs(CLOCK_MONOTONIC);
        s.dueNs = st == ASYNC_IN_PROGRESS  ? t
                  : st == ASYNC_RETRY_WAIT ? t + s.client->getRetrySleepTime() * int64_t(1000000000)
                                           : t + (ms < 0 ? 1000 : ms) * int64_t(1000000);
        wake = std::min(wake, s.dueNs);
        break;
      }
    }
    if (done == a.requests) break;
    round.clear();
    for (Slot& s : slots) {
      s.first = round.size();
      round.insert(round.end(), s.fds.begin(), s.fds.end());
    }
    int64_t waitMs = std::max<int64_t>(0, (wake - clockNs(CLOCK_MONOTONIC)) / 1000000);
    if (useSelect) {
      struct timeval tv = {static_cast<time_t>(waitMs / 1000),
                           static_cast<suseconds_t>((waitMs % 1000) * 1000)};
      select(maxfd + 1, &rd, &wr, &ex, &tv);
      for (pollfd& p : round) {
        p.revents = static_cast<short>(((p.events & POLLIN) && FD_ISSET(p.fd, &rd) ? POLLIN : 0) |
                                       ((p.events & POLLOUT) && FD_ISSET(p.fd, &wr) ? POLLOUT : 0));
      }
    } else {
      poll(round.data(), round.size(), static_cast<int>(waitMs));
    }
  }
  return failures;
}

int runChild(const Args& a) {
  curl_global_init(CURL_GLOBAL_ALL);
  const int64_t wall0 = clockNs(CLOCK_MONOTONIC), cpu0 = clockNs(CLOCK_PROCESS_CPUTIME_ID);
  const QXAllocCounters heap0 = qxBenchAllocNow();
  struct rusage ru0 {};
  getrusage(RUSAGE_SELF, &ru0);
  int failures;
  try {
    failures = a.impl == "raw" ? runRaw(a) : runClient(a, a.impl == "qxcurl-select");
  } catch (int status) {
    std::fprintf(stderr, "%s: set-up failed with status %d\n", a.impl.c_str(), status);
    return 3;
  }
  const QXAllocCounters heap1 = qxBenchAllocNow();
  struct rusage ru1 {};
  getrusage(RUSAGE_SELF, &ru1);
  auto ms = [](const timeval& from, const timeval& to) {
    return static_cast<double>(to.tv_sec - from.tv_sec) * 1e3 +
           static_cast<double>(to.tv_usec - from.tv_usec) / 1e3;
  };
  std::printf("RESULT %d %.3f %.3f %.1f %.3f %.3f\n", failures,
              (clockNs(CLOCK_MONOTONIC) - wall0) / 1e6,
              (clockNs(CLOCK_PROCESS_CPUTIME_ID) - cpu0) / 1e6,
              static_cast<double>(heap1.calls - heap0.calls) / a.requests,
              ms(ru0.ru_utime, ru1.ru_utime), ms(ru0.ru_stime, ru1.ru_stime));
  std::fflush(stdout);
  return failures == 0 ? 0 : 1;
}

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
                          {"--child", impl, std::to_string(emulator.port()),
                           std::to_string(requests), std::to_string(inFlight), caFile},
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
  if (argc == 7 && std::strcmp(argv[1], "--child") == 0) {
    Args a;
    a.impl = argv[2];
    a.port = std::atoi(argv[3]);
    a.requests = std::atoi(argv[4]);
    a.inFlight = std::atoi(argv[5]);
    a.caFile = argv[6];
    return runChild(a);
  }
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
  return runParent(self, requests, inFlight, rounds);
}
