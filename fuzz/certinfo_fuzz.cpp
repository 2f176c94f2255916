// Name extraction from libcurl's certificate-info text, one entry per line.
#include <curl/curl.h>

#include <cstdint>
#include <list>
#include <string>

#include "tls/qx_tls_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  curl_slist* entries = nullptr;
  size_t start = 0;
  while (start <= text.size()) {
    size_t nl = text.find('\n', start);
    std::string line = text.substr(start, nl == std::string::npos ? std::string::npos : nl - start);
    curl_slist* next = curl_slist_append(entries, line.c_str());  // stops at an embedded NUL
    if (next == nullptr) break;
    entries = next;
    if (nl == std::string::npos) break;
    start = nl + 1;
  }
  std::list<std::string> names;
  std::string cn;
  qxCertInfoNames(entries, names, &cn);
  curl_slist_free_all(entries);
  return 0;
}
