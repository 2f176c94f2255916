// One side of qxcurl_async_bench, in a process of its own, linked with the
// shared library as a program using it is: "raw" (libcurl multi),
// "qxcurl-poll" or "qxcurl-select" sends REQUESTS GETs with at most INFLIGHT
// in flight and prints one line:
//   RESULT <failures> <wall ms> <CPU ms> <allocations per request> <user ms> <system ms>
// Usage: qxcurl_async_bench_child IMPL PORT REQUESTS INFLIGHT CAFILE, with
// ARVION_ROOT naming the install root.
#include <curl/curl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "bench/bench_util.h"
#include "qxcurl/qxclnt_curlasync.h"

namespace {

const char* const kPath = "arvion/ping";

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
    curl_easy_setopt(x.handle, CURLOPT_WRITEFUNCTION, &qxBenchAppend);
    curl_easy_setopt(x.handle, CURLOPT_WRITEDATA, &x.body);
    curl_easy_setopt(x.handle, CURLOPT_HEADERFUNCTION, &qxBenchAppend);
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
    const int64_t now = qxBenchNowNs(CLOCK_MONOTONIC);
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
        const int64_t t = qxBenchNowNs(CLOCK_MONOTONIC);
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
    int64_t waitMs = std::max<int64_t>(0, (wake - qxBenchNowNs(CLOCK_MONOTONIC)) / 1000000);
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
  const int64_t wall0 = qxBenchNowNs(CLOCK_MONOTONIC),
                cpu0 = qxBenchNowNs(CLOCK_PROCESS_CPUTIME_ID);
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
              (qxBenchNowNs(CLOCK_MONOTONIC) - wall0) / 1e6,
              (qxBenchNowNs(CLOCK_PROCESS_CPUTIME_ID) - cpu0) / 1e6,
              static_cast<double>(heap1.calls - heap0.calls) / a.requests,
              ms(ru0.ru_utime, ru1.ru_utime), ms(ru0.ru_stime, ru1.ru_stime));
  std::fflush(stdout);
  return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    std::fprintf(stderr, "usage: %s IMPL PORT REQUESTS INFLIGHT CAFILE\n", argv[0]);
    return 2;
  }
  Args a;
  a.impl = argv[1];
  a.port = std::atoi(argv[2]);
  a.requests = std::atoi(argv[3]);
  a.inFlight = std::atoi(argv[4]);
  a.caFile = argv[5];
  return runChild(a);
}
