#include "platform/qx_log.h"

#include <fcntl.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "platform/qx_safefile.h"
#include "platform/qx_util.h"

namespace {

// What the hot path reads: a sink flag and the threshold of the destination
// (INT_MAX when there is none), refreshed at most once a second.
std::atomic<bool> g_sinkSet{false};
std::atomic<int> g_threshold{INT_MAX};
std::atomic<long> g_nextRefresh{0};  // coarse monotonic seconds

std::recursive_mutex g_outMutex;  // destination and sink (a sink may log)
std::mutex g_refreshMutex;
QXLogSink g_sink;
std::string g_destName;  // "", "stderr" or a path
int g_destFd = -1;       // owned when g_destName is a path

// What the master configuration says (pushed by the configuration service);
// the environment wins over it.
std::mutex g_confMutex;
std::string g_confDest;
std::string g_confLevel;

thread_local int t_inSink = 0;           // a sink that logs does not recurse forever
thread_local bool t_refreshing = false;  // configuration parsing logs while we refresh

long coarseSeconds() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
  return ts.tv_sec;
}

int parseLevel(const std::string& s) {
  std::string t = trim(s);
  if (t == "2" || t == "4" || t == "8" || t == "16") return std::atoi(t.c_str());
  return QXLOG_PROGRESS;
}

// Called with g_outMutex held.
void setDestination(const std::string& name) {
  if (name == g_destName && (name.empty() || name == "stderr" || g_destFd >= 0)) return;
  if (g_destFd >= 0) close(g_destFd);
  g_destFd = -1;
  g_destName = name;
  if (!name.empty() && name != "stderr") {
    // The file may sit in a directory others write ("/tmp"): never through
    // a link, only a file of our own, and a new one created exclusively.
    // Anything else is not logged to.
    QXFileTrust trust;
    g_destFd = qxOpenTrusted(name, O_WRONLY | O_APPEND, &trust);
    if (g_destFd < 0 && trust == QX_FILE_ABSENT) {
      g_destFd = qxCreateExclusive(name, O_WRONLY | O_APPEND, 0600);
      if (g_destFd < 0 && errno == EEXIST)
        g_destFd = qxOpenTrusted(name, O_WRONLY | O_APPEND, nullptr);
    }
  }
}

void refresh() {
  if (t_refreshing) return;
  std::unique_lock<std::mutex> guard(g_refreshMutex, std::try_to_lock);
  if (!guard.owns_lock()) return;  // another thread is at it
  // Set first: configuration parsing below logs, and must not come back here.
  g_nextRefresh.store(coarseSeconds() + 1, std::memory_order_relaxed);
  t_refreshing = true;

  std::string dest, level;
  const char* envDest = std::getenv("QXCURL_LOG");
  const char* envLevel = std::getenv("QXCURL_LOG_LEVEL");
  {
    std::lock_guard<std::mutex> conf(g_confMutex);
    dest = envDest != nullptr ? envDest : g_confDest;
    level = envLevel != nullptr ? envLevel : g_confLevel;
  }
  t_refreshing = false;
  dest = trim(dest);
  int threshold = dest.empty() ? INT_MAX : parseLevel(level);
  {
    std::lock_guard<std::recursive_mutex> out(g_outMutex);
    setDestination(dest);
    if (!dest.empty() && dest != "stderr" && g_destFd < 0) threshold = INT_MAX;
  }
  g_threshold.store(threshold, std::memory_order_relaxed);
}

void formatLine(std::string& line, int level, int category, const char* tag,
                const std::string& text) {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm tmv;
  gmtime_r(&tv.tv_sec, &tmv);
  char head[96];
  (void)snprintf(head, sizeof head, "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ %ld L%d C%d ",
                 tmv.tm_year + 1900, tmv.tm_mon + 1, tmv.tm_mday, tmv.tm_hour, tmv.tm_min,
                 tmv.tm_sec, static_cast<long>(tv.tv_usec / 1000), static_cast<long>(getpid()),
                 level, category);
  line = head;
  line += tag != nullptr ? tag : "-";
  line += ": ";
  for (char c : text) line += (c == '\n' || c == '\r') ? ' ' : c;
  while (!line.empty() && line.back() == ' ') line.pop_back();
  line += '\n';
}

void writeAll(int fd, const std::string& s) {
  size_t off = 0;
  while (off < s.size()) {
    ssize_t n = write(fd, s.data() + off, s.size() - off);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    off += static_cast<size_t>(n);
  }
}

}  // namespace

bool qxLogWanted(int level) {
  if (g_sinkSet.load(std::memory_order_relaxed)) return true;
  if (coarseSeconds() >= g_nextRefresh.load(std::memory_order_relaxed)) refresh();
  return level >= g_threshold.load(std::memory_order_relaxed);
}

void logmsg(int level, int category, const char* tag, const char* text) {
  if (!qxLogWanted(level)) return;
  std::string body = text != nullptr ? text : "";
  // Last line of defence: a token that reached a message is shown masked.
  if (body.find("eyJ") != std::string::npos) body = mask_jwt(body);

  std::lock_guard<std::recursive_mutex> out(g_outMutex);
  if (g_sink && t_inSink == 0) {
    ++t_inSink;
    g_sink(level, category, tag != nullptr ? tag : "", body);
    --t_inSink;
  }
  if (level < g_threshold.load(std::memory_order_relaxed)) return;
  int fd = g_destName == "stderr" ? STDERR_FILENO : g_destFd;
  if (fd < 0) return;
  std::string line;
  formatLine(line, level, category, tag, body);
  writeAll(fd, line);  // one write per line: O_APPEND keeps processes' lines whole
}

void logmsgvf(int level, int category, const char* tag, const char* fmt, va_list ap) {
  if (!qxLogWanted(level) || fmt == nullptr) return;
  char small[512];
  va_list copy;
  va_copy(copy, ap);
  int n = vsnprintf(small, sizeof small, fmt, copy);
  va_end(copy);
  if (n < 0) return;
  if (static_cast<size_t>(n) < sizeof small) {
    logmsg(level, category, tag, small);
    return;
  }
  std::unique_ptr<char[]> big(new char[static_cast<size_t>(n) + 1]);
  (void)vsnprintf(big.get(), static_cast<size_t>(n) + 1, fmt, ap);
  logmsg(level, category, tag, big.get());
}

void logmsgf(int level, int category, const char* tag, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  logmsgvf(level, category, tag, fmt, ap);
  va_end(ap);
}

void qxSetLogSink(QXLogSink sink) {
  std::lock_guard<std::recursive_mutex> out(g_outMutex);
  g_sink = std::move(sink);
  g_sinkSet.store(static_cast<bool>(g_sink), std::memory_order_relaxed);
}

void qxLogConfigure(const std::string& dest, const std::string& level) {
  {
    std::lock_guard<std::mutex> conf(g_confMutex);
    if (dest == g_confDest && level == g_confLevel) return;
    g_confDest = dest;
    g_confLevel = level;
  }
  g_nextRefresh.store(0, std::memory_order_relaxed);
}

void qxLogReconfigure() {
  g_nextRefresh.store(0, std::memory_order_relaxed);
  refresh();
}

QXLogStream::QXLogStream(int level, const char* tag, int category)
    : m_level(level), m_category(category), m_tag(tag) {
  if (qxLogWanted(level)) m_os.emplace();
}

QXLogStream::~QXLogStream() {
  if (m_os) logmsg(m_level, m_category, m_tag, m_os->str().c_str());
}
