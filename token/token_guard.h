#ifndef QXCURL_TOKEN_TOKEN_GUARD_H
#define QXCURL_TOKEN_TOKEN_GUARD_H
#include "platform/qx_log.h"

// Runs body and returns its status; a thrown status becomes the result and
// anything else unknownStatus, both logged, so no exception leaves a public
// token operation.
template <class Body>
int qxGuardStatus(const char* tag, int unknownStatus, Body&& body) {
  try {
    return body();
  } catch (int status) {
    QXLOG(QXLOG_ERROR, tag) << "Exception encountered, status code: " << status;
    return status;
  } catch (...) {
    QXLOG(QXLOG_ERROR, tag) << "Unknown exception encountered";
    return unknownStatus;
  }
}
#endif  // QXCURL_TOKEN_TOKEN_GUARD_H
