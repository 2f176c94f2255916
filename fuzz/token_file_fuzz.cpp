// The token cache file reader over arbitrary file contents.
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "login_with_cert_manager.h"

namespace {
std::string scratchDir() {
  static std::string dir;
  if (dir.empty()) {
    // tmpfs when there is one: every save is flushed to its device.
    char shm[] = "/dev/shm/qxtokenfuzz-XXXXXX";
    char tmp[] = "/tmp/qxtokenfuzz-XXXXXX";
    char* made = mkdtemp(shm) != nullptr ? shm : mkdtemp(tmp);
    if (made == nullptr) abort();
    dir = made;
  }
  return dir;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static LoginWithCertManager mgr(443, CERT_TYPE_HOST, scratchDir(), "fuzz.webtoken.dat",
                                  "fuzz.websession.lck", true);
  // A fresh file each time: truncating one in place is slow on some file
  // systems and the run is about the reader, not about truncation.
  unlink(mgr.getTokenFilePath().c_str());
  FILE* f = fopen(mgr.getTokenFilePath().c_str(), "wb");
  if (f == nullptr) abort();
  if (size != 0 && fwrite(data, 1, size, f) != size) abort();
  fclose(f);
  chmod(mgr.getTokenFilePath().c_str(), 0600);
  jwtToken token;
  int rc = mgr.getLocalToken(token);
  if (rc != 0 && rc != 13) abort();
  // Whatever was read must be written back and read again unchanged (checked
  // on every eighth input: writing is what costs time here).
  static unsigned calls = 0;
  if (rc == 0 && calls++ % 8 == 0 && mgr.saveNewToken(token) == 0) {
    jwtToken again;
    if (mgr.getLocalToken(again) != 0 || again.token != token.token ||
        again.tokenExpTimeSec != token.tokenExpTimeSec ||
        again.tokenLastFailTimeSec != token.tokenLastFailTimeSec) {
      abort();
    }
  }
  return 0;
}
