// Every parser of the token answers over arbitrary bytes; what a parser
// accepts must survive a rebuild through the payload builders.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "qxcurl/json_token_manager.h"
#include "qxcurl/login_with_user_token_manager.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string json(reinterpret_cast<const char*>(data), size);
  int renew = 0, validity = 0, code = 0, expireAt = 0;
  std::string s1, s2, s3, s4, s5, out;
  extractRenewReqdFromJSON(json, renew);
  extractTrustVersionFromJSON(json, s1);
  if (extractAuthTokenFromJSON(json, s1, validity) == 0) getSessionTokenPayload(s1, out);
  extractErrorFromJSON(json, code, s2);
  if (extractUserDetailsFromJson(json, s1, s2, s3, s4, s5, expireAt) == 0 &&
      getUserLoginDetailsAsJson(s1, s2, s3, s4, s5, expireAt, out) == 0) {
    std::string t1, t2, t3, t4, t5;
    int e = 0;
    if (extractUserDetailsFromJson(out, t1, t2, t3, t4, t5, e) != 0 || t5 != s5 || e != expireAt) {
      abort();
    }
  }
  // The API-key entries of ARVION_APIKEY and the appliance script's answer.
  const std::string key = LoginWithUserTokenManager::extractApikey(json, "master.example");
  if (key.size() > json.size()) abort();
  if (!json.empty() &&
      LoginWithUserTokenManager::validateCmdOutput(json, json[0], json.back(), out) == 0 &&
      (out.empty() || out.size() + 2 > json.size())) {
    abort();
  }
  return 0;
}
