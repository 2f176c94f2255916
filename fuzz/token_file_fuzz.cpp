// The token cache file reader over arbitrary file contents.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_scratch.h"
#include "qxcurl/login_with_cert_manager.h"
#include "qxcurl/qx_status.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static LoginWithCertManager mgr(443, CERT_TYPE_HOST, fuzzScratchRoot() + "/var",
                                  "fuzz.webtoken.dat", "fuzz.websession.lck", true);
  fuzzWriteScratch("var/fuzz.webtoken.dat", data, size);
  jwtToken token;
  int rc = mgr.getLocalToken(token);
  if (rc != 0 && rc != QX_ERR_FILE_OPEN) abort();
  return 0;
}
