// Handshakes against the emulated master: which server name and client
// certificate it saw, and what the revocation check and key loading report.
#include <gtest/gtest.h>
#include <jansson.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <chrono>
#include <thread>
#include <utility>

#include "qxcurl/qxclnt_curl.h"
#include "testing/fixture/qx_test_env.h"
#include "tests/test_support.h"

namespace {

class TlsHandshakeTest : public QXEmulatorTest {
 protected:
  std::unique_ptr<QXClientCURL> client(QXCurlSessionType type, const std::string& caType = "") {
    return std::make_unique<QXClientCURL>("localhost", emulator().port(), CERT_TYPE_HOST, type,
                                          nullptr, "", false, false, false, caType);
  }

  // One transfer straight on the client's handle, mapped like the client
  // maps its failures.
  int fetch(QXClientCURL& c, const std::string& path = "arvion/ping") {
    c.m_responseBody.clear();
    curl_easy_setopt(c.m_curlHandle, CURLOPT_URL, (c.m_server_url + path).c_str());
    c.m_curlError = curl_easy_perform(c.m_curlHandle);
    return c.m_curlError == CURLE_OK ? 0 : c.mapCurlError();
  }

  QXRecordedRequest lastRequest() {
    auto all = emulator().requests();
    EXPECT_FALSE(all.empty());
    return all.empty() ? QXRecordedRequest() : all.back();
  }
};

TEST_F(TlsHandshakeTest, ServerNameMarkerFollowsTheCAInUse) {
  struct Case {
    const char* name;
    const char* supported;  // caSupported as JSON
    QXCurlSessionType type;
    std::string caType;
    const char* sni;
    int usage;
    const char* trust;  // trust store the client chose
  } cases[] = {
      {"configured own CA", R"(["QXCA","ECA"])", QXCURL_USE_TOKEN, "", "QXCA", 0,
       "var/webtruststore/cacert.pem"},
      {"forced external CA", R"(["QXCA","ECA"])", QXCURL_USE_TOKEN, "ECA", "ECA", 2,
       "var/pki/eca/cacert.pem"},
      {"configured external CA", R"(["ECA"])", QXCURL_USE_TOKEN, "", "ECA", 2,
       "var/pki/eca/cacert.pem"},
      {"no CA usable", "[]", QXCURL_USE_TOKEN, "", "localhost", 3, "var/webtruststore/cacert.pem"},
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    root().editCertMap([&](json_t* e) {
      json_object_set_new(e, "caSupported", json_loads(tc.supported, 0, nullptr));
    });
    auto c = client(tc.type, tc.caType);
    EXPECT_EQ(tc.usage, c->m_caUsage);
    EXPECT_EQ(root().path(tc.trust), c->m_CACertPath);
    EXPECT_NE(std::string::npos, c->m_trustedCert.find("BEGIN CERTIFICATE"));
    EXPECT_EQ(0, fetch(*c)) << c->m_errorBuffer;
    QXRecordedRequest r = lastRequest();
    EXPECT_EQ(tc.sni, r.sni);
    // The marker replaces the server name on the wire only: the URL host
    // is what the certificate was checked against.
    EXPECT_EQ("localhost:" + std::to_string(emulator().port()), r.header("Host"));
    std::list<std::string> names;
    ASSERT_EQ(0, c->extractPeerCertSAN(names));
    EXPECT_EQ(std::list<std::string>{"localhost"}, names);
  }
}

// The external CA's host certificate, from files and from memory (FEATURE_1);
// the own CA's is the certificate login of every token suite.
TEST_F(TlsHandshakeTest, MutualAuthPresentsTheHostCertificate) {
  for (const char* inMemory : {"no", "yes"}) {
    SCOPED_TRACE(inMemory);
    ASSERT_TRUE(root().writeConfig(std::string("FEATURE_1 = ") + inMemory + "\n"));
    auto c = client(QXCURL_USE_TOKEN, "ECA");
    ASSERT_EQ(0, c->setCurlTLSParams(CA_LOAD_FORCE_ECA, true, false));
    EXPECT_EQ(0, fetch(*c)) << c->m_errorBuffer;
    EXPECT_NE(std::string::npos, lastRequest().clientSubject.find("testhost.eca"))
        << lastRequest().clientSubject;
  }
}

// Verdicts a cache already holds; counts its lookups.
class FixedCache : public QXRevocationCache {
 public:
  explicit FixedCache(int rc, bool revoked = false) : m_rc(rc), m_revoked(revoked) {}
  int lookup(const std::string& chainPem, bool& isRevoked) override {
    ++m_lookups;
    EXPECT_NE(std::string::npos, chainPem.find("BEGIN CERTIFICATE"));
    if (m_rc == 0) isRevoked = m_revoked;
    return m_rc;
  }
  int m_rc;
  bool m_revoked;
  int m_lookups = 0;
};

TEST_F(TlsHandshakeTest, ExternalCARevocationCheck) {
  enum { ALLOW_FAILED = 1, DISABLE = 2, LIBCURL_CHECKS_OFF = 4 };
  const std::string crl = "var/pki/eca/crl.pem";
  FixedCache notRevoked(0, false), revoked(0, true), unknown(1);
  struct Case {
    const char* name;
    const char* certMode;
    std::string crl;  // ECA "crl" of the map
    int switches;
    FixedCache* cache;
    int want;
  } cases[] = {
      // A revoked leaf and a missing CRL with no switch are rows of the fault
      // matrix.
      {"revoked, check disabled", "revoked", crl, DISABLE, nullptr, 0},
      {"no CRL, failure allowed", "normal", "", ALLOW_FAILED, nullptr, 0},
      // libcurl loads no CA then: the callback must not make that a failure.
      {"revoked, libcurl checks off", "revoked", crl, LIBCURL_CHECKS_OFF, nullptr, 0},
      // No CRL anywhere: only a cached verdict can accept the leaf.
      {"cached not revoked", "normal", "", 0, &notRevoked, 0},
      {"cached revoked", "normal", "", 0, &revoked, QX_ERR_CERT_REVOKED},
      {"unknown to the cache", "normal", "", 0, &unknown, QX_ERR_CRL_UNAVAILABLE},
  };
  ASSERT_TRUE(root().writeConfig("CRL_CHECK_LEVEL = 1\n"));
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    ASSERT_EQ(0, emulator().setConfig(std::string(R"({"certMode": ")") + tc.certMode + "\"}"));
    root().setEcaMapMember("crl", tc.crl);
    auto c = client(QXCURL_USE_TPCA_CERT);
    c->setSkipCRLDownload();
    if (tc.switches & ALLOW_FAILED) c->allowConnectionWithFailedCRLCheck();
    if (tc.switches & DISABLE) c->DisableCrlCheck();
    if (tc.switches & LIBCURL_CHECKS_OFF) c->setSkipPeerHostVerification();
    c->m_revocationCache = tc.cache;
    EXPECT_EQ(tc.want, fetch(*c)) << c->m_errorBuffer;
    if (tc.cache != nullptr) {
      EXPECT_EQ(1, tc.cache->m_lookups);
    }
  }
}

