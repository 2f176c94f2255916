#ifndef QXCLNT_CURL_TRACE_H
#define QXCLNT_CURL_TRACE_H
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Singleton.h>

#include <cstddef>
#include <set>
#include <string>

// Header names whose values may appear in a trace; every other header's value
// is masked, so a header nobody thought of stays hidden.
class MaskedHttpHeaders {
 public:
  MaskedHttpHeaders();
  // True when name is not on the allow-list (exact, case-sensitive).
  bool isMasked(const std::string& name) const;

 private:
  std::set<std::string> m_allowed;
};

typedef ACE_Singleton<MaskedHttpHeaders, ACE_Recursive_Thread_Mutex> MaskedHttpHeadersSingleton;

// The text of a trace record after masking: header values that are not
// allowed become " ***"; the values of JSON members that carry credentials
// (password, passphrase, apiKey, secret, authorization and every name ending
// in "token", in any letter case and nesting) become "***".
std::string qxMaskTraceHeaders(const char* data, size_t size);
// inSecret (may be null) carries, from one chunk of a body to the next,
// whether a credential's value was still open at the end of the chunk.
std::string qxMaskTraceSecrets(const char* data, size_t size, bool* inSecret = nullptr);
// Dump lines in the manner of a text-only wire trace, joined with '\n'.
std::string qxFormatTraceDump(const char* label, const std::string& data);
#endif
