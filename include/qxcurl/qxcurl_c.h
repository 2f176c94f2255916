/* Plain C entry points of libqxcurl: initialise the library, call the web
 * service of a master server (port 1556) and get a parsed JSON answer, fetch
 * the machine's certificate-login token.
 *
 * Contract
 *   - Call init_qxcurllib() once, before any thread of the program starts.
 *   - Every function runs on the caller's thread and returns a status: 0 is
 *     success, anything else one of the statuses of qx_status.h (getECmsg()
 *     gives its text). No C++ exception ever leaves these functions.
 *   - A null payload or token stands for the empty string.
 *   - Ownership: the json_t* handed out in *out belongs to the caller, who
 *     releases it with json_decref(); *out is NULL on every failure. The
 *     char* of get_machine_jwt() belongs to the caller, who releases it with
 *     free(); it is never NULL except when memory is exhausted.
 *
 * Example
 *   json_t *hosts = NULL;
 *   char *jwt;
 *   init_qxcurllib();
 *   if (web_sync_CAPI(QXCURL_CACHE_READ_UPDATE, "master1", "arvion/config/hosts", NULL,
 *                     NULL, &hosts) == 0) {
 *     ... json_object_get(hosts, "...") ...
 *     json_decref(hosts);
 *   }
 *   jwt = get_machine_jwt("master1");
 *   if (*jwt != '\0') ...;
 *   free(jwt);
 */
#ifndef QXCURL_QXCURL_C_H
#define QXCURL_QXCURL_C_H
#include <jansson.h>

#include "qxcurl/qx_status.h"
#include "qxcurl/qxcurl_export.h"

/* Cache decisions of web_sync_CAPI for GET requests (a POST never uses the
 * cache). Answers come from the cache of web-service results of the calling
 * account for as long as the server's X-Cache-Validity header allows (one day
 * when it says nothing). */
#define QXCURL_CACHE_NONE 0          /* neither consulted nor updated */
#define QXCURL_CACHE_READ_UPDATE 1   /* consulted; updated after a fresh answer */
#define QXCURL_CACHE_UPDATE_ONLY 2   /* always asks the server; updated */
#define QXCURL_CACHE_SECURE_READ 3   /* as 1, body kept in the secure session store */
#define QXCURL_CACHE_SECURE_UPDATE 4 /* as 2, body kept in the secure session store */

#ifdef __cplusplus
extern "C" {
#endif

/* Process-wide set-up of TLS and the HTTP library; registers web_sync_CAPI
 * for the product's other libraries. A failure is logged; later calls then
 * fail with their own status. */
QX_API void init_qxcurllib(void);

/* One request to https://server:1556/path. With a non-empty payload: POST of
 * payload; otherwise GET under the cache decision (0 to 4, see above). With a
 * non-empty token the token is presented; otherwise the machine's certificate
 * login provides one. Connection failures are retried for 30 seconds.
 *   0                    success; *out holds the answer, a JSON object (when
 *                        out is NULL the answer is not parsed)
 *   QX_ERR_BAD_RESPONSE  an HTTP status other than 200 and 201, or an answer
 *                        that is not a JSON object
 *   QX_ERR_BAD_ARGUMENT  a NULL or empty server, a NULL path, a decision
 *                        outside 0 to 4
 *   other                the connection, TLS or token failure */
QX_API int web_sync_CAPI(int decision, const char* server, const char* path, const char* payload,
                         const char* token, json_t** out);

/* The same request as web_sync_CAPI, for callers that present a JWT. */
QX_API int invoke_curl_api(int decision, const char* server, const char* path, const char* payload,
                           const char* token, json_t** out);

/* The machine's certificate-login token for server (from the host's token
 * cache, or a new login): a copy the caller frees with free(); the empty
 * string when no token could be obtained. */
QX_API char* get_machine_jwt(const char* server);

#ifdef __cplusplus
}
#endif
#endif  // QXCURL_QXCURL_C_H
