#include "platform/qx_json.h"

#include <climits>
#include <cstdlib>

#include "platform/qx_log.h"
#include "qxcurl/qx_status.h"

namespace qxjson {

// Serialises root into out; on failure logs failMessage and returns failStatus.
int dumpInto(json_t* root, std::string& out, const char* tag, const char* failMessage,
             int failStatus) {
  char* text = json_dumps(root, 0);
  if (text == nullptr) {
    QXLOG(QXLOG_ERROR, tag) << failMessage;
    return failStatus;
  }
  out = text;
  free(text);
  return 0;
}

bool setString(json_t* obj, const char* key, const std::string& value) {
  json_t* s = json_stringn(value.data(), value.size());
  return s != nullptr && json_object_set_new(obj, key, s) == 0;
}

bool getString(json_t* obj, const char* key, std::string& out) {
  json_t* v = json_object_get(obj, key);
  if (!json_is_string(v)) return false;
  out.assign(json_string_value(v), json_string_length(v));
  return true;
}

// Integers outside int's range count as the wrong type rather than being cut.
bool getInt(json_t* obj, const char* key, int& out) {
  json_t* v = json_object_get(obj, key);
  if (!json_is_integer(v)) return false;
  json_int_t n = json_integer_value(v);
  if (n < INT_MIN || n > INT_MAX) return false;
  out = static_cast<int>(n);
  return true;
}

// Parses json into an object; logs loadMessage (plus jansson's text when
// withText) and returns nullptr when that fails.
json_t* loadObject(const std::string& json, const char* tag, const char* loadMessage,
                   bool withText) {
  json_error_t err;
  json_t* root = json_loadb(json.data(), json.size(), 0, &err);
  if (root != nullptr && json_is_object(root)) return root;
  const char* reason = root != nullptr ? "root is not a JSON object" : err.text;
  json_decref(root);
  if (withText) {
    QXLOG(QXLOG_ERROR, tag) << loadMessage << reason;
  } else {
    QXLOG(QXLOG_ERROR, tag) << loadMessage;
  }
  return nullptr;
}

// The common start of the parsers: empty input is 20, anything that is not a
// JSON object 7617; status says which when nullptr comes back.
json_t* loadInput(const std::string& json, const char* tag, const char* loadMessage, bool withText,
                  int& status) {
  if (json.empty()) {
    QXLOG(QXLOG_ERROR, tag) << "Input json string is empty";
    status = QX_ERR_BAD_ARGUMENT;
    return nullptr;
  }
  json_t* root = loadObject(json, tag, loadMessage, withText);
  status = root != nullptr ? 0 : QX_ERR_JSON_PARSE;
  return root;
}

}  // namespace qxjson

using namespace qxjson;

int extractErrorFromJSON(const std::string& json, int& errorCode, std::string& errorMessage) {
  static const char* tag = "extractErrorFromJSON";
  int status = 0;
  JsonHolder root(loadInput(json, tag, "Error in loading json", false, status));
  if (root.get() == nullptr) return status;
  if (!getString(root.get(), "errorMessage", errorMessage) ||
      !getInt(root.get(), "errorCode", errorCode)) {
    QXLOG(QXLOG_ERROR, tag) << "Error in parsing json object";
    return QX_ERR_BAD_RESPONSE;
  }
  return 0;
}
