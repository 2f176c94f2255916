// Memory over many requests: one client making many requests on its kept
// connection, then many client objects created, used once and destroyed.
// The resident size must stay flat (growth past a warm-up bounded by a noise
// allowance); run under valgrind by scripts/bench, the same loops must come
// out clean. Counts, not times: nothing here is timed.
#include <curl/curl.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include "bench/bench_nginx.h"
#include "qxcurl/qxclnt_curl.h"
#include "testing/fixture/qx_test_env.h"

namespace {

long rssKb() {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, 6, "VmRSS:") == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return -1;
}

struct Options {
  int requests = 10000;
  int objects = 1000;
  bool checkRss = true;  // off under valgrind, whose own heap is what grows
  long allowanceKb = 512;
};

bool get(QXClientCURL& c) {
  return c.Get("arvion/ping") == 0 && c.getHttpCode() == 200 && c.getResponseBody() == "pong";
}

std::unique_ptr<QXClientCURL> newClient(int port, const std::string& ca) {
  auto c = std::make_unique<QXClientCURL>("localhost", port, CERT_TYPE_HOST, QXCURL_INSECURE,
                                          nullptr, "", true, false, false, "QXCA", ca);
  c->setCustomCAPath(ca, "QXCA");
  return c;
}

// Growth of the resident size from after the first tenth of a loop to its end.
bool phase(const char* name, int count, const Options& o, const std::function<bool()>& step) {
  int warm = count / 10 > 0 ? count / 10 : 1;
  long before = 0;
  for (int i = 0; i < count; ++i) {
    if (!step()) {
      std::printf("%s: request %d failed\n", name, i);
      return false;
    }
    if (i + 1 == warm) before = rssKb();
  }
  long after = rssKb();
  bool flat = !o.checkRss || after - before <= o.allowanceKb;
  std::printf("%-42s resident %ld KiB after %d, %ld KiB after %d (%+ld KiB)%s\n", name, before,
              warm, after, count, after - before, o.checkRss ? (flat ? "  flat" : "  GROWS") : "");
  return flat;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--requests" && i + 1 < argc) {
      o.requests = std::atoi(argv[++i]);
    } else if (a == "--objects" && i + 1 < argc) {
      o.objects = std::atoi(argv[++i]);
    } else if (a == "--no-rss-check") {
      o.checkRss = false;
    } else {
      std::fprintf(stderr,
                   "usage: %s [--requests N] [--objects N] [--no-rss-check]\n"
                   "  N requests on one client (10000), N client objects (1000)\n",
                   argv[0]);
      return 2;
    }
  }
  if (o.requests < 1 || o.objects < 1) return 2;
  curl_global_init(CURL_GLOBAL_ALL);
  int rc = 1;
  {
    QXTestRoot root;
    if (!root.ok() || !root.writeConfig("SERVER = localhost\nCRL_CHECK_LEVEL = 1\n")) {
      std::fprintf(stderr, "cannot make a test root: %s\n", root.error().c_str());
      return 1;
    }
    std::string dir = root.path("nginx");
    mkdir(dir.c_str(), 0700);
    QXBenchNginx nginx;
    std::string error;
    if (nginx.start(dir, root.pki("qxca/server.pem"), root.pki("qxca/server.key"), &error) != 0) {
      std::fprintf(stderr, "cannot start nginx: %s\n", error.c_str());
      return 1;
    }
    const std::string ca = root.pki("qxca/ca.pem");
    bool ok = true;
    {
      auto client = newClient(nginx.port(), ca);
      ok = phase("requests on one client (kept alive)", o.requests, o,
                 [&] { return get(*client); }) &&
           ok;
    }
    ok = phase("client objects, one request each", o.objects, o,
               [&] { return get(*newClient(nginx.port(), ca)); }) &&
         ok;
    rc = ok ? 0 : 1;
  }
  curl_global_cleanup();
  return rc;
}
