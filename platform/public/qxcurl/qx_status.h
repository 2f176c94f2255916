/* The product's statuses: every number the library returns, with its name and
 * the short text getECmsg gives for it.
 *
 * One list feeds both the enumeration and the text table, so a status cannot
 * exist without a text, and two names cannot share a number (the generated
 * switch would hold a duplicate case). Use the names everywhere; the numbers
 * are fixed by the product and appear only here.
 *
 *   int rc = client.Get(PING_URI);
 *   if (rc == QX_ERR_HOST_MISMATCH) ...;
 *   fprintf(stderr, "status %d: %s\n", rc, getECmsg(rc));
 *
 * The preferred-network connector's WN_STATUS_* and the asynchronous client's
 * ASYNC_* are separate vocabularies and never appear here. */
#ifndef QXCURL_QX_STATUS_H
#define QXCURL_QX_STATUS_H
#include "qxcurl/qxcurl_export.h"

/* X(name, number, text), sorted by number. */
#define QX_STATUS_LIST(X)                                                                   \
  X(QX_OK, 0, "success")                                                                    \
  X(QX_ERR_NO_MEMORY, 10, "out of memory")                                                  \
  X(QX_ERR_ENCODE, 11, "text could not be encoded or decoded")                              \
  X(QX_ERR_FILE_NOT_FOUND, 12, "file not found")                                            \
  X(QX_ERR_FILE_OPEN, 13, "file could not be opened for reading")                           \
  /* One number for an unwritable file and for JSON text that could not be produced. */     \
  X(QX_ERR_WRITE, 14, "output could not be written")                                        \
  X(QX_ERR_BAD_ARGUMENT, 20, "invalid argument")                                            \
  X(QX_ERR_BAD_SOCKET, 21, "invalid socket")                                                \
  X(QX_ERR_TLS_CONNECT, 26, "TLS connection could not be established")                      \
  X(QX_ERR_EXEC, 29, "command could not be executed")                                       \
  X(QX_ERR_CHILD_EXIT, 30, "command ended with a non-zero exit status")                     \
  X(QX_ERR_CHILD_SIGNAL, 31, "command was ended by a signal")                               \
  X(QX_ERR_TIMEOUT, 41, "operation timed out")                                              \
  X(QX_ERR_RECEIVE, 42, "error while receiving data")                                       \
  X(QX_ERR_BAD_ANSWER, 43, "the server's answer was not understood")                        \
  X(QX_ERR_SEND, 44, "error while sending data")                                            \
  /* Also: web-service connections disabled by the configuration. */                        \
  X(QX_ERR_RESOLVE, 47, "host name could not be resolved")                                  \
  X(QX_ERR_CURL_INIT, 103, "HTTP library could not be initialised")                         \
  X(QX_ERR_MULTI_INTERNAL, 113, "internal error in the HTTP library")                       \
  X(QX_ERR_READ, 114, "file could not be read")                                             \
  X(QX_ERR_TOKEN_EXPIRED, 117, "authorization token has expired")                           \
  X(QX_ERR_REQUEST_FAILED, 130, "request failed")                                           \
  X(QX_ERR_NO_INSTALL_DIR, 142, "installation directory is missing or not writable")        \
  X(QX_ERR_IN_PROGRESS, 145, "request is already in progress")                              \
  X(QX_ERR_LOCK, 158, "lock could not be taken")                                            \
  X(QX_ERR_HEADER_FIELD, 227, "header field missing from the server's response")            \
  X(QX_ERR_APPLIANCE_REFUSED, 5433, "the appliance refused the request")                    \
  X(QX_ERR_TOKEN, 5930, "authorization token could not be obtained or refreshed")           \
  X(QX_ERR_CRL_UNAVAILABLE, 5982, "certificate revocation list could not be obtained")      \
  X(QX_ERR_BAD_RESPONSE, 7610, "unexpected response from the server")                       \
  X(QX_ERR_JSON_PARSE, 7617, "response could not be read as JSON")                          \
  X(QX_ERR_CONNECT, 8500, "could not connect to the server")                                \
  X(QX_ERR_ACCESS_DENIED, 8501, "remote access denied")                                     \
  X(QX_ERR_BAD_URL, 8502, "malformed URL")                                                  \
  X(QX_ERR_CURL_OTHER, 8503, "communication with the server failed")                        \
  X(QX_ERR_UNKNOWN_ISSUER, 8504, "server certificate issuer is not trusted")                \
  X(QX_ERR_CERT_NOT_YET_VALID, 8505, "server certificate is not yet valid")                 \
  X(QX_ERR_CERT_EXPIRED, 8506, "server certificate has expired")                            \
  X(QX_ERR_CERT_VERIFY, 8507, "server certificate could not be verified")                   \
  X(QX_ERR_TRUST_STORE, 8508, "trust store could not be read")                              \
  X(QX_ERR_HOST_MISMATCH, 8509, "server name does not match its certificate")               \
  X(QX_ERR_NO_CERT_INFO, 8510, "server certificate information is missing")                 \
  X(QX_ERR_CLIENT_CERT, 8511, "problem with the local client certificate")                  \
  X(QX_ERR_CERT_EXAMINE, 8512, "server certificate could not be examined")                  \
  X(QX_ERR_RESPONSE_TOO_LARGE, 8513, "response from the server exceeds the size limit")     \
  X(QX_ERR_SERVICE_UNAVAILABLE, 8625, "web service is unavailable")                         \
  X(QX_ERR_PASSPHRASE_EMPTY, 8762, "passphrase is empty")                                   \
  X(QX_ERR_KEY_NOT_FIPS, 8787, "private key cannot be used in FIPS mode")                   \
  X(QX_ERR_CRL_EXPIRED, 9314, "certificate revocation list has expired")                    \
  X(QX_ERR_CERT_REVOKED, 9318, "server certificate has been revoked")                       \
  X(QX_ERR_CRL_CHECK, 9321, "certificate revocation check failed")                          \
  X(QX_ERR_CRL_SIG_DECRYPT, 9328, "revocation list signature could not be decrypted")       \
  X(QX_ERR_CRL_SIGNATURE, 9329, "revocation list signature is invalid")                     \
  X(QX_ERR_CRL_NOT_YET_VALID, 9330, "revocation list is not yet valid")                     \
  X(QX_ERR_CRL_LAST_UPDATE, 9331, "revocation list has an invalid last-update time")        \
  X(QX_ERR_CRL_NEXT_UPDATE, 9332, "revocation list has an invalid next-update time")        \
  X(QX_ERR_KEYUSAGE_CERT_SIGN, 9333, "issuer certificate may not sign certificates")        \
  X(QX_ERR_KEYUSAGE_CRL_SIGN, 9334, "issuer certificate may not sign revocation lists")     \
  X(QX_ERR_CRL_CRITICAL_EXT, 9335, "revocation list has an unsupported critical extension") \
  X(QX_ERR_CRL_SCOPE, 9336, "revocation list scope does not match")                         \
  X(QX_ERR_CRL_PATH, 9337, "revocation list path could not be validated")

#ifdef __cplusplus
/* Plain ints, so that `throw QX_ERR_BAD_ARGUMENT;` throws the int every
   operation catches. */
/* NOLINTNEXTLINE(bugprone-macro-parentheses): name is a declarator */
#define QX_STATUS_CONSTANT(name, value, text) constexpr int name = (value);
QX_STATUS_LIST(QX_STATUS_CONSTANT)
#undef QX_STATUS_CONSTANT
#else
#define QX_STATUS_ENUMERATOR(name, value, text) name = value,
enum QXStatus { QX_STATUS_LIST(QX_STATUS_ENUMERATOR) };
#undef QX_STATUS_ENUMERATOR
#endif

#ifdef __cplusplus
extern "C" {
#endif
/* Human-readable text for a product status; never null ("Unknown status N"
   for a number the list does not know). The pointer stays valid for the life
   of the process. */
QX_API const char* getECmsg(int status);
#ifdef __cplusplus
}
#endif
#endif  // QXCURL_QX_STATUS_H
