#ifndef QXCURL_CLIENT_QXCLNT_MASKED_HEADERS_H
#define QXCURL_CLIENT_QXCLNT_MASKED_HEADERS_H
#include <set>
#include <string>

// Header names whose values may appear in a trace; every other header's value
// is masked, so a header nobody thought of stays hidden. Defined here in full:
// the process-wide instance is made by the ACE module (client/ace/), which
// the library loads only when a trace runs.
class MaskedHttpHeaders {
 public:
  MaskedHttpHeaders() {
    static const char* const allowed[] = {
        "Accept",
        "Accept-Language",
        "Cache-Control",
        "Connection",
        "Content-Disposition",
        "Content-Type",
        "Date",
        "Expires",
        "Host",
        "Location",
        "Strict-Transport-Security",
        "Transfer-Encoding",
        "X-Cache-Validity",
        "X-Client-ID",
        "X-Content-Type-Options",
        "X-Frame-Options",
        "X-Arvion-API-Version",
        "X-Arvion-Ignore",
        "X-Arvion-Install-Mode",
        "X-Request-ID",
        "X-XSS-Protection",
    };
    for (const char* name : allowed) m_allowed.insert(name);
  }
  // True when name is not on the allow-list (exact, case-sensitive).
  bool isMasked(const std::string& name) const { return m_allowed.find(name) == m_allowed.end(); }

 private:
  std::set<std::string> m_allowed;
};
#endif  // QXCURL_CLIENT_QXCLNT_MASKED_HEADERS_H
