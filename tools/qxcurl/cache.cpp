// The cache command of qxcurl: what the cache of web-service results holds
// for one server and port, and its removal.
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "qxcurl/qx_status.h"
#include "qxcurl/qxclnt_curl.h"
#include "qxcurl_tool.h"

namespace qxtool {
namespace {

std::string utc(long long seconds) {
  time_t t = static_cast<time_t>(seconds);
  struct tm tm;
  char buf[32];
  if (gmtime_r(&t, &tm) == nullptr ||
      std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm) == 0)
    return std::to_string(seconds);
  return buf;
}

}  // namespace

int runCache(const Options& o) {
  if (o.listCache && o.clearCache) throw UsageError("--list and --clear exclude each other");
  std::unique_ptr<QXClientCURL> client;
  try {
    client.reset(
        new QXClientCURL(o.server, o.port, static_cast<cert_type>(o.certType), QXCURL_INSECURE));
  } catch (int status) {
    if (o.server.empty()) std::fprintf(stderr, "qxcurl: --server is required\n");
    if (o.port < 1) std::fprintf(stderr, "qxcurl: --port must be 1 or more\n");
    return reportStatus(status, nullptr);
  }
  if (o.clearCache) {
    int removed = 0;
    int rc = client->clearCachedResults(&removed);
    if (rc != 0) return reportStatus(rc, nullptr);
    std::printf("Removed %d cached results of %s:%d\n", removed, o.server.c_str(), o.port);
    return EXIT_OK;
  }
  std::vector<QXCachedResult> entries;
  int rc = client->listCachedResults(entries);
  if (rc != 0) return reportStatus(rc, nullptr);
  if (entries.empty()) {
    std::printf("No cached results of %s:%d\n", o.server.c_str(), o.port);
    return EXIT_OK;
  }
  const long long now = static_cast<long long>(std::time(nullptr));
  for (const QXCachedResult& e : entries) {
    long long left = e.expires - now;
    std::printf("%s  expires %s (%s %lld s)  %zu bytes\n", e.key.c_str(), utc(e.expires).c_str(),
                left > 0 ? "in" : "expired", left > 0 ? left : -left, e.size);
  }
  return EXIT_OK;
}

}  // namespace qxtool
