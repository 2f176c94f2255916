// N requests to one master at the same time from one thread, with the
// asynchronous client: a select() loop, or the same through poll().
//
//   qxcurl_async_example --server master1 [--port 1556] [--cacert ca.pem]
//                        [--count 20] [--path arvion/ping] [--token] [--poll]
//
// Prints one line per request and exits 0 when all of them got HTTP 2xx.
#include <poll.h>
#include <sys/select.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "qxcurl/qx_status.h"
#include "qxcurl/qxclnt_curlasync.h"

namespace {

struct Request {
  std::unique_ptr<QXClientAsyncCURL> client;
  int state = -1;      // last QXAsyncStatus; -1 before the start
  time_t retryAt = 0;  // after ASYNC_RETRY_WAIT: when to call again
};

bool finished(int state) { return state == ASYNC_COMPLETED || state == ASYNC_FAILED; }

// Advances one request; its descriptors go into the sets (select) or fds (poll).
void advance(Request& r, bool usePoll, fd_set& rd, fd_set& wr, fd_set& ex, int& maxfd,
             std::vector<pollfd>& fds, long& waitMs) {
  QXClientAsyncCURL& c = *r.client;
  int ms = -1;
  if (usePoll) {
    r.state =
        r.state < 0 ? c.performAsyncRequestPoll(fds, ms) : c.isAsyncOperationCompletedPoll(fds, ms);
  } else {
    r.state = r.state < 0 ? c.performAsyncRequest(rd, wr, ex, maxfd)
                          : c.isAsyncOperationCompleted(rd, wr, ex, maxfd);
    ms = static_cast<int>(c.getAsyncWaitTimeoutMs());
  }
  if (r.state == ASYNC_RETRY_WAIT) {
    r.retryAt = time(nullptr) + c.getRetrySleepTime();
  } else if (r.state == ASYNC_IN_PROGRESS) {
    waitMs = 0;
  } else if (r.state == ASYNC_WAIT_FDS && ms >= 0) {
    waitMs = std::min<long>(waitMs, ms);
  }
}

// Runs every request to its end. For brevity every request is advanced on
// each round; a service would advance only those whose descriptors are ready.
void run(std::vector<Request>& requests, bool usePoll) {
  for (;;) {
    fd_set rd, wr, ex;
    FD_ZERO(&rd);
    FD_ZERO(&wr);
    FD_ZERO(&ex);
    int maxfd = -1;
    std::vector<pollfd> fds;
    long waitMs = 1000;
    bool pending = false;
    for (Request& r : requests) {
      if (finished(r.state)) continue;
      pending = true;
      if (r.state == ASYNC_RETRY_WAIT && time(nullptr) < r.retryAt) {
        waitMs = std::min<long>(waitMs, 1000 * (r.retryAt - time(nullptr)));
        continue;
      }
      advance(r, usePoll, rd, wr, ex, maxfd, fds, waitMs);
    }
    if (!pending) return;
    if (usePoll) {
      poll(fds.data(), fds.size(), static_cast<int>(waitMs));
    } else {
      timeval tv = {waitMs / 1000, (waitMs % 1000) * 1000};
      select(maxfd + 1, &rd, &wr, &ex, &tv);
    }
  }
}

const char* value(int& i, int argc, char** argv) {
  if (i + 1 >= argc) {
    std::fprintf(stderr, "%s needs a value\n", argv[i]);
    std::exit(2);
  }
  return argv[++i];
}

}  // namespace

int main(int argc, char** argv) {
  std::string server, cacert, path = "arvion/ping";
  int port = 1556, count = 20;
  bool usePoll = false, token = false;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--server")
      server = value(i, argc, argv);
    else if (a == "--port")
      port = std::atoi(value(i, argc, argv));
    else if (a == "--cacert")
      cacert = value(i, argc, argv);
    else if (a == "--count")
      count = std::atoi(value(i, argc, argv));
    else if (a == "--path")
      path = value(i, argc, argv);
    else if (a == "--poll")
      usePoll = true;
    else if (a == "--token")
      token = true;
    else {
      std::fprintf(stderr,
                   "usage: %s --server S [--port N] [--cacert F] [--count N] "
                   "[--path P] [--token] [--poll]\n",
                   argv[0]);
      return 2;
    }
  }

  // One client per request in flight; the factory's result belongs to us.
  QXClientAsyncCURLFactory factory;
  std::vector<Request> requests(static_cast<size_t>(std::max(count, 0)));
  for (Request& r : requests) {
    r.client.reset(factory.createClientAsyncCURL(server, port, path, "", REQTYPE_GET,
                                                 CERT_TYPE_HOST,
                                                 token ? QXCURL_USE_TOKEN : QXCURL_INSECURE));
    if (!r.client) {
      std::fprintf(stderr, "cannot create a client for %s:%d\n", server.c_str(), port);
      return 3;
    }
    if (!cacert.empty()) r.client->setCustomCAPath(cacert, "QXCA");
  }

  run(requests, usePoll);

  int good = 0;
  for (size_t i = 0; i < requests.size(); ++i) {
    QXClientAsyncCURL& c = *requests[i].client;
    long http = c.getHttpResponseStatusCode();
    bool ok = requests[i].state == ASYNC_COMPLETED && http >= 200 && http <= 299;
    good += ok ? 1 : 0;
    std::printf("request %zu: %s, status %d (%s), HTTP %ld, %zu bytes\n", i + 1,
                ok ? "ok" : "FAILED", c.getQxuErrorCode(), getECmsg(c.getQxuErrorCode()), http,
                c.getResponseData().size());
  }
  std::printf("%d of %zu requests succeeded through %s()\n", good, requests.size(),
              usePoll ? "poll" : "select");
  return good == count ? 0 : 1;
}
