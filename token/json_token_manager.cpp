#include "qxcurl/json_token_manager.h"

#include <jansson.h>

#include <climits>
#include <cstdlib>

#include "platform/qx_json.h"
#include "platform/qx_log.h"
#include "qxcurl/qx_status.h"

using namespace qxjson;

int getSessionTokenPayload(std::string sessionToken, std::string& out) {
  static const char* tag = "getSessionTokenPayload";
  out.clear();
  JsonHolder root(json_object());
  if (root.get() == nullptr || !setString(root.get(), "sessionToken", sessionToken)) {
    QXLOG(QXLOG_ERROR, tag) << "Unable to allocate memory for json root object";
    return QX_ERR_NO_MEMORY;
  }
  return dumpInto(root.get(), out, tag, "Error in getting payload", QX_ERR_JSON_PARSE);
}

int getUserLoginPayload(std::string domainType, std::string domainName, std::string userName,
                        std::string password, std::string& out) {
  static const char* tag = "getUserLoginPayload";
  out.clear();
  if (domainType.empty() || domainName.empty() || userName.empty() || password.empty()) {
    QXLOG(QXLOG_ERROR, tag) << "Either of domain type, domain name, user name or password empty";
    return QX_ERR_BAD_ARGUMENT;
  }
  JsonHolder root(json_object());
  if (root.get() == nullptr || !setString(root.get(), "domainType", domainType) ||
      !setString(root.get(), "domainName", domainName) ||
      !setString(root.get(), "userName", userName) ||
      !setString(root.get(), "password", password)) {
    QXLOG(QXLOG_ERROR, tag) << "Unable to allocate memory for json root object";
    return QX_ERR_NO_MEMORY;
  }
  return dumpInto(root.get(), out, tag, "Error in getting payload", QX_ERR_JSON_PARSE);
}

int getUserLoginDetailsAsJson(std::string userName, std::string domainName, std::string issuedBy,
                              std::string domainType, std::string token, int expireAt,
                              std::string& out) {
  static const char* tag = "getUserLoginDetailsAsJson";
  out.clear();
  if (token.empty()) {
    QXLOG(QXLOG_ERROR, tag) << "JWT is empty";
    return QX_ERR_BAD_ARGUMENT;
  }
  auto orNA = [](const std::string& s) { return s.empty() ? std::string("NA") : s; };
  JsonHolder root(json_object());
  json_t* expiry = root.get() != nullptr ? json_integer(expireAt) : nullptr;
  if (root.get() == nullptr || !setString(root.get(), "userName", orNA(userName)) ||
      !setString(root.get(), "domainName", orNA(domainName)) ||
      !setString(root.get(), "issuedBy", orNA(issuedBy)) ||
      !setString(root.get(), "domainType", orNA(domainType)) ||
      !setString(root.get(), "token", token) || expiry == nullptr ||
      json_object_set_new(root.get(), "expireAt", expiry) != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Unable to allocate memory for json root object";
    return QX_ERR_NO_MEMORY;
  }
  return dumpInto(root.get(), out, tag, "json_dumps() failed to encode rootJSONobj",
                  QX_ERR_JSON_PARSE);
}

int writeServerCertsOpsJson(const std::map<std::string, std::string>& members,
                            const std::vector<std::string>& operations, std::string& out) {
  static const char* tag = "writeServerCertsOpsJson";
  out.clear();
  JsonHolder root(json_object());
  if (root.get() == nullptr) {
    QXLOG(QXLOG_ERROR, tag) << "Unable to allocate memory for json root object";
    return QX_ERR_NO_MEMORY;
  }
  auto fail = [&]() {
    QXLOG(QXLOG_ERROR, tag) << "Unable to form and write json to the specified string.";
    return QX_ERR_NO_MEMORY;
  };
  for (const auto& m : members) {
    if (!setString(root.get(), m.first.c_str(), m.second)) {
      QXLOG(QXLOG_ERROR, tag) << "Unable to set the json key " << m.first;
      return fail();
    }
  }
  JsonHolder ops(json_array());
  if (ops.get() == nullptr) {
    QXLOG(QXLOG_ERROR, tag) << "Unable to allocate memory for json array operations";
    return fail();
  }
  for (const auto& op : operations) {
    json_t* s = json_stringn(op.data(), op.size());
    if (s == nullptr || json_array_append_new(ops.get(), s) != 0) {
      QXLOG(QXLOG_ERROR, tag) << "Unable to allocate memory for json key " << op;
      return fail();
    }
  }
  // The message text is fixed; it says "server" for this member too.
  if (json_object_set(root.get(), "operations", ops.get()) != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Unable to set the json key server";
    return fail();
  }
  return dumpInto(root.get(), out, tag, "Unable to dump json to the output.", QX_ERR_WRITE);
}

