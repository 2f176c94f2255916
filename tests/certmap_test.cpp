// The certificate map file and the lookups over it.
#include <gtest/gtest.h>
#include <utime.h>

#include <cstring>

#include "platform/qx_certmap.h"
#include "qxcurl/qx_status.h"
#include "testing/fixture/qx_test_env.h"

namespace {

const char kMap[] = R"({"servers": {
  "Master1": {"hostUuid": "uuid-1", "caSupported": ["QXCA", "ECA"], "caMode": 0,
              "trustVersion": "1",
              "QXCA": {"certificate": "var/pki/qxca/host.pem", "privateKey": "/abs/key.pem"},
              "ECA": {"certificate": "var/pki/eca/host.pem", "trustStore": "var/pki/eca/cacert.pem",
                      "crl": "var/pki/eca/crl.pem"}},
  "master2": {"hostUuid": "uuid-2", "caSupported": ["FOO", "ECA"], "caMode": 1,
              "ECA": {"certificate": "var/pki/eca/host.pem", "crl": "var/pki/eca/crl.pem"}},
  "eca-listed-only": {"caSupported": ["ECA"], "QXCA": {}}},
 "default": "master2"})";

class CertMapTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_root.ok()) << m_root.error();
    write(kMap);
  }
  void write(const std::string& text) {
    ASSERT_TRUE(qxWriteFile(m_root.path("var/certmap.json"), text));
  }
  QXTestRoot m_root;
};

TEST_F(CertMapTest, LookupStatuses) {
  const std::string tooLong = R"({"servers": {"m": {"ECA": {"trustStore": "/)" +
                              std::string(QX_CERTMAP_PATH_LEN, 'a') + R"("}}}})";
  struct Case {
    const char* name;
    const char* map;  // null: no file
    const char* server;
    int want;
    const char* entry;
  } cases[] = {
      {"exact entry", kMap, "Master1", 0, "Master1"},
      {"any letter case", kMap, "MASTER1", 0, "Master1"},
      {"default entry", kMap, "unknown", 0, "master2"},
      {"no entry, no default", R"({"servers": {"a": {}}})", "b", QX_ERR_FILE_NOT_FOUND, ""},
      {"no map", nullptr, "Master1", QX_ERR_FILE_NOT_FOUND, ""},
      {"not JSON", "{\"servers\": ", "Master1", QX_ERR_JSON_PARSE, ""},
      {"caMode out of range", R"({"servers": {"m": {"caMode": 7}}})", "m", QX_ERR_JSON_PARSE, ""},
      {"path not a string", R"({"servers": {"m": {"QXCA": {"certificate": 5}}}})", "m",
       QX_ERR_JSON_PARSE, ""},
      {"path too long to keep whole", tooLong.c_str(), "m", QX_ERR_JSON_PARSE, ""},
      {"empty server name", kMap, "", QX_ERR_BAD_ARGUMENT, ""},
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    std::remove(m_root.path("var/certmap.json").c_str());
    if (tc.map != nullptr) write(tc.map);
    certMapInfo info;
    EXPECT_EQ(tc.want, getCertMapInfo(CERT_TYPE_HOST, tc.server, info));
    if (tc.want == 0) {
      EXPECT_STREQ(tc.entry, info.entryName);
    }
  }
}

TEST_F(CertMapTest, SupportedCAAndArtifacts) {
  struct Case {
    const char* server;
    ca_usage preferred;
  } cases[] = {
      {"Master1", CA_USAGE_QXCA},          // first listed
      {"master2", CA_USAGE_ECA},           // unknown names are skipped
      {"eca-listed-only", CA_USAGE_NONE},  // listed but not described
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.server);
    certMapInfo info;
    ASSERT_EQ(0, getCertMapInfo(CERT_TYPE_HOST, tc.server, info));
    EXPECT_EQ(tc.preferred, getCaSupportedByThisHost(info));
  }

  // Paths relative to the root are made absolute; absolute ones are kept.
  certMapInfo info;
  ASSERT_EQ(0, getCertMapInfo(CERT_TYPE_HOST, "master1", info));
  host_cert_data data;
  std::memset(&data, 0, sizeof data);
  ASSERT_EQ(0, getCertDataByCAtypeExEx(info, CA_USAGE_QXCA, 1, 0, &data));
  EXPECT_EQ(m_root.path("var/pki/qxca/host.pem"), data.certPath);
  EXPECT_STREQ("/abs/key.pem", data.keyPath);
  EXPECT_EQ(QX_ERR_BAD_ARGUMENT, getCertDataByCAtypeExEx(info, CA_USAGE_NONE, 1, 0, &data));
}

// The CA mode and the certificate's time feed the token refresh rules and are
// proven there (token_cert_test); the trust version is compared as a number.
TEST_F(CertMapTest, TrustVersionIsCurrentOnlyWhenEqual) {
  struct Case {
    const char* server;
    const char* theirs;
    int current;
  } cases[] = {
      {"Master1", "1.0", 1}, {"Master1", " 1\n", 1}, {"Master1", "2", 0},
      {"Master1", "x1", 0},  {"master2", "1", 0},  // no local trust version: never current
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(std::string(tc.server) + " " + tc.theirs);
    int current = -1;
    EXPECT_EQ(0, compareTrustVersion(CERT_TYPE_HOST, tc.theirs, tc.server, &current));
    EXPECT_EQ(tc.current, current);
  }
}

}  // namespace
