// JSON helpers shared by the client and the token managers (jansson), and the
// reader of the web service's error bodies.
//
//   qxjson::JsonHolder root(qxjson::loadInput(body, tag, "Error in loading json", false, st));
//   if (root.get() == nullptr) return st;  // 20 empty, 7617 not a JSON object
#ifndef QXCURL_PLATFORM_QX_JSON_H
#define QXCURL_PLATFORM_QX_JSON_H
#include <jansson.h>

#include <string>

#include "qxcurl/qxcurl_export.h"

namespace qxjson {

// Releases a jansson tree on every way out of a function.
class JsonHolder {
 public:
  explicit JsonHolder(json_t* j) : m_json(j) {}
  ~JsonHolder() { json_decref(m_json); }
  JsonHolder(const JsonHolder&) = delete;
  JsonHolder& operator=(const JsonHolder&) = delete;
  json_t* get() const { return m_json; }

 private:
  json_t* m_json;
};

// Serialises root (no flags) into out; on failure logs failMessage under tag
// and returns failStatus.
int dumpInto(json_t* root, std::string& out, const char* tag, const char* failMessage,
             int failStatus);
bool setString(json_t* obj, const char* key, const std::string& value);
bool getString(json_t* obj, const char* key, std::string& out);
// Integers outside int's range count as the wrong type rather than being cut.
bool getInt(json_t* obj, const char* key, int& out);
// Parses json into an object; logs loadMessage (plus jansson's text when
// withText) and returns nullptr when that fails.
json_t* loadObject(const std::string& json, const char* tag, const char* loadMessage,
                   bool withText);
// The common start of the parsers: empty input is 20 ("Input json string is
// empty"), anything that is not a JSON object 7617; status says which when
// nullptr comes back.
json_t* loadInput(const std::string& json, const char* tag, const char* loadMessage, bool withText,
                  int& status);

}  // namespace qxjson

// The service's error body {"errorCode": N, "errorMessage": "..."}: 0, 20 for
// empty input, 7617 when it is not a JSON object, 7610 for a missing member.
QX_API int extractErrorFromJSON(const std::string& json, int& errorCode, std::string& errorMessage);
#endif  // QXCURL_PLATFORM_QX_JSON_H
