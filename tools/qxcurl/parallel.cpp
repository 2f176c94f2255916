// qxcurl --repeat N --parallel M: the request N times through the
// asynchronous client, at most M in flight, all in this thread's poll() loop,
// then a summary in the manner of load probes.
//
// Each of the M slots owns one client and sends its requests one after the
// other, so that its connection is kept alive: M connections at most.
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "qxcurl/qx_status.h"
#include "qxcurl/qxclnt_curlasync.h"
#include "qxcurl_tool.h"

namespace qxtool {
namespace {

using Clock = std::chrono::steady_clock;

struct Slot {
  std::unique_ptr<QXClientAsyncCURL> client;
  int request = 0;  // number (from 1) of the request it carries; 0 when idle
  Clock::time_point started;
  Clock::time_point due;  // call again by then even if nothing is ready
  std::vector<struct pollfd> fds;
  size_t first = 0;  // where its descriptors are in the round's array
};

struct Result {
  bool completed = false;
  int status = 0;
  long http = 0;
  double ms = 0;
};

REQTYPE typeFor(const std::string& method) {
  if (method == "POST") return REQTYPE_POST;
  if (method == "PUT") return REQTYPE_PUT;
  if (method == "PATCH") return REQTYPE_PATCH;
  if (method == "DELETE") return REQTYPE_DELETE;
  return REQTYPE_GET;
}

// Each line of text, prefixed with the request's number.
void printNumbered(FILE* out, int number, const std::string& text) {
  for (size_t pos = 0; pos < text.size();) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    size_t len = end - pos;
    if (len > 0 && text[end - 1] == '\r') --len;
    std::fprintf(out, "[%d] %.*s\n", number, static_cast<int>(len), text.data() + pos);
    pos = end + 1;
  }
}

// Nearest rank.
double percentile(const std::vector<double>& sorted, double p) {
  if (sorted.empty()) return 0;
  size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(sorted.size())));
  return sorted[std::min(sorted.size(), std::max<size_t>(rank, 1)) - 1];
}

class Runner {
 public:
  explicit Runner(const Options& o)
      : m_o(o), m_slots(static_cast<size_t>(std::min(o.parallel, o.repeat))) {}

  // 0, or the exit code after reporting why the clients could not be made.
  int prepare() {
    const REQTYPE type = typeFor(m_o.method);
    const int session = sessionTypeFor(m_o);
    for (Slot& s : m_slots) {
      try {
        s.client.reset(new QXClientAsyncCURL(
            m_o.server, m_o.port, m_o.path, m_o.data, type, static_cast<cert_type>(m_o.certType),
            static_cast<QXCurlSessionType>(session), nullptr, m_o.caType));
      } catch (int status) {
        if (m_o.server.empty()) std::fprintf(stderr, "qxcurl: --server is required\n");
        if (m_o.port < 1) std::fprintf(stderr, "qxcurl: --port must be 1 or more\n");
        if (session < 0) std::fprintf(stderr, "qxcurl: bad --session '%s'\n", m_o.session.c_str());
        return reportStatus(status, nullptr);
      }
      int exitCode = configureRequestClient(m_o, *s.client);
      if (exitCode != 0) return exitCode;
    }
    return 0;
  }

  void run() {
    m_results.resize(static_cast<size_t>(m_o.repeat));
    const Clock::time_point begin = Clock::now();
    std::vector<struct pollfd> round;
    while (m_done < m_o.repeat) {
      const Clock::time_point now = Clock::now();
      for (Slot& s : m_slots) {
        bool ready = false;
        for (size_t k = 0; k < s.fds.size() && !ready; ++k) ready = round[s.first + k].revents != 0;
        if (s.request == 0 || ready || now >= s.due) step(s);
      }
      if (m_done == m_o.repeat) break;
      round.clear();
      Clock::time_point wake = Clock::now() + std::chrono::seconds(1);
      for (Slot& s : m_slots) {
        s.first = round.size();
        round.insert(round.end(), s.fds.begin(), s.fds.end());
        if (s.request != 0) wake = std::min(wake, s.due);
      }
      auto waitMs =
          std::chrono::duration_cast<std::chrono::milliseconds>(wake - Clock::now()).count();
      ::poll(round.data(), round.size(), static_cast<int>(std::max<long long>(0, waitMs)));
    }
    m_totalMs = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
  }

  int summary() const;

