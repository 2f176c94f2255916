// The web service's URL paths, API versions, media types and header names,
// as the client sends them.
//
//   client.Get(PING_URI);                            // "arvion/ping"
//   client.setJsonMediaTypeAPIVersion(VERSION_5);    // Accept: ...;version=5.0
#ifndef QXCURL_QXCLNT_CURL_CONSTANTS_H
#define QXCURL_QXCLNT_CURL_CONSTANTS_H
#include <string>

#include "qxcurl/qxcurl_export.h"

// URL paths of the web service.
QX_API extern const std::string FEDS_URI;
QX_API extern const std::string HOSTS_URI;
QX_API extern const std::string SECURITY_CREDS_URI;
QX_API extern const std::string PING_URI;
QX_API extern const std::string PASSPHRASE_CONSTRAINTS_URI;
QX_API extern const std::string SET_UP_NEW_CA;
QX_API extern const std::string ACTIVATE_NEW_CA;
QX_API extern const std::string MIGRATION_COMPLETE;
QX_API extern const std::string DECOMMISSION_CA;
QX_API extern const std::string LIST_ALL_CA;
QX_API extern const std::string MIGRATION_SUMMARY;
QX_API extern const std::string HOSTS_PENDING_TRUST_PROPAGATION;
QX_API extern const std::string SYNC_MIGRATION_DB;
QX_API extern const std::string HOSTS_PENDING_RENEWAL;

// API versions: MAX_VERSION is the newest this library speaks.
QX_API extern const std::string MAX_VERSION;
QX_API extern const std::string VERSION_4;
QX_API extern const std::string VERSION_5;
QX_API extern const std::string VERSION_6;

// Media types and headers.
QX_API extern const std::string QX_MEDIA_TYPE_JSON;
QX_API extern const std::string QX_MEDIA_TYPE_VERSION;
QX_API extern const std::string QX_MEDIA_TYPE_OCTET_STREAM;
QX_API extern const std::string QX_MEDIA_TYPE_VERSION_OCTET_STREAM;
QX_API extern const std::string QX_API_VERSION_HEADER_STR;
QX_API extern const std::string QX_DEFAULT_MEDIA_TYPE;
QX_API extern const std::string QX_HEADER_X_CLIENT_ID;
QX_API extern const std::string QX_HEADER_X_CLIENT_ID_VALUE;
#endif  // QXCURL_QXCLNT_CURL_CONSTANTS_H
