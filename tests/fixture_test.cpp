// The shared test environment against the real emulator, PKI and proxy: if
// these fail, every integration suite built on them is suspect.
#include <curl/curl.h>
#include <openssl/ssl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cctype>

#include "qx_log.h"
#include "qx_test_env.h"

namespace {

struct Call {
  Call(std::string u, std::string ca, std::string m = "")
      : url(std::move(u)), caFile(std::move(ca)), marker(std::move(m)) {}
  std::string url;
  std::string caFile;
  std::string marker;  // TLS server name sent instead of the URL host
  std::string cert, key, keyPassword, crlFile, proxy;
};

struct Reply {
  CURLcode rc = CURLE_OK;
  long status = 0;
  long connectCode = 0;
  std::map<std::string, std::string> headers;  // lower-case names
};

thread_local std::string t_marker;

void sendMarker(const SSL* ssl, int where, int) {
  if ((where & SSL_CB_HANDSHAKE_START) && !SSL_is_init_finished(ssl)) {
    SSL_set_tlsext_host_name(const_cast<SSL*>(ssl), t_marker.c_str());
  }
}

CURLcode installMarker(CURL*, void* ctx, void*) {
  SSL_CTX_set_info_callback(static_cast<SSL_CTX*>(ctx), sendMarker);
  return CURLE_OK;
}

size_t ignoreBody(char*, size_t size, size_t n, void*) { return size * n; }

size_t keepHeader(char* data, size_t size, size_t n, void* user) {
  std::string line(data, size * n);
  size_t colon = line.find(':');
  if (colon != std::string::npos) {
    std::string name = line.substr(0, colon);
    for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    std::string value = line.substr(colon + 1);
    value.erase(0, value.find_first_not_of(" \t"));
    value.erase(value.find_last_not_of(" \t\r\n") + 1);
    (*static_cast<std::map<std::string, std::string>*>(user))[name] = value;
  }
  return size * n;
}

Reply httpsGet(const Call& c) {
  Reply r;
  CURL* curl = curl_easy_init();
  curl_easy_setopt(curl, CURLOPT_URL, c.url.c_str());
  curl_easy_setopt(curl, CURLOPT_CAINFO, c.caFile.c_str());
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 20L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, ignoreBody);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, keepHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &r.headers);
  curl_easy_setopt(curl, CURLOPT_PROXY, c.proxy.c_str());
  if (!c.proxy.empty()) curl_easy_setopt(curl, CURLOPT_HTTPPROXYTUNNEL, 1L);
  if (!c.marker.empty()) {
    t_marker = c.marker;
    curl_easy_setopt(curl, CURLOPT_SSL_CTX_FUNCTION, installMarker);
  }
  if (!c.cert.empty()) {
    curl_easy_setopt(curl, CURLOPT_SSLCERT, c.cert.c_str());
    curl_easy_setopt(curl, CURLOPT_SSLKEY, c.key.c_str());
    if (!c.keyPassword.empty()) curl_easy_setopt(curl, CURLOPT_KEYPASSWD, c.keyPassword.c_str());
  }
  if (!c.crlFile.empty()) curl_easy_setopt(curl, CURLOPT_CRLFILE, c.crlFile.c_str());
  r.rc = curl_easy_perform(curl);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &r.status);
  curl_easy_getinfo(curl, CURLINFO_HTTP_CONNECTCODE, &r.connectCode);
  curl_easy_cleanup(curl);
  return r;
}

using FixtureTest = QXEmulatorTest;

TEST_F(FixtureTest, PingIsAnsweredOverTlsAndRecorded) {
  Reply r = httpsGet(
      {emulator().url("arvion/ping"), root().path("var/webtruststore/cacert.pem"), "QXCA"});
  ASSERT_EQ(CURLE_OK, r.rc);
  EXPECT_EQ(200, r.status);
  EXPECT_EQ("6.0", r.headers["x-arvion-api-version"]);

  std::vector<QXRecordedRequest> seen = emulator().requests();
  ASSERT_EQ(1u, seen.size());
  EXPECT_EQ("GET", seen[0].method);
  EXPECT_EQ("arvion/ping", seen[0].path);
  EXPECT_EQ("QXCA", seen[0].sni);
  EXPECT_FALSE(seen[0].header("host").empty());
  EXPECT_FALSE(seen[0].tunnel);
}

TEST_F(FixtureTest, TinyproxyTunnelsOnlyToTheAllowedPort) {
  const std::string ca = root().pki("qxca/ca.pem");
  // The fixture's own tests keep to 127.0.5.x for port 1556.
  QXTinyproxy open("127.0.5.1", emulator().port());
  QXTinyproxy closed("127.0.5.2", emulator().port() + 1);
  std::string error;
  ASSERT_EQ(0, open.start(&error)) << error;
  ASSERT_EQ(0, closed.start(&error)) << error;

  Call through(emulator().url("arvion/ping"), ca);
  through.proxy = open.proxyUrl();
  Reply r = httpsGet(through);
  EXPECT_EQ(CURLE_OK, r.rc) << open.logText();
  EXPECT_EQ(200, r.status);

  through.proxy = closed.proxyUrl();
  r = httpsGet(through);
  EXPECT_NE(CURLE_OK, r.rc);
  EXPECT_EQ(403, r.connectCode);
  EXPECT_EQ(1u, emulator().requests().size());
}

class FixtureTunnelTest : public QXEmulatorTest {
 protected:
  QXEmulatorOptions emulatorOptions() const override {
    QXEmulatorOptions o;
    o.tunnels = {"127.0.5.3"};
    o.apiVersion = "none";
    return o;
  }
};

