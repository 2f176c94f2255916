// Login and session payloads, and the parsers of what the server answers.
#include <gtest/gtest.h>

#include <functional>

#include "platform/qx_log.h"
#include "qxcurl/json_token_manager.h"
#include "qxcurl/qx_status.h"
#include "testing/fixture/qx_test_env.h"

namespace {

// Every parser runs over the same garbage: none may crash, each gives its status.
TEST(TokenJsonParse, GarbageGivesClearStatusFromEveryParser) {
  const std::pair<std::string, int> garbage[] = {
      {"", QX_ERR_BAD_ARGUMENT},   {"{token:", QX_ERR_JSON_PARSE},
      {"[]", QX_ERR_JSON_PARSE},   {"\"abc\"", QX_ERR_JSON_PARSE},
      {"{}", QX_ERR_BAD_RESPONSE}, {std::string("{\"token\": \"a\0b\"}", 16), QX_ERR_JSON_PARSE},
  };
  std::string a, b, c, d, e;
  int x = 0;
  const std::function<int(const std::string&)> parsers[] = {
      [&](const std::string& j) { return extractRenewReqdFromJSON(j, x); },
      [&](const std::string& j) { return extractTrustVersionFromJSON(j, a); },
      [&](const std::string& j) { return extractAuthTokenFromJSON(j, a, x); },
      [&](const std::string& j) { return extractErrorFromJSON(j, x, a); },
      [&](const std::string& j) { return extractUserDetailsFromJson(j, a, b, c, d, e, x); },
  };
  for (size_t p = 0; p < 5; ++p) {
    for (const auto& g : garbage) EXPECT_EQ(g.second, parsers[p](g.first)) << p << " " << g.first;
  }
}

TEST(TokenJsonParse, MembersAreNotConvertedAndReadInOrder) {
  struct Case {
    std::string json;
    int status;
    int renew;
  } cases[] = {
      {R"({"renewRequired": 1})", 0, 1},
      {R"({"renewRequired": true})", QX_ERR_BAD_RESPONSE, -1},
      {R"({"renewRequired": 1.0})", QX_ERR_BAD_RESPONSE, -1},
      {R"({"renewRequired": 99999999999})", QX_ERR_BAD_RESPONSE, -1},
  };
  for (const auto& c : cases) {
    int renew = -1;
    EXPECT_EQ(c.status, extractRenewReqdFromJSON(c.json, renew)) << c.json;
    EXPECT_EQ(c.renew, renew) << c.json;
  }
  // The token is taken before the missing validity is noticed.
  std::string token;
  int validity = -1;
  EXPECT_EQ(QX_ERR_BAD_RESPONSE, extractAuthTokenFromJSON(R"({"token": "t2"})", token, validity));
  EXPECT_EQ("t2", token);
  EXPECT_EQ(-1, validity);
  int code = 0;
  std::string message;
  EXPECT_EQ(0, extractErrorFromJSON(R"({"errorCode": 117, "errorMessage": "x"})", code, message));
  EXPECT_EQ(QX_ERR_TOKEN_EXPIRED, code);
  EXPECT_EQ(QX_ERR_BAD_RESPONSE,
            extractErrorFromJSON(R"({"errorCode": "117", "errorMessage": ""})", code, message));
  EXPECT_EQ(QX_ERR_BAD_RESPONSE, extractTrustVersionFromJSON(R"({"trustVersion": 2})", message));
}

TEST(TokenJsonBuild, PayloadsAndDefaults) {
  std::string out;
  ASSERT_EQ(0, getUserLoginDetailsAsJson("", "", "", "", "jwt", 1700000000, out));
  EXPECT_EQ(R"({"userName": "NA", "domainName": "NA", "issuedBy": "NA", "domainType": "NA", )"
            R"("token": "jwt", "expireAt": 1700000000})",
            out);
  EXPECT_EQ(QX_ERR_BAD_ARGUMENT, getUserLoginDetailsAsJson("u", "d", "i", "t", "", 1, out));
  EXPECT_EQ("", out);

  const char* full[] = {"unixpwd", "master", "admin", "secret"};
  for (int blank = -1; blank < 4; ++blank) {
    std::string v[4];
    for (int k = 0; k < 4; ++k) v[k] = k == blank ? "" : full[k];
    out = "stale";
    EXPECT_EQ(blank < 0 ? 0 : QX_ERR_BAD_ARGUMENT,
              getUserLoginPayload(v[0], v[1], v[2], v[3], out));
    EXPECT_EQ(blank < 0 ? R"({"domainType": "unixpwd", "domainName": "master", )"
                          R"("userName": "admin", "password": "secret"})"
                        : "",
              out);
  }
  EXPECT_EQ(0, getSessionTokenPayload("abc", out));
  EXPECT_EQ(R"({"sessionToken": "abc"})", out);
  // Not valid UTF-8: jansson refuses the string, the payload is not built.
  EXPECT_EQ(QX_ERR_NO_MEMORY, getUserLoginPayload("unixpwd", "m", "admin", "\xff\xfe", out));
  EXPECT_EQ("", out);
}

}  // namespace
