// User sessions, API keys, appliance and supplied tokens, and the helpers
// they rest on.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "qxcurl/env_var_utilities.h"
#include "qxcurl/exec_custom_script.h"
#include "qxcurl/login_with_user_token_manager.h"
#include "qxcurl/qx_app_token_manager.h"
#include "qxcurl/qx_status.h"
#include "qxcurl/supplied_token_manager.h"
#include "testing/fixture/qx_test_env.h"
#include "tests/test_support.h"

namespace {

constexpr int kBad = QX_ERR_BAD_RESPONSE;

TEST(TokenHelpers, CommandRunnerKeepsFirstLineAndLimitsItsLength) {
  struct Case {
    std::string cmd;
    int status;
    std::string output;
  } cases[] = {
      {"printf 'one\\ntwo\\n'", 0, "one\n"},
      {"head -c 255 /dev/zero | tr '\\0' a; echo", 0, std::string(255, 'a') + "\n"},
      {"head -c 256 /dev/zero | tr '\\0' a; echo", QX_ERR_BAD_ARGUMENT,
       std::string(256, 'a') + "\n"},
      {"echo out; exit 7", 0, "out\n"},
  };
  for (const auto& c : cases) {
    std::string out = "stale";
    EXPECT_EQ(c.status, ExecCustomScript().run(c.cmd.c_str(), out)) << c.cmd;
    EXPECT_EQ(c.output, out) << c.cmd;
  }
}

// The appliance script's answer names the session's target between brackets.
TEST(TokenHelpers, ApplianceTargetOutput) {
  struct TargetCase {
    const char* output;
    int status;
    const char* target;
  } targets[] = {
      {"[u1001]\n", 0, "u1001"},
      {"[]\n", kBad, ""},
      {"u1001\n", kBad, ""},
      {"[u 1]\n", kBad, ""},
  };
  for (const auto& c : targets) {
    std::string target;
    EXPECT_EQ(c.status, LoginWithUserTokenManager::validateCmdOutput(c.output, '[', ']', target))
        << c.output;
    EXPECT_EQ(c.target, target) << c.output;
  }
}

TEST(TokenSupplied, TraceShowsOnlyEdgesOfLongTokens) {
  struct Case {
    std::string token;
    const char* trace;  // null: nothing logged
  } cases[] = {
      {"abcdefghijklmnop", "provided:[ab..p]"},
      {"abcdefghijklmno", nullptr},
      {"", nullptr},
  };
  for (const auto& c : cases) {
    QXLogCapture log;
    SuppliedTokenManager mgr(c.token);
    std::string out = "stale";
    EXPECT_EQ(0, mgr.getToken("m", out, true, nullptr));
    EXPECT_EQ(c.token, out);
    EXPECT_FALSE(mgr.isRetryRequired(401, R"({"errorCode": 117, "errorMessage": ""})"));
    if (c.trace != nullptr) {
      EXPECT_TRUE(log.contains(2, c.trace)) << log.dump();
    } else {
      EXPECT_EQ(0u, log.count("provided:")) << c.token;
    }
  }
}

class TokenUserTest : public QXEmulatorTest {
 protected:
  void SetUp() override {
    QXEmulatorTest::SetUp();
    // Sessions stay inside the test root, never in the real home directory.
    ASSERT_TRUE(root().writeConfig("SESSION_TOKEN_DIR = var/sessions\nFEATURE_1 = yes\n"));
  }
  std::unique_ptr<LoginWithUserTokenManager> user(const std::string& password = "secret") {
    return std::make_unique<LoginWithUserTokenManager>(emulator().port(), "unixpwd", "localhost",
                                                       "admin", password, CERT_TYPE_HOST);
  }
  size_t count(const std::string& path) { return emulator().requestCount(path); }
};

TEST_F(TokenUserTest, LoginStoresSessionForTheNextRun) {
  QXLogCapture log;
  auto mgr = user();
  std::string token, again;
  ASSERT_EQ(0, mgr->getToken("localhost", token, false, nullptr)) << log.dump();
  EXPECT_FALSE(token.empty());
  // A second manager (another run of a tool) finds the stored session.
  ASSERT_EQ(0, user()->getToken("localhost", again, false, nullptr));
  EXPECT_EQ(token, again);
  EXPECT_EQ(1u, count("arvion/login"));
  // (The logout, with the session token, is the tool's round trip and the
  // next test's.)

  // The longest validity a server can send still gives a stored session.
  int validity = INT_MAX;
  std::string local;
  ASSERT_EQ(0, mgr->saveNewToken("localhost", "long-lived", validity));
  EXPECT_EQ(INT_MAX, validity);
  ASSERT_EQ(0, mgr->getLocalToken(local));
  EXPECT_EQ("long-lived", local);

  for (const auto& line : log.lines()) {
    EXPECT_EQ(std::string::npos, line.text.find("secret")) << line.text;
    EXPECT_EQ(std::string::npos, line.text.find(token)) << line.text;
  }
}

TEST_F(TokenUserTest, RefusedLoginAndLogoutAnswers) {
  std::string token;
  EXPECT_EQ(8002,
            user("wrong")->getToken("localhost", token, false, nullptr));  // the server's code
  EXPECT_EQ("", token);

  struct Case {
    const char* fault;
    int status;
  } cases[] = {
      {R"({"status": 401, "body": {"errorCode": 8001, "errorMessage": "gone"}})", 0},
      {R"({"status": 500, "body": {"errorCode": 8005, "errorMessage": "broken"}})",
       QX_ERR_REQUEST_FAILED},
  };
  for (const auto& c : cases) {
    auto mgr = user();
    ASSERT_EQ(0, mgr->getToken("localhost", token, true, nullptr));
    ASSERT_EQ(0, emulator().addFault("arvion/logout", "status", 1, c.fault));
    EXPECT_EQ(c.status, mgr->deleteToken("localhost", nullptr)) << c.fault;
    std::string local;
    EXPECT_NE(0, mgr->getLocalToken(local)) << "local session kept after " << c.fault;
  }
}

TEST_F(TokenUserTest, ApiKeyFromVariableOrFileNeedsNoServer) {
  ASSERT_TRUE(qxWriteFile(root().path("keys"), "other:x1\nLocalHost : file-key\n"));
  ASSERT_TRUE(qxWriteFile(root().path("keys-noeol"), "localhost:last-key"));
  std::string fromFile = "@" + root().path("keys");
  std::string noEol = "@" + root().path("keys-noeol");
  std::string missing = "@" + root().path("nokeys");
  struct Case {
    const char* value;
    const char* key;  // null: falls back to a user login
  } cases[] = {
      {"other:x1, LOCALHOST:env-key", "env-key"},
      {fromFile.c_str(), "file-key"},
      {noEol.c_str(), "last-key"},
      {"localhost.other:x1, other", nullptr},
      {missing.c_str(), nullptr},
  };
  QXLogCapture log;
  for (const auto& c : cases) {
    setenv("ARVION_APIKEY", c.value, 1);
    std::string token;
    size_t before = count("arvion/login");
    ASSERT_EQ(0, user()->getToken("localhost", token, true, nullptr)) << c.value;
    if (c.key != nullptr) {
      EXPECT_EQ(c.key, token);
      EXPECT_EQ(before, count("arvion/login")) << c.value;
    } else {
      EXPECT_EQ(before + 1, count("arvion/login")) << c.value;
    }
  }
  unsetenv("ARVION_APIKEY");
  for (const char* secret : {"env-key", "file-key", "last-key"}) {
    EXPECT_EQ(0u, log.count(secret)) << secret;
  }
}

TEST_F(TokenUserTest, ApplianceTargetComesFromScript) {
  ASSERT_EQ(0, mkdir(root().path("arvion/bin").c_str(), 0755));
  ASSERT_TRUE(qxWriteFile(root().path("arvion/bin/qxa"),
                          "#!/bin/sh\n[ \"$1\" = qxuserid ] && echo '[u1001]'\n"));
  ASSERT_EQ(0, chmod(root().path("arvion/bin/qxa").c_str(), 0755));
  ASSERT_TRUE(root().writeConfig("SESSION_TOKEN_DIR = var/sessions\nAPPLIANCE_HOST = yes\n"));
  auto mgr = user();
  EXPECT_TRUE(mgr->isApplianceHost());
  std::string target;
  EXPECT_EQ(0, mgr->getSessionTokenTarget(target));
  EXPECT_EQ("u1001", target);
  std::string token, local;
  ASSERT_EQ(0, mgr->getToken("localhost", token, false, nullptr));
  ASSERT_EQ(0, mgr->getLocalToken(local));
  EXPECT_EQ(token, local);
  // Another target does not see that session.
  ASSERT_TRUE(qxWriteFile(root().path("arvion/bin/qxa"), "#!/bin/sh\necho '[u1002]'\n"));
  EXPECT_NE(0, mgr->getLocalToken(local));
}

TEST_F(TokenUserTest, ApplianceAccessToken) {
  auto app = [&]() {
    return std::make_unique<qxAppTokenManager>(emulator().port(), "localhost",
                                               root().path("var/webtruststore/cacert.pem"), "admin",
                                               "secret");
  };
  QXLogCapture log;
  auto mgr = app();
  std::string first, second;
  ASSERT_EQ(0, mgr->getToken("", first, false, nullptr)) << log.dump();
  EXPECT_FALSE(first.empty());
  EXPECT_EQ(0, mgr->getToken("", second, false, nullptr));
  EXPECT_EQ(first, second);
  const char* login = "appliance/authservice/api/v1/auth/login";
  EXPECT_EQ(1u, count(login));
  EXPECT_EQ(0u, log.count("secret")) << log.dump();

  struct Case {
    const char* fault;
    int status;
    const char* token;
  } cases[] = {
      {R"({"status": 206, "body": {"accessToken": "partial"}})", 0, "partial"},
      {R"({"status": 207, "body": {"accessToken": "multi"}})", QX_ERR_APPLIANCE_REFUSED, nullptr},
      {R"({"status": 200, "body": {"accessToken": 5}})", QX_ERR_BAD_ANSWER, nullptr},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(0, emulator().addFault(login, "status", 1, c.fault));
    std::string token = "stale";
    EXPECT_EQ(c.status, mgr->getToken("", token, true, nullptr)) << c.fault;
    if (c.token != nullptr) {
      EXPECT_EQ(c.token, token);
    }
  }
  // A failed login keeps the token obtained before it.
  std::string kept;
  EXPECT_EQ(0, mgr->getToken("", kept, false, nullptr));
  EXPECT_EQ("partial", kept);
}

}  // namespace
