// Every parser of the token answers over arbitrary bytes.
#include <cstddef>
#include <cstdint>
#include <string>

#include "qxcurl/json_token_manager.h"
#include "qxcurl/login_with_user_token_manager.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string json(reinterpret_cast<const char*>(data), size);
  int renew = 0, validity = 0, code = 0, expireAt = 0;
  std::string s1, s2, s3, s4, s5, out;
  extractRenewReqdFromJSON(json, renew);
  extractTrustVersionFromJSON(json, s1);
  extractAuthTokenFromJSON(json, s1, validity);
  extractErrorFromJSON(json, code, s2);
  extractUserDetailsFromJson(json, s1, s2, s3, s4, s5, expireAt);
  // The API-key entries of ARVION_APIKEY and the appliance script's answer.
  LoginWithUserTokenManager::extractApikey(json, "master.example");
  if (!json.empty()) LoginWithUserTokenManager::validateCmdOutput(json, json[0], json.back(), out);
  return 0;
}
