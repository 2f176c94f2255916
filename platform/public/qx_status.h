#ifndef QX_STATUS_H
#define QX_STATUS_H
#include "qxcurl_export.h"

#ifdef __cplusplus
extern "C" {
#endif
/* Human-readable text for a product status; never null ("Unknown status N"
   for a number the table does not know). The pointer stays valid for the
   life of the process. */
QX_API const char* getECmsg(int status);
#ifdef __cplusplus
}
#endif

// Statuses the library produces, by name, for code that wants to say which.
enum QXStatus {
  QX_OK = 0,
  QX_ERR_NO_MEMORY = 10,
  QX_ERR_ENCODE = 11,
  QX_ERR_FILE_NOT_FOUND = 12,
  QX_ERR_JSON_DUMP = 14,
  QX_ERR_BAD_ARGUMENT = 20,
  QX_ERR_TLS_CONNECT = 26,
  QX_ERR_EXEC = 29,
  QX_ERR_TIMEOUT = 41,
  QX_ERR_RECEIVE = 42,
  QX_ERR_SEND = 44,
  QX_ERR_RESOLVE = 47,
  QX_ERR_CURL_INIT = 103,
  QX_ERR_HEADER_FIELD = 227,
  QX_ERR_TOKEN = 5930,
  QX_ERR_CRL_UNAVAILABLE = 5982,
  QX_ERR_BAD_RESPONSE = 7610,
  QX_ERR_JSON_PARSE = 7617,
  QX_ERR_CONNECT = 8500,
  QX_ERR_ACCESS_DENIED = 8501,
  QX_ERR_BAD_URL = 8502,
  QX_ERR_CURL_OTHER = 8503,
  QX_ERR_UNKNOWN_ISSUER = 8504,
  QX_ERR_CERT_NOT_YET_VALID = 8505,
  QX_ERR_CERT_EXPIRED = 8506,
  QX_ERR_CERT_VERIFY = 8507,
  QX_ERR_TRUST_STORE = 8508,
  QX_ERR_HOST_MISMATCH = 8509,
  QX_ERR_NO_CERT_INFO = 8510,
  QX_ERR_CLIENT_CERT = 8511,
  QX_ERR_SERVICE_UNAVAILABLE = 8625,
  QX_ERR_PASSPHRASE_EMPTY = 8762,
  QX_ERR_KEY_NOT_FIPS = 8787,
  QX_ERR_CRL_EXPIRED = 9314,
  QX_ERR_CERT_REVOKED = 9318,
  // Statuses of the platform services and the other subsystems.
  QX_ERR_FILE_OPEN = 13,
  QX_ERR_FILE_WRITE = 14,
  QX_ERR_CHILD_EXIT = 30,    // a command ran and exited with a non-zero code
  QX_ERR_CHILD_SIGNAL = 31,  // a command ran and was ended by a signal
  QX_ERR_LOCK = 158,
};
#endif
