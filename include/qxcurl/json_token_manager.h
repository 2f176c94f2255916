// The JSON payloads the token managers send and the answers they read,
// built and parsed with jansson. Every function returns 0 or a status and
// owns nothing after it returns: outputs are plain strings and ints.
//
//   std::string body;
//   int rc = getUserLoginPayload("unixpwd", "master1", "admin", pw, body);
//   std::string token; int validity = 0;
//   rc = extractAuthTokenFromJSON(answer, token, validity);  // 7610: member missing
#ifndef QXCURL_JSON_TOKEN_MANAGER_H
#define QXCURL_JSON_TOKEN_MANAGER_H
#include <map>
#include <string>
#include <vector>

#include "qxcurl/qxcurl_export.h"

// JSON payloads the token managers send and the answers they read. Every
// function returns 0 or a status: 20 empty input, 10 allocation failure,
// 14 (writeServerCertsOpsJson) text not produced, 7617 not parsable as a JSON
// object or not dumpable, 7610 a required member missing or of the wrong type.
// Builders leave out empty unless they succeed.

// {"sessionToken": ...}
QX_API int getSessionTokenPayload(std::string sessionToken, std::string& out);
// {"domainType", "domainName", "userName", "password"}: none may be empty.
QX_API int getUserLoginPayload(std::string domainType, std::string domainName, std::string userName,
                               std::string password, std::string& out);
// The session record the user-login manager stores; empty names become "NA".
QX_API int getUserLoginDetailsAsJson(std::string userName, std::string domainName,
                                     std::string issuedBy, std::string domainType,
                                     std::string token, int expireAt, std::string& out);
// members as string members in map order, then "operations": [names...].
QX_API int writeServerCertsOpsJson(const std::map<std::string, std::string>& members,
                                   const std::vector<std::string>& operations, std::string& out);

// Parsers: the text must be a JSON object. Outputs assigned before a failing
// member keep their new values.
QX_API int extractRenewReqdFromJSON(const std::string& json, int& renewRequired);
QX_API int extractTrustVersionFromJSON(const std::string& json, std::string& trustVersion);
QX_API int extractAuthTokenFromJSON(const std::string& json, std::string& token, int& validity);
QX_API int extractErrorFromJSON(const std::string& json, int& errorCode, std::string& errorMessage);
QX_API int extractUserDetailsFromJson(const std::string& json, std::string& userName,
                                      std::string& domainName, std::string& issuedBy,
                                      std::string& domainType, std::string& token, int& expireAt);
#endif  // QXCURL_JSON_TOKEN_MANAGER_H
