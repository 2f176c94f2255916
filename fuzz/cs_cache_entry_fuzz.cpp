// The cache entry reader over arbitrary entry file contents.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/qx_cs_cache.h"
#include "qxcurl/qx_status.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string handle = "master1:1556";
  const std::string key = "arvion/config/hosts";
  const long long now = 1700000000;
  std::string value = "unset";
  QXCSCacheEntry info;
  int rc = qxCSCacheParseEntry(text, handle, QX_CS_CACHE_KIND_WEBSVC, &key, now, &value, &info);
  if (rc != 0 && rc != QX_ERR_JSON_PARSE && rc != QX_ERR_TIMEOUT) abort();
  // A live entry is of this key, within the time-to-live limit, and its value
  // is the tail of the text; anything else hands out no value.
  if ((rc == 0) != !value.empty()) abort();
  if (rc == 0 &&
      (info.key != key || info.expires <= now || info.expires - info.stored > QX_CS_CACHE_MAX_TTL ||
       text.compare(text.size() - value.size(), value.size(), value) != 0)) {
    abort();
  }
  // Any key accepted: the same text reads the same way or as another key.
  int any =
      qxCSCacheParseEntry(text, handle, QX_CS_CACHE_KIND_WEBSVC, nullptr, now, nullptr, nullptr);
  if (rc != QX_ERR_JSON_PARSE && any == QX_ERR_JSON_PARSE) abort();
  return 0;
}
