// Registry through which other libraries of the product make web-service
// calls without linking the client: the client library registers its entry
// point at initialisation (init_qxcurllib), callers look it up.
#ifndef QXCURL_PLATFORM_QX_WEBAPI_H
#define QXCURL_PLATFORM_QX_WEBAPI_H
#include <jansson.h>

// The entry point's shape: cache decision, server, path, payload (POST when
// not empty), token, parsed JSON answer (caller releases). Returns a status.
typedef int (*QXWebAPICallback)(int decision, const char* server, const char* path,
                                const char* payload, const char* token, json_t** out);

// Replaces the registered entry point (null unregisters).
void setWebAPICallback(QXWebAPICallback callback);
// The registered entry point, or null.
QXWebAPICallback getWebAPICallback();
#endif  // QXCURL_PLATFORM_QX_WEBAPI_H
