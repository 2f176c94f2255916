// Login and session payloads, and the parsers of what the server answers.
#include <gtest/gtest.h>

#include <functional>

#include "json_token_manager.h"
#include "qx_test_env.h"

namespace {

struct ParseCase {
  const char* name;
  std::string json;
  int status;
};

// Every parser runs over the same garbage: none may crash, each gives its status.
const std::vector<ParseCase> kGarbage = {
    {"empty", "", 20},
    {"not json", "{token:", 7617},
    {"array", "[]", 7617},
    {"string", "\"abc\"", 7617},
    {"number", "42", 7617},
    {"null", "null", 7617},
    {"empty object", "{}", 7610},
    {"nested", "{\"a\": {\"b\": [1, 2, {}]}}", 7610},
    {"embedded nul", std::string("{\"token\": \"a\0b\"}", 16), 7617},
};

using Parser = std::function<int(const std::string&)>;

std::vector<std::pair<const char*, Parser>> allParsers() {
  return {
      {"renew",
       [](const std::string& j) {
         int v = 0;
         return extractRenewReqdFromJSON(j, v);
       }},
      {"trust",
       [](const std::string& j) {
         std::string v;
         return extractTrustVersionFromJSON(j, v);
       }},
      {"auth",
       [](const std::string& j) {
         std::string t;
         int v = 0;
         return extractAuthTokenFromJSON(j, t, v);
       }},
      {"error",
       [](const std::string& j) {
         std::string m;
         int c = 0;
         return extractErrorFromJSON(j, c, m);
       }},
      {"user",
       [](const std::string& j) {
         std::string a, b, c, d, e;
         int x = 0;
         return extractUserDetailsFromJson(j, a, b, c, d, e, x);
       }},
  };
}

TEST(TokenJsonParse, GarbageGivesClearStatusFromEveryParser) {
  for (const auto& p : allParsers()) {
    for (const auto& c : kGarbage) {
      EXPECT_EQ(c.status, p.second(c.json)) << p.first << " / " << c.name;
    }
  }
}

TEST(TokenJsonParse, MemberTypesAreNotConverted) {
  struct Case {
    std::string json;
    int status;
    int renew;
  } cases[] = {
      {R"({"renewRequired": 1})", 0, 1},        {R"({"renewRequired": 0, "x": 5})", 0, 0},
      {R"({"renewRequired": true})", 7610, -1}, {R"({"renewRequired": "1"})", 7610, -1},
      {R"({"renewRequired": 1.0})", 7610, -1},  {R"({"renewRequired": 99999999999})", 7610, -1},
  };
  for (const auto& c : cases) {
    int renew = -1;
    EXPECT_EQ(c.status, extractRenewReqdFromJSON(c.json, renew)) << c.json;
    EXPECT_EQ(c.renew, renew) << c.json;
  }
}

TEST(TokenJsonParse, AuthTokenAndErrorReadInOrder) {
  std::string token;
  int validity = -1;
  EXPECT_EQ(0, extractAuthTokenFromJSON(R"({"validity": 60, "token": "t1"})", token, validity));
  EXPECT_EQ("t1", token);
  EXPECT_EQ(60, validity);

  // Token already taken when validity turns out to be missing.
  token.clear();
  validity = -1;
  EXPECT_EQ(7610, extractAuthTokenFromJSON(R"({"token": "t2"})", token, validity));
  EXPECT_EQ("t2", token);
  EXPECT_EQ(-1, validity);

  int code = 0;
  std::string message;
  EXPECT_EQ(
      0, extractErrorFromJSON(R"({"errorCode": 117, "errorMessage": "expired"})", code, message));
  EXPECT_EQ(117, code);
  EXPECT_EQ("expired", message);
  EXPECT_EQ(7610, extractErrorFromJSON(R"({"errorCode": 117})", code, message));
  EXPECT_EQ(7610,
            extractErrorFromJSON(R"({"errorCode": "117", "errorMessage": ""})", code, message));

  std::string version;
  EXPECT_EQ(0, extractTrustVersionFromJSON(R"({"trustVersion": "2.1"})", version));
  EXPECT_EQ("2.1", version);
  EXPECT_EQ(7610, extractTrustVersionFromJSON(R"({"trustVersion": 2})", version));
}

TEST(TokenJsonBuild, UserDetailsRoundTripAndDefaults) {
  std::string out;
  ASSERT_EQ(0, getUserLoginDetailsAsJson("", "", "", "", "jwt", 1700000000, out));
  std::string u, d, i, t, tok;
  int exp = 0;
  ASSERT_EQ(0, extractUserDetailsFromJson(out, u, d, i, t, tok, exp));
  EXPECT_EQ("NA", u);
  EXPECT_EQ("NA", d);
  EXPECT_EQ("NA", i);
  EXPECT_EQ("NA", t);
  EXPECT_EQ("jwt", tok);
  EXPECT_EQ(1700000000, exp);

  out = "stale";
  EXPECT_EQ(20, getUserLoginDetailsAsJson("u", "d", "i", "t", "", 1, out));
  EXPECT_EQ("", out);
}

TEST(TokenJsonBuild, LoginPayloadNeedsAllFourValues) {
  const char* full[] = {"unixpwd", "master", "admin", "secret"};
  for (int blank = -1; blank < 4; ++blank) {
    std::string v[4];
    for (int k = 0; k < 4; ++k) v[k] = k == blank ? "" : full[k];
    std::string out = "stale";
    int rc = getUserLoginPayload(v[0], v[1], v[2], v[3], out);
    if (blank < 0) {
      EXPECT_EQ(0, rc);
      EXPECT_EQ(
          R"({"domainType": "unixpwd", "domainName": "master", "userName": "admin", "password": "secret"})",
          out);
    } else {
      EXPECT_EQ(20, rc) << "blank " << blank;
      EXPECT_EQ("", out);
    }
  }
  std::string out;
  EXPECT_EQ(0, getSessionTokenPayload("abc", out));
  EXPECT_EQ(R"({"sessionToken": "abc"})", out);
  // Not valid UTF-8: jansson refuses the string, the payload is not built.
  EXPECT_EQ(10, getUserLoginPayload("unixpwd", "m", "admin", "\xff\xfe", out));
  EXPECT_EQ("", out);
}

TEST(TokenJsonBuild, CertOperationsKeepOrder) {
  std::string out;
  EXPECT_EQ(0, writeServerCertsOpsJson({{"server", "m1"}}, {}, out));
  EXPECT_EQ(R"({"server": "m1", "operations": []})", out);
  EXPECT_EQ(0, writeServerCertsOpsJson({{"server", "m1"}},
                                       {"SetupTrust", "GetCRL", "RenewRequired"}, out));
  EXPECT_EQ(R"({"server": "m1", "operations": ["SetupTrust", "GetCRL", "RenewRequired"]})", out);
}

TEST(TokenJsonParse, FailuresAreLoggedUnderTheFunctionName) {
  QXLogCapture log;
  std::string a, b, c, d, e;
  int x = 0;
  EXPECT_EQ(7617, extractUserDetailsFromJson("{\"userName\": ", a, b, c, d, e, x));
  EXPECT_TRUE(log.contains(16, "  json pos  :")) << log.dump();
  EXPECT_EQ(20, extractUserDetailsFromJson("", a, b, c, d, e, x));
  EXPECT_TRUE(log.contains("input json string is empty"));
}

}  // namespace
