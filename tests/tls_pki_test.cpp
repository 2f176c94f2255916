// CA choice and PKI artifacts of a client, without a server.
#include <gtest/gtest.h>

#include <cstring>

#include "platform/qx_certmap.h"
#include "qxcurl/qx_status.h"
#include "qxcurl/qxclnt_curl.h"
#include "testing/fixture/qx_test_env.h"
#include "tls/qx_tls_internal.h"

namespace {

const char kBothCAs[] = R"({"servers": {"localhost": {"caSupported": ["QXCA", "ECA"],
  "QXCA": {"certificate": "var/pki/qxca/host.pem", "privateKey": "var/pki/qxca/host.key"},
  "ECA": {"certificate": "var/pki/eca/host.pem", "privateKey": "var/pki/eca/host.key",
          "passphraseFile": "var/pki/eca/passphrase", "trustStore": "var/pki/eca/cacert.pem"}}}})";

class TlsPkiTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(m_root.ok()) << m_root.error(); }

  void writeMap(const std::string& text) {
    ASSERT_TRUE(qxWriteFile(m_root.path("var/certmap.json"), text));
  }
  std::string mapWithSupported(const char* supported) {
    std::string s = kBothCAs;
    return s.replace(s.find(R"(["QXCA", "ECA"])"), 15, supported);
  }
  std::unique_ptr<QXClientCURL> client(const std::string& caType = "") {
    return std::make_unique<QXClientCURL>("localhost", 1, CERT_TYPE_HOST, QXCURL_USE_TOKEN, nullptr,
                                          "", false, false, false, caType);
  }

  QXTestRoot m_root;
};

TEST_F(TlsPkiTest, CATypeDecision) {
  struct Case {
    const char* name;
    std::string map;  // empty: no map file
    int load;
    bool withArtifacts;
    int wantRc;
    int wantUsage;
    const char* wantCert;  // suffix of the artifacts' certificate path
  } cases[] = {
      {"forced own CA, no lookup", "", CA_LOAD_FORCE_QXCA, false, 0, 0, ""},
      {"configured, map prefers external CA", mapWithSupported(R"(["ECA", "QXCA"])"),
       CA_LOAD_CONFIGURED, true, 0, 2, "eca/host.pem"},
      {"configured, map garbage", "{\"servers\": [1,", CA_LOAD_CONFIGURED, true, 0, 0, ""},
      {"forced own CA, map prefers external", mapWithSupported(R"(["ECA"])"), CA_LOAD_FORCE_QXCA,
       true, 0, 0, "qxca/host.pem"},
      {"invalid load type", kBothCAs, 3, true, QX_ERR_BAD_ARGUMENT, 1, ""},  // out untouched
  };
  auto c = client();
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    std::remove(m_root.path("var/certmap.json").c_str());
    if (!tc.map.empty()) writeMap(tc.map);
    host_cert_data data;
    std::memset(&data, 0, sizeof data);
    ca_usage usage = CA_USAGE_ECA_ALT;  // no case expects it: shows an untouched result
    EXPECT_EQ(tc.wantRc, c->getCATypeToUse(static_cast<caLoadType>(tc.load), 0, usage,
                                           tc.withArtifacts ? &data : nullptr));
    EXPECT_EQ(tc.wantUsage, static_cast<int>(usage));
    std::string cert = data.certPath;
    std::string want = tc.wantCert;
    EXPECT_TRUE(cert.size() >= want.size() &&
                cert.compare(cert.size() - want.size(), want.size(), want) == 0)
        << cert;
  }
  EXPECT_EQ(m_root.path("var/global/webtruststore/cacert.pem"), getCAFilePath(CERT_TYPE_GLOBAL));
  EXPECT_EQ(m_root.path("var/webtruststore/cacert.pem"), getCAFilePath(CERT_TYPE_HOST));
}