TEST_F(FixtureTunnelTest, OptionsReachTheEmulatorAndItsTunnelIsRecorded) {
  Call c(emulator().url("arvion/ping"), root().pki("qxca/ca.pem"));
  c.proxy = "http://127.0.5.3:1556";
  Reply r = httpsGet(c);
  ASSERT_EQ(CURLE_OK, r.rc);
  EXPECT_EQ(0u, r.headers.count("x-arvion-api-version"));
  std::vector<QXRecordedRequest> seen = emulator().requests();
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ("CONNECT", seen[0].method);
  EXPECT_EQ("arvion/ping", seen[1].path);
  EXPECT_TRUE(seen[1].tunnel);
  EXPECT_EQ("127.0.5.3", seen[1].tunnelAddress);
}

TEST(QXEmulatorLife, StartFailureCarriesStderrAndSigtermExitsCleanly) {
  QXEmulatorOptions bad;
  bad.extraArgs = {"--no-such-option"};
  QXEmulator broken(bad);
  std::string error;
  EXPECT_NE(0, broken.start(&error));
  EXPECT_FALSE(broken.running());
  EXPECT_NE(std::string::npos, error.find("no-such-option")) << error;

  QXEmulator good;
  ASSERT_EQ(0, good.start(&error)) << error;
  EXPECT_GT(good.port(), 0);
  EXPECT_NE(good.port(), good.controlPort());
  int status = good.stop();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_NE(0, good.reset());
}

TEST(QXTestRootLife, RootIsLaidOutAndEnvironmentRestored) {
  for (const char* previous : {"/somewhere/else", static_cast<const char*>(nullptr)}) {
    SCOPED_TRACE(previous ? previous : "(unset)");
    if (previous) {
      setenv("ARVION_ROOT", previous, 1);
    } else {
      unsetenv("ARVION_ROOT");
    }
    std::string dir, pkiCa;
    {
      QXTestRoot root;
      ASSERT_TRUE(root.ok()) << root.error();
      dir = root.dir();
      pkiCa = root.pki("qxca/ca.pem");
      ASSERT_NE(nullptr, getenv("ARVION_ROOT"));
      EXPECT_EQ(dir, getenv("ARVION_ROOT"));
      const std::string ca = qxReadFile(pkiCa);
      ASSERT_FALSE(ca.empty());
      EXPECT_EQ(ca, qxReadFile(root.path("var/webtruststore/cacert.pem")));
      EXPECT_EQ(ca, qxReadFile(root.path("var/global/webtruststore/cacert.pem")));
      EXPECT_EQ(ca, qxReadFile(root.path("var/pki/qxca/ca.pem")));
      EXPECT_NE(std::string::npos, qxReadFile(root.path("var/certmap.json")).find("\"ECA\""));
      struct stat st;
      EXPECT_EQ(0, stat(root.path("tmp").c_str(), &st));
      ASSERT_TRUE(root.writeConfig("SERVER = a\n"));
      ASSERT_TRUE(root.writeConfig("SERVER = b\n"));
      EXPECT_EQ("SERVER = b\n", qxReadFile(root.path("arvion/arvion.conf")));
    }
    const char* now = getenv("ARVION_ROOT");
    if (previous) {
      ASSERT_NE(nullptr, now);
      EXPECT_STREQ(previous, now);
    } else {
      EXPECT_EQ(nullptr, now);
    }
    struct stat st;
    EXPECT_NE(0, stat(dir.c_str(), &st));
    // Removing the root must not reach through the link into the shared PKI.
    EXPECT_EQ(0, stat(pkiCa.c_str(), &st));
  }
  unsetenv("ARVION_ROOT");
}

TEST(QXRecordedRequestParse, GarbageIsRejectedAndFieldsAreRead) {
  struct Case {
    const char* text;
    bool ok;
    size_t count;
  } cases[] = {
      {"", false, 0},  {"{}", false, 0}, {"[1]", false, 0},     {"[{}, 2]", false, 0},
      {"[", false, 0}, {"[]", true, 0},  {"[{}, {}]", true, 2}, {"[{\"path\": 5}]", true, 1},
  };
  for (const Case& c : cases) {
    std::vector<QXRecordedRequest> out;
    EXPECT_EQ(c.ok, qxParseRecordedRequests(c.text, out)) << c.text;
    EXPECT_EQ(c.count, out.size()) << c.text;
  }
  std::vector<QXRecordedRequest> out;
  ASSERT_TRUE(qxParseRecordedRequests(
      R"([{"method":"POST","path":"/arvion/login","headers":{"X-Client-ID":"t","n":3},)"
      R"("tunnel":true}])",
      out));
  EXPECT_EQ("arvion/login", out[0].path);
  EXPECT_EQ("t", out[0].header("x-client-id"));
  EXPECT_EQ("", out[0].header("n"));
  EXPECT_TRUE(out[0].tunnel);
}

TEST(QXLogCaptureLife, CapturesUntilDestroyed) {
  {
    QXLogCapture capture;
    logmsg(QXLOG_ERROR, QXLOG_CATEGORY, "FixtureTest", "first message");
    EXPECT_TRUE(capture.contains(QXLOG_ERROR, "first message")) << capture.dump();
    EXPECT_FALSE(capture.contains(QXLOG_PROGRESS, "first message"));
  }
  logmsg(QXLOG_ERROR, QXLOG_CATEGORY, "FixtureTest", "nobody listens");
  QXLogCapture later;
  logmsg(QXLOG_PROGRESS, QXLOG_CATEGORY, "FixtureTest", "second message");
  EXPECT_FALSE(later.contains("first message"));
  EXPECT_EQ(1u, later.count("second message"));
}

}  // namespace
