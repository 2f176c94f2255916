// The client against the emulated master server: what goes on the wire, how
// failures map to statuses, and how the retries and renegotiation behave.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "qxcurl/json_token_manager.h"
#include "qxcurl/qxclnt_curl.h"
#include "qxcurl/supplied_token_manager.h"
#include "testing/fixture/qx_test_env.h"
#include "tests/test_support.h"

namespace {

const char* const kEchoPath = "arvion/config/hosts";

class ClientWireTest : public QXEmulatorTest {
 protected:
  FakeRetryClock m_clock;

  // A client for the emulator that trusts the given CA bundle as the own CA.
  std::unique_ptr<QXClientCURL> client(QXCurlSessionType session = QXCURL_INSECURE,
                                       TokenManager_Base* tokens = nullptr,
                                       const std::string& locale = "", int port = 0,
                                       const std::string& server = "localhost") {
    std::unique_ptr<QXClientCURL> c(
        new QXClientCURL(server, port ? port : emulator().port(), CERT_TYPE_HOST, session, tokens,
                         "", true, false, false, "QXCA", "", "", "", "", "", false, false, locale));
    EXPECT_EQ(0, c->setCustomCAPath(root().pki("qxca/ca.pem"), "QXCA"));
    c->setConnectRetryTimeout(0);
    return c;
  }

  std::string userToken() {
    auto c = client();
    EXPECT_EQ(0, c->Post("arvion/login",
                         "{\"domainType\":\"unixpwd\",\"domainName\":\"\",\"userName\":\"admin\","
                         "\"password\":\"secret\"}"));
    EXPECT_EQ(201, c->m_httpCode) << c->m_responseBody;
    std::string token;
    int validity = 0;
    EXPECT_EQ(0, extractAuthTokenFromJSON(c->m_responseBody, token, validity));
    emulator().reset();
    return token;
  }

