// TLS sessions resumed across client objects, and never past a revocation
// answer that may have changed.
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <functional>
#include <memory>

#include "qxcurl/qxclnt_curl.h"
#include "testing/fixture/qx_test_env.h"

namespace {

class TlsSessionTest : public QXEmulatorTest {
 protected:
  QXEmulatorOptions emulatorOptions() const override {
    QXEmulatorOptions o;
    o.extraArgs = {"--session-tickets"};
    return o;
  }

  void SetUp() override {
    QXEmulatorTest::SetUp();
    // Only the CRL directory holds CRLs: the test decides what they say.
    std::string map = qxReadFile(root().path("var/certmap.json"));
    const std::string from = "\"crl\": \"var/pki/eca/crl.pem\"";
    for (size_t at; (at = map.find(from)) != std::string::npos;)
      map.replace(at, from.size(), "\"crl\": \"\"");
    ASSERT_TRUE(qxWriteFile(root().path("var/certmap.json"), map));
    ASSERT_EQ(0, mkdir(root().path("var/crl").c_str(), 0755));
    ASSERT_TRUE(root().writeConfig("CRL_CHECK_LEVEL = 1\n"));
  }

  // A GET from a new client object; whether the server saw a resumed session.
  int get(const std::string& caType, bool* resumed = nullptr) {
    QXClientCURL c("localhost", emulator().port(), CERT_TYPE_HOST, QXCURL_INSECURE, nullptr, "",
                   false, false, false, caType);
    c.setSkipCRLDownload();
    c.setConnectRetryTimeout(0);
    int rc = c.Get("arvion/ping");
    if (resumed != nullptr) {
      std::vector<QXRecordedRequest> seen = emulator().requests();
      *resumed = rc == 0 && !seen.empty() && seen.back().resumed;
    }
    return rc;
  }

  // The intermediate's CRL, revoking the server's leaf or nothing, in force
  // for a minute.
  std::string crl(bool revokeServer) {
    auto readCert = [](const std::string& path) {
      BIO* b = BIO_new_file(path.c_str(), "r");
      X509* x = b ? PEM_read_bio_X509(b, nullptr, nullptr, nullptr) : nullptr;
      BIO_free(b);
      return x;
    };
    X509* ca = readCert(root().pki("eca/intermediate.pem"));
    X509* leaf = readCert(root().pki("eca/server.pem"));
    BIO* kb = BIO_new_file(root().pki("eca/intermediate.key").c_str(), "r");
    EVP_PKEY* key = kb ? PEM_read_bio_PrivateKey(kb, nullptr, nullptr, nullptr) : nullptr;
    BIO_free(kb);
    X509_CRL* c = X509_CRL_new();
    ASN1_TIME* last = ASN1_TIME_adj(nullptr, std::time(nullptr), 0, -60);
    ASN1_TIME* next = ASN1_TIME_adj(nullptr, std::time(nullptr), 0, 60);
    std::string pem;
    if (ca && leaf && key && c && last && next && X509_CRL_set_version(c, 1) == 1 &&
        X509_CRL_set_issuer_name(c, X509_get_subject_name(ca)) == 1 &&
        X509_CRL_set1_lastUpdate(c, last) == 1 && X509_CRL_set1_nextUpdate(c, next) == 1) {
      if (revokeServer) {
        X509_REVOKED* r = X509_REVOKED_new();
        X509_REVOKED_set_serialNumber(r, X509_get_serialNumber(leaf));
        X509_REVOKED_set_revocationDate(r, last);
        X509_CRL_add0_revoked(c, r);
        X509_CRL_sort(c);
      }
      BIO* out = BIO_new(BIO_s_mem());
      char* data = nullptr;
      if (X509_CRL_sign(c, key, EVP_sha256()) > 0 && PEM_write_bio_X509_CRL(out, c) == 1) {
        long n = BIO_get_mem_data(out, &data);
        pem.assign(data, static_cast<size_t>(n));
      }
      BIO_free(out);
    }
    ASN1_TIME_free(last);
    ASN1_TIME_free(next);
    X509_CRL_free(c);
    EVP_PKEY_free(key);
    X509_free(leaf);
    X509_free(ca);
    EXPECT_FALSE(pem.empty());
    return pem;
  }

  std::string crlFile() { return root().path("var/crl/intermediate.pem"); }

  // Sessions made in the second a CRL changed are not trusted: the test's
  // sessions come after it.
  static void nextSecond() {
    time_t now = std::time(nullptr);
    while (std::time(nullptr) == now) usleep(20000);
  }
};

TEST_F(TlsSessionTest, SecondClientObjectResumes) {
  ASSERT_TRUE(qxWriteFile(crlFile(), crl(false)));
  nextSecond();
  struct Case {
    const char* name;
    const char* caType;
    bool resumed;
  } cases[] = {
      {"own CA, first object", "QXCA", false},
      {"own CA, second object", "QXCA", true},
      // Another CA kind is another share (and another server certificate).
      {"external CA, first object", "ECA", false},
      {"external CA, second object", "ECA", true},
      {"own CA again", "QXCA", true},
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    bool resumed = false;
    EXPECT_EQ(0, get(tc.caType, &resumed));
    EXPECT_EQ(tc.resumed, resumed);
  }
}

// A verdict taken from a revocation cache, as the asynchronous client's.
class NotRevoked : public QXRevocationCache {
 public:
  int lookup(const std::string& /*chainPem*/, bool& isRevoked) override {
    isRevoked = false;
    return 0;
  }
};

TEST_F(TlsSessionTest, SessionWithoutACheckThatRanIsNeverKept) {
  ASSERT_TRUE(qxWriteFile(crlFile(), crl(false)));
  nextSecond();
  // Accepted on a cached verdict (the cache set after construction, as the
  // asynchronous client does): no CRL check ran, so the session must not be
  // kept for others to resume.
  NotRevoked cache;
  QXClientCURL c("localhost", emulator().port(), CERT_TYPE_HOST, QXCURL_INSECURE, nullptr, "",
                 false, false, false, "ECA");
  c.setSkipCRLDownload();
  c.m_revocationCache = &cache;
  ASSERT_EQ(0, c.Get("arvion/ping"));
  bool resumed = true;
  EXPECT_EQ(0, get("ECA", &resumed));
  EXPECT_FALSE(resumed);
}

TEST_F(TlsSessionTest, ResumedOnlyWhileTheRevocationAnswerHolds) {
  struct Case {
    const char* name;
    std::function<void()> change;  // after a session was cached
    int want;
    bool resumed;
  } cases[] = {
      {"nothing changed", [] {}, 0, true},
      {"server certificate revoked", [&] { ASSERT_TRUE(qxWriteFile(crlFile(), crl(true))); },
       QX_ERR_CERT_REVOKED, false},
      {"CRL removed (hard fail)", [&] { ASSERT_EQ(0, unlink(crlFile().c_str())); },
       QX_ERR_CRL_UNAVAILABLE, false},
      {"CRL reissued, nothing revoked", [&] { ASSERT_TRUE(qxWriteFile(crlFile(), crl(false))); }, 0,
       false},
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    ASSERT_TRUE(qxWriteFile(crlFile(), crl(false)));
    nextSecond();
    ASSERT_EQ(0, get("ECA"));  // a full handshake, checked: its session is cached
    bool resumed = false;
    ASSERT_EQ(0, get("ECA", &resumed));
    ASSERT_TRUE(resumed);
    tc.change();
    EXPECT_EQ(tc.want, get("ECA", &resumed));
    EXPECT_EQ(tc.resumed, resumed);
  }
}

}  // namespace