 private:
  // Starts the slot's next request when it is idle, advances the one it
  // carries, collects it when it ends, and notes what to wait for.
  void step(Slot& s) {
    for (;;) {
      bool starting = s.request == 0;
      if (starting) {
        if (m_next > m_o.repeat) {
          s.fds.clear();
          return;
        }
        s.request = m_next++;
        s.started = Clock::now();
      }
      s.fds.clear();
      int waitMs = -1;
      QXClientAsyncCURL& c = *s.client;
      int st = starting ? c.performAsyncRequestPoll(s.fds, waitMs)
                        : c.isAsyncOperationCompletedPoll(s.fds, waitMs);
      Clock::time_point now = Clock::now();
      if (st == ASYNC_COMPLETED || st == ASYNC_FAILED) {
        finish(s, st == ASYNC_COMPLETED, now);
        continue;  // the slot's next request, on the same connection
      }
      if (st == ASYNC_RETRY_WAIT) {
        s.fds.clear();
        s.due = now + std::chrono::seconds(c.getRetrySleepTime());
      } else if (st == ASYNC_IN_PROGRESS) {
        s.due = now;
      } else {
        s.due = now + std::chrono::milliseconds(waitMs < 0 ? 1000 : waitMs);
      }
      return;
    }
  }

  void finish(Slot& s, bool completed, Clock::time_point now) {
    QXClientAsyncCURL& c = *s.client;
    Result& r = m_results[static_cast<size_t>(s.request - 1)];
    r.completed = completed;
    r.status = completed ? 0 : c.getQxuErrorCode();
    r.http = c.getHttpResponseStatusCode();
    r.ms = std::chrono::duration<double, std::milli>(now - s.started).count();
    if (m_o.include) {
      const std::string& tunnel = c.getTunnelUsed();
      if (!tunnel.empty()) std::printf("[%d] Tunnel: %s:1556\n", s.request, tunnel.c_str());
      printNumbered(stdout, s.request, c.getResponseHeaders());
      printNumbered(stdout, s.request, c.getResponseData());
    }
    if (m_o.verbose) {
      std::fprintf(stderr, "[%d] status %d, HTTP %ld, %.1f ms, %s\n", s.request, r.status, r.http,
                   r.ms,
                   c.getTunnelUsed().empty() ? "direct" : ("tunnel " + c.getTunnelUsed()).c_str());
    }
    ++m_done;
    s.request = 0;
  }

  const Options& m_o;
  std::vector<Slot> m_slots;
  std::vector<Result> m_results;
  int m_next = 1;
  int m_done = 0;
  double m_totalMs = 0;
};

int Runner::summary() const {
  std::map<int, int> statuses;
  std::map<long, int> codes;
  std::vector<double> latencies;
  int completed = 0;
  bool httpError = false;
  for (const Result& r : m_results) {
    completed += r.completed ? 1 : 0;
    ++statuses[r.status];
    if (r.http != 0) ++codes[r.http];
    if (r.completed && (r.http < 200 || r.http > 299)) httpError = true;
    latencies.push_back(r.ms);
  }
  std::sort(latencies.begin(), latencies.end());
  const int n = m_o.repeat;
  std::printf("Summary:\n");
  std::printf("  Requests:\t%d (at most %zu in flight)\n", n, m_slots.size());
  std::printf("  Total:\t%.3f s\n", m_totalMs / 1000);
  std::printf("  Requests/s:\t%.1f\n", m_totalMs > 0 ? n * 1000.0 / m_totalMs : 0.0);
  std::printf("  Completed:\t%d\n", completed);
  std::printf("  Failed:\t%d\n", n - completed);
  std::printf("Statuses:\n");
  for (const auto& [status, count] : statuses)
    std::printf("  [%d]\t%d\t%s\n", status, count, getECmsg(status));
  std::printf("HTTP codes:\n");
  for (const auto& [code, count] : codes) std::printf("  [%ld]\t%d\n", code, count);
  std::printf("Latency:\n");
  std::printf("  Fastest:\t%.1f ms\n", latencies.front());
  std::printf("  Median:\t%.1f ms\n", percentile(latencies, 0.5));
  std::printf("  99th pct:\t%.1f ms\n", percentile(latencies, 0.99));
  std::printf("  Slowest:\t%.1f ms\n", latencies.back());
  std::fflush(stdout);
  if (completed < n) return EXIT_STATUS;
  return httpError ? EXIT_HTTP : EXIT_OK;
}

}  // namespace

int runParallel(const Options& o) {
  Runner runner(o);
  int exitCode = runner.prepare();
  if (exitCode != 0) return exitCode;
  runner.run();
  return runner.summary();
}

}  // namespace qxtool
