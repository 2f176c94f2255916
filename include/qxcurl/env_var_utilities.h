// Reading and setting environment variables (the API-key lookup of user
// logins reads ARVION_APIKEY through it).
//
//   std::string keys;
//   if (EnvVarUtilities::getEnv("ARVION_APIKEY", keys)) ...;
#ifndef QXCURL_ENV_VAR_UTILITIES_H
#define QXCURL_ENV_VAR_UTILITIES_H
#include <string>

#include "qxcurl/qxcurl_export.h"

// Environment variables, read and set.
class QX_API EnvVarUtilities {
 public:
  // False when name is not set (value untouched); else the whole value.
  static bool getEnv(const std::string& name, std::string& value);
  // Sets name, replacing an existing value. True on success.
  static bool putEnv(const std::string& name, const std::string& value);
};
#endif  // QXCURL_ENV_VAR_UTILITIES_H