int extractRenewReqdFromJSON(const std::string& json, int& renewRequired) {
  static const char* tag = "extractRenewReqdFromJSON";
  int status = 0;
  JsonHolder root(loadInput(json, tag, "Error in loading json: ", true, status));
  if (root.get() == nullptr) return status;
  if (!getInt(root.get(), "renewRequired", renewRequired)) {
    QXLOG(QXLOG_ERROR, tag) << "Error in retrieving the renew required from the response.";
    return QX_ERR_BAD_RESPONSE;
  }
  QXLOG(QXLOG_PROGRESS, tag) << "Got the renewRequired from the response as [" << renewRequired
                             << "]";
  return 0;
}

int extractTrustVersionFromJSON(const std::string& json, std::string& trustVersion) {
  static const char* tag = "extractTrustVersionFromJSON";
  int status = 0;
  JsonHolder root(loadInput(json, tag, "Error in loading json: ", true, status));
  if (root.get() == nullptr) return status;
  if (!getString(root.get(), "trustVersion", trustVersion)) {
    QXLOG(QXLOG_ERROR, tag) << "Error in retrieving the trust version from the response.";
    return QX_ERR_BAD_RESPONSE;
  }
  QXLOG(QXLOG_PROGRESS, tag) << "Got the trustversion from the response as [" << trustVersion
                             << "]";
  return 0;
}

int extractAuthTokenFromJSON(const std::string& json, std::string& token, int& validity) {
  static const char* tag = "extractAuthTokenFromJSON";
  int status = 0;
  JsonHolder root(loadInput(json, tag, "Error in loading json", false, status));
  if (root.get() == nullptr) return status;
  if (!getString(root.get(), "token", token) || !getInt(root.get(), "validity", validity)) {
    QXLOG(QXLOG_ERROR, tag) << "Error in parsing json object";
    return QX_ERR_BAD_RESPONSE;
  }
  return 0;
}

int extractUserDetailsFromJson(const std::string& json, std::string& userName,
                               std::string& domainName, std::string& issuedBy,
                               std::string& domainType, std::string& token, int& expireAt) {
  static const char* tag = "extractUserDetailsFromJson";
  if (json.empty()) {
    QXLOG(QXLOG_ERROR, tag) << "input json string is empty";
    return QX_ERR_BAD_ARGUMENT;
  }
  json_error_t err;
  JsonHolder root(json_loadb(json.data(), json.size(), 0, &err));
  if (root.get() == nullptr || !json_is_object(root.get())) {
    if (root.get() != nullptr) {
      QXLOG(QXLOG_ERROR, tag) << "Error in loading json: root is not a JSON object";
    } else {
      QXLOG(QXLOG_ERROR, tag) << "Error in loading json";
      QXLOG(QXLOG_ERROR, tag) << "  json line :" << err.line;
      QXLOG(QXLOG_ERROR, tag) << "  json pos  :" << err.position;
      QXLOG(QXLOG_ERROR, tag) << "  json col  :" << err.column;
      QXLOG(QXLOG_ERROR, tag) << "  json text :" << err.text;
      QXLOG(QXLOG_ERROR, tag) << "  json src  :" << err.source;
    }
    return QX_ERR_JSON_PARSE;
  }
  json_t* r = root.get();
  if (!getString(r, "userName", userName) || !getString(r, "domainName", domainName) ||
      !getString(r, "issuedBy", issuedBy) || !getString(r, "domainType", domainType) ||
      !getString(r, "token", token) || !getInt(r, "expireAt", expireAt)) {
    QXLOG(QXLOG_ERROR, tag) << "Error in parsing json object";
    return QX_ERR_BAD_RESPONSE;
  }
  return 0;
}
