// The cache entry reader over arbitrary entry file contents.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/qx_cs_cache.h"
#include "qxcurl/qx_status.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string key = "arvion/config/hosts";
  std::string value;
  QXCSCacheEntry info;
  for (const std::string* k : {&key, static_cast<const std::string*>(nullptr)}) {
    int rc = qxCSCacheParseEntry(text, "master1:1556", QX_CS_CACHE_KIND_WEBSVC, k, 1700000000,
                                 &value, &info);
    if (rc != 0 && rc != QX_ERR_JSON_PARSE && rc != QX_ERR_TIMEOUT) abort();
  }
  return 0;
}
