// A private install root for a fuzz target whose parser reads a file: on
// tmpfs when there is one (a file rewritten for every input is flushed to its
// device on a disk file system), ARVION_ROOT pointing at it, removed at exit.
#ifndef QXCURL_FUZZ_FUZZ_SCRATCH_H
#define QXCURL_FUZZ_FUZZ_SCRATCH_H
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

inline const std::string& fuzzScratchRoot() {
  // Never destroyed: the exit handler below still needs it.
  static const std::string* root = [] {
    char shm[] = "/dev/shm/qxfuzz-XXXXXX";
    char tmp[] = "/tmp/qxfuzz-XXXXXX";
    const char* made = mkdtemp(shm) != nullptr ? shm : mkdtemp(tmp);
    if (made == nullptr) abort();
    std::string dir = made;
    if (mkdir((dir + "/var").c_str(), 0700) != 0 || mkdir((dir + "/arvion").c_str(), 0700) != 0)
      abort();
    setenv("ARVION_ROOT", made, 1);
    atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(fuzzScratchRoot(), ignored);
    });
    return new std::string(dir);
  }();
  return *root;
}

// Replaces the file at rel (under the scratch root) with the input, mode 0600.
inline void fuzzWriteScratch(const std::string& rel, const uint8_t* data, size_t size) {
  const std::string path = fuzzScratchRoot() + "/" + rel;
  unlink(path.c_str());
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr || (size != 0 && std::fwrite(data, 1, size, f) != size)) abort();
  std::fclose(f);
  chmod(path.c_str(), 0600);
}
#endif  // QXCURL_FUZZ_FUZZ_SCRATCH_H
