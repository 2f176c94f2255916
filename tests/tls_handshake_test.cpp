// Handshakes against the emulated master: which server name and client
// certificate it saw, and what the revocation check and key loading report.
#include <gtest/gtest.h>
#include <jansson.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <chrono>
#include <functional>

#include "qx_test_env.h"
#include "qxclnt_curl.h"

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

  // Applies edit to every server entry of the test root's certificate map.
  void editMap(const std::function<void(json_t*)>& edit) {
    std::string path = root().path("var/certmap.json");
    json_error_t err;
    json_t* map = json_load_file(path.c_str(), 0, &err);
    ASSERT_NE(nullptr, map) << err.text;
    const char* key;
    json_t* entry;
    json_object_foreach(json_object_get(map, "servers"), key, entry) edit(entry);
    ASSERT_EQ(0, json_dump_file(map, path.c_str(), JSON_INDENT(1)));
    json_decref(map);
  }

  void setEcaMember(const char* member, const std::string& value) {
    editMap([&](json_t* e) {
      json_object_set_new(json_object_get(e, "ECA"), member, json_string(value.c_str()));
    });
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
  } cases[] = {
      {"configured own CA", R"(["QXCA","ECA"])", QXCURL_USE_TOKEN, "", "QXCA", 0},
      {"forced external CA", R"(["QXCA","ECA"])", QXCURL_USE_TOKEN, "ECA", "ECA", 2},
      {"configured external CA", R"(["ECA"])", QXCURL_USE_TOKEN, "", "ECA", 2},
      {"no CA usable", "[]", QXCURL_USE_TOKEN, "", "localhost", 3},
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    editMap([&](json_t* e) {
      json_object_set_new(e, "caSupported", json_loads(tc.supported, 0, nullptr));
    });
    auto c = client(tc.type, tc.caType);
    EXPECT_EQ(tc.usage, c->m_caUsage);
    EXPECT_EQ(0, fetch(*c)) << c->m_errorBuffer;
    QXRecordedRequest r = lastRequest();
    EXPECT_EQ(tc.sni, r.sni);
    // The marker replaces the server name on the wire only: the URL host
    // is what the certificate was checked against.
    EXPECT_EQ("localhost:" + std::to_string(emulator().port()), r.header("Host"));
  }
}

TEST_F(TlsHandshakeTest, HostNameIsStillVerifiedAgainstTheUrl) {
  auto c = client(QXCURL_USE_TOKEN, "QXCA");
  ASSERT_EQ(0, emulator().setConfig(R"({"certMode": "wrongname"})"));
  EXPECT_EQ(8509, fetch(*c));
}

TEST_F(TlsHandshakeTest, MutualAuthPresentsTheHostCertificate) {
  struct Case {
    const char* name;
    const char* feature;  // FEATURE_1: external CA material in memory
    caLoadType load;
    const char* subject;
  } cases[] = {
      {"own CA, files", "no", CA_LOAD_FORCE_QXCA, "testhost.qxca"},
      {"external CA, files", "no", CA_LOAD_FORCE_ECA, "testhost.eca"},
      {"external CA, in memory", "yes", CA_LOAD_FORCE_ECA, "testhost.eca"},
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    ASSERT_TRUE(root().writeConfig(std::string("FEATURE_1 = ") + tc.feature + "\n"));
    auto c = client(QXCURL_USE_TOKEN, tc.load == CA_LOAD_FORCE_QXCA ? "QXCA" : "ECA");
    ASSERT_EQ(0, c->setCurlTLSParams(tc.load, true, false));
    EXPECT_FALSE(c->m_certPath.empty());
    EXPECT_EQ(0, fetch(*c)) << c->m_errorBuffer;
    EXPECT_NE(std::string::npos, lastRequest().clientSubject.find(tc.subject))
        << lastRequest().clientSubject;
  }
}

TEST_F(TlsHandshakeTest, ExternalCARevocationCheck) {
  struct Case {
    const char* name;
    const char* certMode;
    std::string crl;  // ECA "crl" of the map
    const char* level;
    bool allowFailed;
    bool disable;
    int want;
  } cases[] = {
      {"good leaf", "normal", "var/pki/eca/crl.pem", "1", false, false, 0},
      {"revoked leaf", "revoked", "var/pki/eca/crl.pem", "1", false, false, 9318},
      {"whole chain checked", "normal", "var/pki/eca/crl.pem", "2", false, false, 0},
      {"revoked, check disabled", "revoked", "var/pki/eca/crl.pem", "1", false, true, 0},
      {"no CRL", "normal", "", "1", false, false, 5982},
      {"no CRL, failure allowed", "normal", "", "1", true, false, 0},
      {"expired CRL", "normal", "var/pki/eca/crl_expired.pem", "1", false, false, 9314},
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    ASSERT_TRUE(root().writeConfig(std::string("CRL_CHECK_LEVEL = ") + tc.level + "\n"));
    ASSERT_EQ(0, emulator().setConfig(std::string(R"({"certMode": ")") + tc.certMode + "\"}"));
    setEcaMember("crl", tc.crl);
    auto c = client(QXCURL_USE_TPCA_CERT);
    c->setSkipCRLDownload();
    if (tc.allowFailed) c->allowConnectionWithFailedCRLCheck();
    if (tc.disable) c->DisableCrlCheck();
    EXPECT_EQ(tc.want, fetch(*c)) << c->m_errorBuffer;
  }
}