  std::vector<QXRecordedRequest> requestsTo(const std::string& path) {
    std::vector<QXRecordedRequest> all = emulator().requests(), out;
    std::copy_if(all.begin(), all.end(), std::back_inserter(out),
                 [&](const QXRecordedRequest& r) { return r.path == path; });
    return out;
  }
};

TEST_F(ClientWireTest, VerbsOnTheWire) {
  SuppliedTokenManager tokens(userToken());
  auto c = client(QXCURL_USE_TOKEN, &tokens, "fr_FR");
  const std::string payload = "{\"a\":\"x\ny\r\"}";
  struct Case {
    std::string method;
    std::string body;  // what the server must receive
  } cases[] = {{"POST", "{\"a\":\"x\\ny\\r\"}"},
               {"PUT", payload},
               {"PATCH", payload},
               {"GET", ""},
               {"DELETE", ""},
               {"POST", "{\"a\":\"x\\ny\\r\"}"}};
  for (const Case& k : cases) {
    emulator().reset();
    int status = k.method == "GET"     ? c->Get(kEchoPath)
                 : k.method == "POST"  ? c->Post(kEchoPath, payload)
                 : k.method == "PUT"   ? c->Put(kEchoPath, payload)
                 : k.method == "PATCH" ? c->Patch(kEchoPath, payload)
                                       : c->Delete(kEchoPath);
    ASSERT_EQ(0, status) << k.method;
    EXPECT_EQ(200, c->m_httpCode) << k.method << " " << c->m_responseBody;
    std::vector<QXRecordedRequest> seen = emulator().requests();
    ASSERT_EQ(1u, seen.size()) << k.method;
    const QXRecordedRequest& r = seen[0];
    EXPECT_EQ(k.method, r.method);
    EXPECT_EQ(kEchoPath, r.path);
    EXPECT_EQ(k.body, r.body) << k.method;
    EXPECT_EQ("application/vnd.arvion+json;version=6.0", r.header("Accept"));
    EXPECT_EQ("QX-CURL-client_wire_test-" + std::to_string(getpid()), r.header("X-Client-ID"));
    EXPECT_EQ("fr", r.header("Accept-Language"));
    EXPECT_FALSE(r.header("Authorization").empty());
    EXPECT_EQ("QXCA", r.sni);
  }
  EXPECT_EQ(QX_ERR_BAD_ARGUMENT, c->Post(kEchoPath, ""));
  EXPECT_EQ(QX_ERR_BAD_ARGUMENT, c->Put(kEchoPath, ""));
  EXPECT_EQ(QX_ERR_BAD_ARGUMENT, c->Patch(kEchoPath, ""));
}

TEST_F(ClientWireTest, MultipartUploadRestoresContentType) {
  SuppliedTokenManager tokens(userToken());
  auto c = client(QXCURL_USE_TOKEN, &tokens);
  std::string local = root().path("tmp/upload.bin");
  ASSERT_TRUE(qxWriteFile(local, "payload-bytes"));
  EXPECT_EQ(QX_ERR_BAD_ARGUMENT, c->PostMultipartFile("arvion/upload", local, "", "text/plain"));
  ASSERT_EQ(0, c->PostMultipartFile("arvion/upload", local, "remote.txt", "text/plain"));
  std::vector<QXRecordedRequest> seen = requestsTo("arvion/upload");
  ASSERT_EQ(1u, seen.size());
  EXPECT_EQ(0u, seen[0].header("Content-Type").find("multipart/form-data; boundary="));
  EXPECT_NE(std::string::npos, seen[0].body.find("filename=\"remote.txt\""));
  EXPECT_NE(std::string::npos, seen[0].body.find("payload-bytes"));
  // The next request is an ordinary one again.
  ASSERT_EQ(0, c->Get(kEchoPath));
  EXPECT_EQ("application/vnd.arvion+json;version=6.0",
            requestsTo(kEchoPath).at(0).header("Content-Type"));
}

// Refusals, stalls, certificates and plain 503s are rows of the fault matrix;
// these are the outcomes that depend on the configuration or the error body.
TEST_F(ClientWireTest, FailuresThatDependOnConfigurationOrBody) {
  struct Case {
    const char* config;
    const char* server;
    bool refusedPort;
    const char* fault503;  // extra JSON of a 503 fault, null: none
    int status;
  } cases[] = {
      // Through the tunnel road, whose only candidate is the direct one: the
      // refusal ends the operation once the router has nothing more.
      {"WEB_SERVER_TUNNEL_USE = 0\n", "localhost", true, nullptr, QX_ERR_CONNECT},
      // The connector cannot resolve the name, so libcurl is pinned to an
      // unreachable address: a connect failure, which lets a tunnel be tried.
      // Resolving by itself, libcurl reports the name.
      {"", "nohost.invalid", false, nullptr, QX_ERR_CONNECT},
      {"DISABLE_QXCURL_PREFERRED_NETWORKS = YES\n", "nohost.invalid", false, nullptr,
       QX_ERR_RESOLVE},
      {"DISABLE_QXCURL_CONNECTIONS = yes\n", "localhost", false, nullptr, QX_ERR_RESOLVE},
      {"", "localhost", false, R"({"body": {"errorCode": 1234, "errorMessage": "busy"}})", 1234},
      {"", "localhost", false, R"({"body": "<html>down</html>"})", QX_ERR_SERVICE_UNAVAILABLE},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(std::string(k.config) + k.server);
    ASSERT_TRUE(root().writeConfig(k.config));
    ASSERT_EQ(0, emulator().reset());
    if (k.fault503 != nullptr) {
      ASSERT_EQ(0, emulator().addFault("arvion/ping", "503", 1, k.fault503));
    }
    QXLoopbackPort refused;
    auto c = client(QXCURL_INSECURE, nullptr, "", k.refusedPort ? refused.port() : 0, k.server);
    EXPECT_EQ(k.status, c->Get("arvion/ping"));
    EXPECT_EQ(k.fault503 ? 1u : 0u, emulator().requests().size());  // window 0: no retry
  }
}

TEST_F(ClientWireTest, ApiVersionRenegotiatedOnce) {
  SuppliedTokenManager tokens(userToken());
  ASSERT_EQ(0, emulator().setConfig("{\"apiVersion\": \"5.0\"}"));
  auto c = client(QXCURL_USE_TOKEN, &tokens);
  ASSERT_EQ(0, c->Get(kEchoPath));
  EXPECT_EQ(200, c->m_httpCode);
  std::vector<QXRecordedRequest> seen = emulator().requests();
  ASSERT_EQ(3u, seen.size());
  EXPECT_EQ("application/vnd.arvion+json;version=6.0", seen[0].header("Accept"));
  EXPECT_EQ("arvion/ping", seen[1].path);
  EXPECT_EQ("application/vnd.arvion+json;version=5.0", seen[2].header("Accept"));

  // A second refusal in the same call is handed to the caller as it is.
  emulator().reset();
  ASSERT_EQ(0, emulator().setConfig("{\"apiVersion\": \"6.0\"}"));
  ASSERT_EQ(0, emulator().addFault(kEchoPath, "status", 5, "{\"status\": 406}"));
  EXPECT_EQ(0, c->Get(kEchoPath));
  EXPECT_EQ(406, c->m_httpCode);
  EXPECT_EQ(2u, emulator().requestCount(kEchoPath));
  EXPECT_EQ(1u, emulator().requestCount("arvion/ping"));
}

TEST_F(ClientWireTest, RetryWindowBoundsAttempts) {
  auto c = client();
  ASSERT_EQ(0, emulator().addFault("arvion/ping", "503", 100));
  c->setConnectRetryTimeout(12);
  time_t start = FakeRetryClock::now();
  EXPECT_EQ(8003, c->Get("arvion/ping"));  // the body's errorCode
  size_t attempts = emulator().requestCount("arvion/ping");
  EXPECT_GE(attempts, 2u);
  EXPECT_LE(attempts, 13u);  // every sleep is at least a second
  EXPECT_GE(FakeRetryClock::now() - start, 12);
  EXPECT_FALSE(c->m_retrying);

  // Retries stop as soon as the server answers.
  emulator().reset();
  ASSERT_EQ(0, emulator().addFault("arvion/ping", "503", 2));
  c->setConnectRetryTimeout(120);
  EXPECT_EQ(0, c->Get("arvion/ping"));
  EXPECT_EQ(3u, emulator().requestCount("arvion/ping"));
  EXPECT_EQ("pong\n", c->m_responseBody);
}

}  // namespace
