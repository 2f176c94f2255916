// The request behind the plain C entry points (include/qxcurl/qxcurl_c.h).
#ifndef QXCURL_CLIENT_QXCLNT_CURL_CAPI_H
#define QXCURL_CLIENT_QXCLNT_CURL_CAPI_H
#include <jansson.h>

#include <string>

#include "qxcurl/qxclnt_curl.h"

// The web service's port for the C entry points.
constexpr int QX_CAPI_PORT = 1556;
// Connection-retry window of their requests, seconds.
constexpr int QX_CAPI_RETRY_WINDOW = 30;
// Time to live of a cached GET when the server names none: one day.
constexpr int QX_CAPI_DEFAULT_TTL = 86400;

// One request to https://server:1556/path: POST of payload when it is not
// empty, else GetWithCache(decision, path, JSON, one day). An empty token
// means the machine's certificate login. 0 with *out a JSON object (when out
// is given); 7610 for an HTTP status other than 200/201 or an answer that is
// not a JSON object; the request's status otherwise. Throws the status of a
// client that cannot be built.
int web_sync(cache_usage_decision decision, const std::string& server, const std::string& path,
             const std::string& payload, const std::string& token, json_t** out);
#endif  // QXCURL_CLIENT_QXCLNT_CURL_CAPI_H
