// CRL files as the resumption rule reads them (PEM, several per file, or one
// DER CRL): any bytes give a list of summaries, never a crash.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/qx_crl.h"

namespace {
const std::string& crlFile() {
  static const std::string path = [] {
    std::string tmpl = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    tmpl += "/qxcrl-fuzz-XXXXXX";
    int fd = mkstemp(&tmpl[0]);
    if (fd < 0) abort();
    close(fd);
    static std::string keep = tmpl;
    atexit([] { std::remove(keep.c_str()); });
    return tmpl;
  }();
  return path;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FILE* f = std::fopen(crlFile().c_str(), "wb");
  if (f == nullptr) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);
  for (const QXCrlSummary& s : qxCrlSummaries({crlFile()})) {
    if (s.issuerDer.empty()) abort();
  }
  return 0;
}
