// The certificate map parser over arbitrary file contents.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "qx_certmap.h"

namespace {

std::string g_root;

void removeRoot() {
  std::remove((g_root + "/var/certmap.json").c_str());
  rmdir((g_root + "/var").c_str());
  rmdir(g_root.c_str());
}

const std::string& mapFile() {
  static const std::string path = [] {
    // Memory-backed when possible: the map is rewritten for every input.
    std::string tmpl = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    tmpl += "/qxcertmap-fuzz-XXXXXX";
    char* dir = &tmpl[0];
    if (mkdtemp(dir) == nullptr) abort();
    g_root = dir;
    mkdir((g_root + "/var").c_str(), 0700);
    setenv("ARVION_ROOT", dir, 1);
    atexit(removeRoot);
    return g_root + "/var/certmap.json";
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string& path = mapFile();
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);

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