TEST_F(TlsHandshakeTest, KeyLoadingOutcomes) {
  // An RSA key below 2048 bits, written next to the real artifacts.
  EVP_PKEY* weak = EVP_RSA_gen(1024);
  ASSERT_NE(nullptr, weak);
  const std::string weakPath = root().path("var/weak.key");
  FILE* f = fopen(weakPath.c_str(), "w");
  ASSERT_NE(nullptr, f);
  PEM_write_PrivateKey(f, weak, nullptr, nullptr, 0, nullptr, nullptr);
  fclose(f);
  EVP_PKEY_free(weak);

  const std::string passFile = "var/pki/eca/passphrase", hostKey = "var/pki/eca/host.key";
  struct Case {
    const char* name;
    const char* config;      // FEATURE_1: external CA material in memory
    std::string key;         // ECA "privateKey" of the map
    const char* passphrase;  // set before the artifacts are populated
    std::string passFile;
    int want;
  } cases[] = {
      // Never a prompt on the terminal: a status, at once.
      {"wrong passphrase, files", "FEATURE_1 = no\n", hostKey, "wrong", passFile,
       QX_ERR_CLIENT_CERT},
      {"wrong passphrase, in memory", "FEATURE_1 = yes\n", hostKey, "wrong", passFile,
       QX_ERR_CURL_OTHER},
      {"weak key, FIPS", "FEATURE_1 = yes\nFIPS_MODE = yes\n", weakPath, "", passFile,
       QX_ERR_KEY_NOT_FIPS},
      // Loads, then does not match the certificate.
      {"weak key, no FIPS", "FEATURE_1 = yes\nFIPS_MODE = no\n", weakPath, "", passFile,
       QX_ERR_CURL_OTHER},
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    ASSERT_TRUE(root().writeConfig(tc.config));
    root().setEcaMapMember("privateKey", tc.key);
    root().setEcaMapMember("passphraseFile", tc.passFile);
    auto c = client(QXCURL_USE_TOKEN, "ECA");
    c->m_passphrase = tc.passphrase;
    c->setCurlTLSParams(CA_LOAD_FORCE_ECA, true, false);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(tc.want, fetch(*c)) << c->m_errorBuffer;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(tc.want == QX_ERR_KEY_NOT_FIPS ? QX_ERR_KEY_NOT_FIPS : 0, c->m_sslCtxErrorCode);
  }
}

// A trust store replaced under a long-lived client: its next new connection
// trusts what the file says now, not what it said when first read.
TEST_F(TlsHandshakeTest, ReplacedTrustStoreReachesNewConnections) {
  const std::string trust = root().path("var/webtruststore/cacert.pem");
  const std::string ownCA = qxReadFile(trust),
                    otherCA = qxReadFile(root().path("var/pki/eca/cacert.pem"));
  auto c = client(QXCURL_USE_TOKEN);
  curl_easy_setopt(c->m_curlHandle, CURLOPT_FRESH_CONNECT, 1L);
  curl_easy_setopt(c->m_curlHandle, CURLOPT_FORBID_REUSE, 1L);
  // A resumed session is not verified again.
  curl_easy_setopt(c->m_curlHandle, CURLOPT_SSL_SESSIONID_CACHE, 0L);
  curl_easy_setopt(c->m_curlHandle, CURLOPT_SHARE, static_cast<CURLSH*>(nullptr));
  for (const auto& [ca, want] :
       {std::pair{ownCA, CURLE_OK}, {otherCA, CURLE_PEER_FAILED_VERIFICATION}, {ownCA, CURLE_OK}}) {
    ASSERT_TRUE(qxWriteFile(trust, ca));
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    fetch(*c);
    EXPECT_EQ(want, c->m_curlError) << c->m_errorBuffer;
  }
}

}  // namespace
