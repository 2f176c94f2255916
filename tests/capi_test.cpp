// The C entry points against an emulated master on the fixed port 1556 of a
// loopback address of their own.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "client/qxclnt_curl_capi.h"
#include "platform/qx_cs_cache.h"
#include "platform/qx_log.h"
#include "platform/qx_webapi.h"
#include "qxcurl/login_with_cert_manager.h"
#include "qxcurl/qxcurl_c.h"
#include "testing/fixture/qx_test_env.h"
#include "testing/fixture/qx_test_process.h"
#include "tests/test_support.h"

namespace {

const char* const kEcho = "arvion/config/hosts";
int noCertOperations(std::string) { return 0; }

class CapiTest : public QXEmulatorTest {
 protected:
  // Each test case runs as a process of its own, in parallel with others: each
  // has its own address for port 1556 (127.0.3.2 stays unused: nothing there).
  virtual const char* address() const {
    std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    return name == "WebSyncAnswers"               ? "127.0.3.1"
           : name == "DefaultTtlAndSuppliedToken" ? "127.0.3.4"
           : name == "CExampleRunsValgrindClean"  ? "127.0.3.3"
                                                  : "127.0.3.5";
  }
  QXEmulatorOptions emulatorOptions() const override {
    QXEmulatorOptions o;
    o.extraArgs = {"--host", address(), "--port", "1556"};
    return o;
  }
  void SetUp() override {
    QXEmulatorTest::SetUp();
    set_perform_cert_operations_cb(noCertOperations);
  }
  void TearDown() override {
    set_perform_cert_operations_cb(nullptr);
    QXEmulatorTest::TearDown();
  }
  std::string jwt(const char* server) {
    char* t = get_machine_jwt(server);
    EXPECT_NE(nullptr, t);
    std::string s = t ? t : "(null)";
    free(t);
    return s;
  }
};

TEST_F(CapiTest, WebSyncAnswers) {
  const struct {
    const char* name;
    const char* fault;  // JSON of a fault on the echo path, or null
    const char* path;
    const char* payload;
    bool wantOut;
    int status;
    const char* member;  // present in the answer object
  } rows[] = {
      {"GET 200", nullptr, kEcho, nullptr, true, 0, "tokenKind"},
      {"POST 200", nullptr, kEcho, "{\"password\":\"Pw-never-logged\"}", true, 0, "json"},
      {"204", "{\"kind\":\"status\",\"status\":204,\"body\":\"\"}", kEcho, nullptr, true,
       QX_ERR_BAD_RESPONSE, nullptr},
      {"null out", "{\"kind\":\"notjson\"}", kEcho, nullptr, false, 0, nullptr},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    ASSERT_EQ(0, emulator().reset());
    if (r.fault != nullptr) {
      std::string fault = std::string(r.fault);
      fault.insert(1, std::string("\"path\":\"") + kEcho + "\",");
      ASSERT_EQ(0, emulator().control("POST", "/faults", fault, nullptr));
    }
    QXLogCapture log;
    json_t* out = reinterpret_cast<json_t*>(1);  // must be overwritten
    int rc = web_sync_CAPI(QXCURL_CACHE_NONE, address(), r.path, r.payload, nullptr,
                           r.wantOut ? &out : nullptr);
    EXPECT_EQ(r.status, rc) << log.dump();
    if (!r.wantOut) {
      EXPECT_TRUE(log.contains("No API response required"));
      continue;
    }
    if (r.member != nullptr) {
      ASSERT_TRUE(json_is_object(out));
      EXPECT_NE(nullptr, json_object_get(out, r.member));
      json_decref(out);
    } else {
      EXPECT_EQ(nullptr, out);
    }
    EXPECT_FALSE(log.contains("Pw-never-logged"));
  }
}

// A cached GET keeps the answer a day when the server names no time; a token
// handed in is presented as it is, with no login for it.
TEST_F(CapiTest, DefaultTtlAndSuppliedToken) {
  json_t* out = nullptr;
  ASSERT_EQ(0, web_sync_CAPI(1, address(), kEcho, nullptr, nullptr, &out));
  json_decref(out);
  std::vector<QXCSCacheEntry> entries;
  ASSERT_EQ(0, qxCSCacheList(qxCSCacheHandle(address(), QX_CAPI_PORT), entries));
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ(QX_CAPI_DEFAULT_TTL, entries[0].expires - entries[0].stored);

  const std::string token = jwt(address());
  ASSERT_EQ(0u, token.find("eyJ"));
  ASSERT_EQ(0, emulator().reset());
  ASSERT_EQ(0, invoke_curl_api(0, address(), kEcho, nullptr, token.c_str(), &out));
  EXPECT_STREQ("machine", json_string_value(json_object_get(out, "tokenKind")));
  json_decref(out);
  auto seen = emulator().requests();
  ASSERT_EQ(1u, seen.size());
  EXPECT_EQ(token, seen[0].header("Authorization"));
}

TEST_F(CapiTest, BadArgumentsAndNeverNullToken) {
  const struct {
    int decision;
    const char* server;
    const char* path;
  } bad[] = {{1, nullptr, kEcho}, {1, address(), nullptr}, {5, address(), kEcho}};
  for (const auto& b : bad) {
    json_t* out = reinterpret_cast<json_t*>(1);
    EXPECT_EQ(QX_ERR_BAD_ARGUMENT, web_sync_CAPI(b.decision, b.server, b.path, "", "", &out));
    EXPECT_EQ(nullptr, out);
  }
  // Nothing listens on this address: the login fails, the answer is "".
  QXLogCapture log;
  EXPECT_EQ("", jwt("127.0.3.2"));
  EXPECT_TRUE(log.contains(QXLOG_ERROR, "Failed to get machine primary jwt server:127.0.3.2"));
  EXPECT_EQ("", jwt(nullptr));
  EXPECT_EQ("", jwt(""));
  // A failed client (bad server name) comes back as its status, not a throw.
  json_t* out = nullptr;
  EXPECT_NE(0, web_sync_CAPI(0, "no such host.invalid", kEcho, nullptr, nullptr, &out));
  EXPECT_EQ(nullptr, out);

  init_qxcurllib();
  EXPECT_EQ(&web_sync_CAPI, getWebAPICallback());
}

// The C example in a process of its own, under valgrind where it can run: the
// second call comes from the cache (one GET reaches the server).
TEST_F(CapiTest, CExampleRunsValgrindClean) {
  // The login asks the certificate tool to check the trust store.
  std::string tool = root().path("arvion/bin/qxcertcmd");
  mkdir(root().path("arvion/bin").c_str(), 0755);
  ASSERT_TRUE(
      qxWriteFile(tool, qxReadFile(std::string(QXCURL_SOURCE_DIR) + "/testing/certcmd/qxcertcmd")));
  ASSERT_EQ(0, chmod(tool.c_str(), 0755));
  std::vector<std::string> argv;
#if !defined(__SANITIZE_ADDRESS__)
  if (access("/usr/bin/valgrind", X_OK) == 0)
    argv = {"valgrind",
            "--quiet",
            "--error-exitcode=99",
            "--leak-check=full",
            "--errors-for-leak-kinds=definite",
            "--suppressions=" + std::string(QXCURL_SOURCE_DIR) + "/tests/valgrind.supp"};
#endif
  argv.push_back(std::string(QXCURL_BINARY_DIR) + "/examples/qxcurl_c_example");
  argv.push_back(address());
  std::string out = root().path("example.out"), err = root().path("example.err"), why;
  pid_t pid = qxSpawn(argv, out, err, &why);
  ASSERT_GT(pid, 0) << why;
  int status = 0;
  while (qxChildRunning(pid, &status)) qxSleepMs(20);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << qxReadFile(err);
  EXPECT_NE(std::string::npos,
            qxReadFile(out).find("call 2: 8 members, path " + std::string(kEcho)))
      << qxReadFile(out);
  EXPECT_EQ(1u, emulator().requestCount(kEcho, "GET"));
}

}  // namespace
