// The certificate map parser over arbitrary file contents.
#include <cstdint>
#include <string>

#include "fuzz/fuzz_scratch.h"
#include "platform/qx_certmap.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzWriteScratch("var/certmap.json", data, size);
  certMapInfo info;
  if (getCertMapInfo(CERT_TYPE_HOST, "localhost", info) == 0) {
    host_cert_data hcd{};
    getCertDataByCAtypeExEx(info, getCaSupportedByThisHost(info), 1, 0, &hcd);
    getCertDataByCAtypeExEx(info, CA_USAGE_QXCA, 1, 0, &hcd);
  }
  int mode = 0, current = 0;
  getCAModeByServer(CERT_TYPE_HOST, "LOCALHOST", &mode);
  compareTrustVersion(CERT_TYPE_HOST, "1.0", "localhost", &current);
  for (int type = 1; type <= 2; ++type) {
    certInfo* list = nullptr;
    if (getAllCertInfoByType(type, &list) == 0) getTargetMasterCert(list, "localhost");
    freeCertInfoList(&list);
  }
  getConfiguredCrlFiles();
  return 0;
}
