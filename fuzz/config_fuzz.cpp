// Master configuration parser over arbitrary file contents.
#include <cstdint>
#include <string>

#include "fuzz/fuzz_scratch.h"
#include "platform/qx_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzWriteScratch("arvion/arvion.conf", data, size);
  if (QX_read_master_config() != 0) return 0;
  QXConfigHandle cfg = get_master_config_ptr();
  for (const char* key : {"SERVER", "MEDIA_SERVER", "CRL_CHECK_LEVEL", "IS_SERVER", "A", ""}) {
    bool b;
    long n;
    std::string v;
    bpconfGetKeyValPairAsBool(cfg, key, &b);
    bpconfGetKeyValueAsInt(cfg, key, &n);
    bpconfGetKeyValue(cfg, key, v);
  }
  qxconf_info* info = nullptr;
  if (qxconf_get_info(&info) == 0) qxconf_free_info(&info);
  unsigned level = 0;
  getCrlCheckLevelFromConfig(&level);
  IsFeatureEnabled_c(1);
  return 0;
}
