#ifndef QXCURL_CLIENT_QXCLNT_CURL_OPTION_H
#define QXCURL_CLIENT_QXCLNT_CURL_OPTION_H
#include <curl/curl.h>

#include <string>

#include "platform/qx_log.h"
#include "qxcurl/qxclnt_curl.h"

// Sets one libcurl option on the client's handle. A failure is logged as
// "FAILED to set <name> in cURL. cURL :" + libcurl's text at `level` under
// `tag`, kept in m_curlError, and comes back mapped to the product's status.
template <class T>
int qxSetCurlOption(QXClientCURL& c, CURLoption option, T value, const char* name, int level,
                    const char* tag) {
  CURLcode rc = curl_easy_setopt(c.m_curlHandle, option, value);
  if (rc == CURLE_OK) return 0;
  c.m_curlError = rc;
  QXLOG(level, tag) << "FAILED to set " << name << " in cURL. cURL :" << curl_easy_strerror(rc);
  return c.mapCurlError();
}

// A POST body as the web service expects it: every line feed and carriage
// return written as the two characters \n and \r.
std::string qxEscapeLineEnds(const std::string& payload);
#endif  // QXCURL_CLIENT_QXCLNT_CURL_OPTION_H
