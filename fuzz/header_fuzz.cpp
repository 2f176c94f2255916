// Response header text and wrapped JSON bodies come from the network: the
// header field reader, the JSON unwrapping and the masked wire trace must take
// anything.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "client/qxclnt_curl_trace.h"
#include "qxcurl/qx_status.h"
#include "qxcurl/qxclnt_curl.h"

namespace {
QXClientCURL* client() {
  // No install root of its own: keep the configuration lookups away from a
  // real installation.
  static QXClientCURL* c = [] {
    setenv("ARVION_ROOT", "/nonexistent-qxcurl-fuzz-root", 0);
    return new QXClientCURL("localhost", 1556, CERT_TYPE_HOST, QXCURL_INSECURE);
  }();
  return c;
}

const char* const kFields[] = {
    "X-Arvion-API-Version", "X-Cache-Validity", "X-Target-Master", "Content-Type", "X", ":"};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  QXClientCURL* c = client();
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  c->m_responseHeaders = text;
  std::string value;
  int rc = c->getHttpHeaderField(kFields[data[0] % (sizeof kFields / sizeof kFields[0])], value);
  if (rc != 0 && rc != QX_ERR_HEADER_FIELD && rc != QX_ERR_BAD_RESPONSE) std::abort();
  c->getCacheTTLFromAPIHeader();
  c->m_responseBody = text;
  c->makeStringResponseFromJson();
  c->m_responseBody = text;
  c->makeJsonResponseFromString(value);
  const std::string masked = (data[0] & 1) ? qxMaskTraceHeaders(text.data(), text.size())
                                           : qxMaskTraceSecrets(text.data(), text.size());
  qxFormatTraceDump("=> Send header", masked);
  return 0;
}
