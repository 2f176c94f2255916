#ifndef QXCURL_BENCH_BENCH_UTIL_H
#define QXCURL_BENCH_BENCH_UTIL_H
// Heap accounting for the benchmarks: every malloc-family call of the process
// (libcurl, OpenSSL and operator new included) is counted by an interposer
// linked into the benchmark executable.
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <string>

struct QXAllocCounters {
  uint64_t calls = 0;  // malloc, calloc, realloc and aligned allocations
  uint64_t bytes = 0;  // bytes requested by those calls
};

// clock_gettime(id) in nanoseconds.
int64_t qxBenchNowNs(clockid_t id);

// A libcurl write or header callback: appends the bytes to the std::string
// that out points at.
size_t qxBenchAppend(char* data, size_t size, size_t nmemb, void* out);

// Totals since the process started.
QXAllocCounters qxBenchAllocNow();

// False when the interposer is not in effect (for instance under a sanitizer
// that owns malloc), so that callers do not print zeros as if measured.
bool qxBenchAllocActive();

// Sets a file's modification time a minute back. The configuration reader
// re-reads a file written in the last two seconds on every call; an installed
// configuration is older than that, and so must the benchmarks' be.
bool qxBenchAgeFile(const std::string& path);
// With two allowed CPUs or more, keeps the server and the measured clients
// apart (as on a real network), so that they do not take turns on one CPU:
// the calling process, and what it starts afterwards, runs on the first
// allowed CPU (server true) or on the others (server false). False when the
// machine has one CPU or the affinity cannot be set; nothing changes then.
bool qxBenchPinTo(bool server);
#endif  // QXCURL_BENCH_BENCH_UTIL_H
