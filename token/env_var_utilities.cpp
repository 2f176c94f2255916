#include "qxcurl/env_var_utilities.h"

#include <cstdlib>

bool EnvVarUtilities::getEnv(const std::string& name, std::string& value) {
  const char* v = getenv(name.c_str());
  if (v == nullptr) return false;
  value = v;
  return true;
}

bool EnvVarUtilities::putEnv(const std::string& name, const std::string& value) {
  return setenv(name.c_str(), value.c_str(), 1) == 0;
}
