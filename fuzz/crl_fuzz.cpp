// CRL files as the resumption rule reads them (PEM, several per file, or one
// DER CRL): any bytes give a list of summaries, never a crash.
#include <cstdint>

#include "fuzz/fuzz_scratch.h"
#include "platform/qx_crl.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzWriteScratch("var/fuzz.crl", data, size);
  qxCrlSummaries({fuzzScratchRoot() + "/var/fuzz.crl"});
  return 0;
}
