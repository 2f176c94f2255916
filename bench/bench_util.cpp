// malloc-family interposer: forwards to glibc's own entry points and counts.
// Defined in the executable, so it takes precedence over libc for every
// shared library of the process as well.
#include "bench/bench_util.h"

#include <sched.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <cstddef>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* ptr, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* ptr);
}

namespace {
// Resolver threads of libcurl allocate too: relaxed atomics are enough for
// totals read after the work is done.
std::atomic<uint64_t> g_calls{0};
std::atomic<uint64_t> g_bytes{0};

inline void count(size_t size) {
  g_calls.fetch_add(1, std::memory_order_relaxed);
  g_bytes.fetch_add(size, std::memory_order_relaxed);
}
}  // namespace

extern "C" {
__attribute__((visibility("default"))) void* malloc(size_t size) {
  count(size);
  return __libc_malloc(size);
}

__attribute__((visibility("default"))) void free(void* ptr) { __libc_free(ptr); }

__attribute__((visibility("default"))) void* calloc(size_t count_, size_t size) {
  count(count_ * size);
  return __libc_calloc(count_, size);
}

__attribute__((visibility("default"))) void* realloc(void* ptr, size_t size) {
  count(size);
  return __libc_realloc(ptr, size);
}

__attribute__((visibility("default"))) void* memalign(size_t alignment, size_t size) {
  count(size);
  return __libc_memalign(alignment, size);
}

__attribute__((visibility("default"))) void* aligned_alloc(size_t alignment, size_t size) {
  count(size);
  return __libc_memalign(alignment, size);
}

__attribute__((visibility("default"))) int posix_memalign(void** out, size_t alignment,
                                                          size_t size) {
  if (alignment < sizeof(void*) || (alignment & (alignment - 1)) != 0) return EINVAL;
  count(size);
  void* p = __libc_memalign(alignment, size);
  if (p == nullptr) return ENOMEM;
  *out = p;
  return 0;
}
}

QXAllocCounters qxBenchAllocNow() {
  QXAllocCounters c;
  c.calls = g_calls.load(std::memory_order_relaxed);
  c.bytes = g_bytes.load(std::memory_order_relaxed);
  return c;
}

bool qxBenchAllocActive() {
  // One allocation must move the counter; volatile keeps it from being elided.
  uint64_t before = g_calls.load(std::memory_order_relaxed);
  void* volatile p = malloc(16);
  free(p);
  return g_calls.load(std::memory_order_relaxed) != before;
}

bool qxBenchAgeFile(const std::string& path) {
  timeval now{};
  gettimeofday(&now, nullptr);
  timeval times[2] = {now, now};
  times[0].tv_sec -= 60;
  times[1].tv_sec -= 60;
  return utimes(path.c_str(), times) == 0;
}

bool qxBenchPinTo(bool server) {
  // The set allowed when first asked, so that a second call can widen again.
  static cpu_set_t allowed;
  static int count = [] {
    CPU_ZERO(&allowed);
    return sched_getaffinity(0, sizeof allowed, &allowed) == 0 ? CPU_COUNT(&allowed) : 0;
  }();
  if (count < 2) return false;
  cpu_set_t want;
  CPU_ZERO(&want);
  bool first = true;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(cpu, &allowed)) continue;
    if (first == server) CPU_SET(cpu, &want);
    first = false;
  }
  return sched_setaffinity(0, sizeof want, &want) == 0;
}

int64_t qxBenchNowNs(clockid_t id) {
  timespec ts{};
  clock_gettime(id, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

size_t qxBenchAppend(char* data, size_t size, size_t nmemb, void* out) {
  static_cast<std::string*>(out)->append(data, size * nmemb);
  return size * nmemb;
}