// Verdicts a cache already holds; counts its lookups.
class FixedCache : public QXRevocationCache {
 public:
  FixedCache(int rc, bool revoked) : m_rc(rc), m_revoked(revoked) {}
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

TEST_F(TlsHandshakeTest, CachedRevocationVerdictWins) {
  struct Case {
    const char* name;
    const char* certMode;
    FixedCache cache;
    int want;
  } cases[] = {
      // No CRL anywhere: only a cached verdict can accept the leaf.
      {"cached not revoked", "normal", FixedCache(0, false), 0},
      {"cached revoked", "normal", FixedCache(0, true), 9318},
      {"unknown to the cache", "normal", FixedCache(1, false), 5982},
  };
  setEcaMember("crl", "");
  for (auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    auto c = client(QXCURL_USE_TPCA_CERT);
    c->setSkipCRLDownload();
    c->m_revocationCache = &tc.cache;
    EXPECT_EQ(tc.want, fetch(*c)) << c->m_errorBuffer;
    EXPECT_EQ(1, tc.cache.m_lookups);
  }
}

TEST_F(TlsHandshakeTest, EveryConnectionIsCheckedForRevocation) {
  // A resumed session would skip the verification callback: the second
  // connection must see the CRL that was revoked in the meantime.
  auto c = client(QXCURL_USE_TPCA_CERT);
  c->setSkipCRLDownload();
  ASSERT_EQ(0, fetch(*c));
  curl_easy_setopt(c->m_curlHandle, CURLOPT_FORBID_REUSE, 1L);
  ASSERT_EQ(0, fetch(*c));
  setEcaMember("crl", "");
  EXPECT_EQ(5982, fetch(*c));
}

TEST_F(TlsHandshakeTest, UnreachableCrlDistributionPointFailsQuickly) {
  setEcaMember("crl", "");
  auto c = client(QXCURL_USE_TPCA_CERT);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(5982, fetch(*c));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
}

TEST_F(TlsHandshakeTest, UnusableKeysGiveAStatusNotAPrompt) {
  struct Case {
    const char* name;
    const char* config;
    std::string passphrase;  // set before the artifacts are populated
    std::string passphraseFile;
    int want;
  } cases[] = {
      {"wrong passphrase, files", "FEATURE_1 = no\n", "wrong", "var/pki/eca/passphrase", 8511},
      {"no passphrase, files", "FEATURE_1 = no\n", "", "", 8511},
      {"wrong passphrase, in memory", "FEATURE_1 = yes\n", "wrong", "var/pki/eca/passphrase", 8503},
      {"no passphrase, in memory", "FEATURE_1 = yes\n", "", "", 8503},
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    ASSERT_TRUE(root().writeConfig(tc.config));
    setEcaMember("passphraseFile", tc.passphraseFile);
    auto c = client(QXCURL_USE_TOKEN, "ECA");
    c->m_passphrase = tc.passphrase;
    c->setCurlTLSParams(CA_LOAD_FORCE_ECA, true, false);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(tc.want, fetch(*c)) << c->m_errorBuffer;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(0, c->m_sslCtxErrorCode);
  }
}

TEST_F(TlsHandshakeTest, KeyThatIsNotFipsCapableIsRefusedInFipsMode) {
  // An RSA key below 2048 bits, written next to the real artifacts.
  EVP_PKEY* weak = EVP_RSA_gen(1024);
  ASSERT_NE(nullptr, weak);
  std::string weakPath = root().path("var/weak.key");
  FILE* f = fopen(weakPath.c_str(), "w");
  ASSERT_NE(nullptr, f);
  PEM_write_PrivateKey(f, weak, nullptr, nullptr, 0, nullptr, nullptr);
  fclose(f);
  EVP_PKEY_free(weak);

  struct Case {
    const char* name;
    const char* fips;
    bool weakKey;
    int want;
  } cases[] = {
      {"weak key, FIPS", "yes", true, 8787},
      {"strong key, FIPS", "yes", false, 0},
      {"weak key, no FIPS", "no", true, 8503},  // loads, then does not match the certificate
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    ASSERT_TRUE(root().writeConfig(std::string("FEATURE_1 = yes\nFIPS_MODE = ") + tc.fips + "\n"));
    if (tc.weakKey) setEcaMember("privateKey", weakPath);
    if (!tc.weakKey) setEcaMember("privateKey", "var/pki/eca/host.key");
    auto c = client(QXCURL_USE_TPCA_CERT);
    EXPECT_EQ(tc.want, fetch(*c)) << c->m_errorBuffer;
    EXPECT_EQ(tc.want == 8787 ? 8787 : 0, c->m_sslCtxErrorCode);
  }
}

TEST_F(TlsHandshakeTest, PeerNamesAfterAHandshake) {
  auto c = client(QXCURL_USE_TOKEN, "QXCA");
  std::list<std::string> names;
  ASSERT_EQ(0, fetch(*c));
  ASSERT_EQ(0, c->extractPeerCertSAN(names));
  EXPECT_EQ(std::list<std::string>{"localhost"}, names);
}

}  // namespace
