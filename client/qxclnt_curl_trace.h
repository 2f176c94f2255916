#ifndef QXCURL_CLIENT_QXCLNT_CURL_TRACE_H
#define QXCURL_CLIENT_QXCLNT_CURL_TRACE_H
#include <cstddef>
#include <string>

#include "client/qxclnt_masked_headers.h"

// The process-wide masked-header table: the ACE singleton of the library's
// ACE module, loaded on first use by the shared library; a table of the
// library's own when the module cannot be loaded or the library is linked
// into the program (the same names).
const MaskedHttpHeaders& qxMaskedHeaders();

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
#endif  // QXCURL_CLIENT_QXCLNT_CURL_TRACE_H