TEST_F(TlsPkiTest, PassphraseFile) {
  struct Case {
    const char* name;
    const char* content;  // null: no file
    int want;
    const char* passphrase;
  } cases[] = {
      {"CR LF stripped", "abc\r\n", 0, "abc"},
      {"empty file", "", QX_ERR_PASSPHRASE_EMPTY, "untouched"},
      {"missing file", nullptr, QX_ERR_FILE_NOT_FOUND, "untouched"},
  };
  auto c = client();
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    std::string path = m_root.path("var/pass");
    std::remove(path.c_str());
    if (tc.content != nullptr) {
      ASSERT_TRUE(qxWriteFile(path, tc.content));
    }
    std::string pass = "untouched";
    EXPECT_EQ(tc.want, c->loadPassphraseFromFile(path, pass));
    EXPECT_EQ(tc.passphrase, pass);
  }
}

TEST_F(TlsPkiTest, PassphraseIsNeverLogged) {
  writeMap(kBothCAs);
  QXLogCapture log;
  auto c = client("ECA");
  c->setCurlTLSParams(CA_LOAD_FORCE_ECA, true, false);
  ASSERT_FALSE(c->m_passphrase.empty());
  EXPECT_EQ(std::string::npos, log.dump().find(c->m_passphrase));
}

TEST_F(TlsPkiTest, CallerSuppliedArtifacts) {
  writeMap(mapWithSupported(R"(["ECA"])"));
  const std::string cert = m_root.pki("eca/host.pem"), key = m_root.pki("eca/host.key"),
                    trust = m_root.pki("eca/cacert.pem"), passFile = m_root.pki("eca/passphrase");
  struct Case {
    const char* name;
    std::string trust, crl, cert, key, pass, passFile;
    int want;
  } cases[] = {
      {"missing trust store", "/nonexistent", "", "", "", "", "", QX_ERR_FILE_NOT_FOUND},
      {"mutual without key", trust, "", cert, "", "", "", QX_ERR_BAD_ARGUMENT},
      {"unreadable passphrase file", trust, "", cert, key, "", "/nonexistent",
       QX_ERR_FILE_NOT_FOUND},
      {"complete", trust, "", cert, key, "", passFile, 0},
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    auto c = client();
    c->m_passphrase.clear();
    EXPECT_EQ(tc.want, c->setAssortedCurlPKIParams(CA_LOAD_FORCE_ECA, tc.trust, true, tc.crl,
                                                   tc.cert, tc.key, tc.pass, tc.passFile));
    if (tc.want == 0) {
      EXPECT_EQ(trust, c->m_CACertPath);
      EXPECT_FALSE(c->m_passphrase.empty());
      EXPECT_EQ(CA_USAGE_ECA, c->m_caUsage);
    }
  }
}

TEST_F(TlsPkiTest, CustomCAPathForcesOnlyTheOwnCA) {
  writeMap(mapWithSupported(R"(["ECA", "QXCA"])"));
  const std::string trust = m_root.path("var/webtruststore/cacert.pem");
  auto c = client();
  EXPECT_EQ(0, c->setCustomCAPath(trust, "ECA"));
  EXPECT_EQ(CA_USAGE_ECA, c->m_caUsage);  // configured: the map's preference
  EXPECT_EQ(0, c->setCustomCAPath(trust, "QXCA"));
  EXPECT_EQ(CA_USAGE_QXCA, c->m_caUsage);
  EXPECT_EQ(QX_ERR_FILE_NOT_FOUND, c->setCustomCAPath("/nonexistent", "QXCA"));
}

// Without alternative names a certificate is named by its common name.
TEST(TlsCertInfoTest, CommonNameWhenNoAlternativeNames) {
  curl_slist* list = curl_slist_append(nullptr, "Subject:O = Acme, CN = m1, OU = x");
  std::list<std::string> names;
  qxCertInfoNames(list, names);
  curl_slist_free_all(list);
  EXPECT_EQ(std::list<std::string>{"m1"}, names);
}

}  // namespace
