// Revocation checks of the CRL service, with CRLs on disk and downloaded.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>

#include "platform/qx_crl.h"
#include "qxcurl/qx_status.h"
#include "testing/fixture/qx_test_env.h"
#include "tests/test_support.h"

namespace {

constexpr int kNoCrl = QX_ERR_CRL_UNAVAILABLE;

// Serves one body to every HTTP request on a loopback port and counts them.
class CrlServer {
 public:
  explicit CrlServer(const std::string& body)
      : m_thread([this, body] {
          const std::string reply =
              "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
              body;
          char buf[4096];
          for (int c; (c = accept(m_port.fd(), nullptr, nullptr)) >= 0; close(c)) {
            if (recv(c, buf, sizeof buf, 0) > 0) ++m_hits;  // counted before the client has it
            if (send(c, reply.data(), reply.size(), MSG_NOSIGNAL) < 0) continue;
          }
        }) {}
  ~CrlServer() {
    shutdown(m_port.fd(), SHUT_RDWR);  // ends the accept
    m_thread.join();
  }
  std::string url() const {
    return "http://127.0.0.1:" + std::to_string(m_port.port()) + "/ca.crl";
  }
  int hits() const { return m_hits; }

 private:
  QXLoopbackPort m_port{QXLoopbackPort::LISTENING};
  std::atomic<int> m_hits{0};
  std::thread m_thread;
};

class CrlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_root.ok()) << m_root.error();
    // Only what a test puts in place counts: no map CRLs.
    ASSERT_TRUE(qxWriteFile(m_root.path("var/certmap.json"), "{}"));
  }

  struct Result {
    int rc;
    bool revoked;
    int errorCode;
  };
  Result check(const std::string& chain, unsigned level, const std::string& crlFile = "",
               bool acceptStale = false, bool mayDownload = false) {
    NoQXCurlCrlServiceFactory factory;
    std::unique_ptr<QXCurlCrlService> s(factory.createCrlService(
        CERT_TYPE_HOST, false, acceptStale, crlFile.empty() ? nullptr : crlFile.c_str()));
    Result r{-1, false, -1};
    std::string why;
    r.rc = s->checkRevocation(chain, qxReadFile(m_root.pki("eca/cacert.pem")), level, r.revoked,
                              r.errorCode, why, mayDownload, 0);
    return r;
  }

  // The intermediate's CRL (0) or the root's (1): eca/crl.pem holds them in that order.
  std::string ecaCrl(int n) {
    const std::string all = qxReadFile(m_root.pki("eca/crl.pem")), end = "-----END X509 CRL-----\n";
    const size_t cut = all.find(end) + end.size();
    return n == 0 ? all.substr(0, cut) : all.substr(cut);
  }

  std::string file(const std::string& name, const std::string& text) {
    std::string p = m_root.path(name);
    EXPECT_TRUE(qxWriteFile(p, text));
    return p;
  }

  // A fresh leaf of the ECA intermediate whose CRL distribution point is url,
  // followed by the intermediate.
  std::string leafWithDistributionPoint(const std::string& url) {
    const std::string cmd =
        "cd " + m_root.dir() + " && echo 'crlDistributionPoints = URI:" + url +
        "' > dl.ext && openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
        "-keyout dl.key -subj /CN=dl -out dl.csr 2>/dev/null && openssl x509 -req -in dl.csr -CA " +
        m_root.pki("eca/intermediate.pem") + " -CAkey " + m_root.pki("eca/intermediate.key") +
        " -set_serial 987654 -days 1 -extfile dl.ext -out dl.pem 2>/dev/null";
    EXPECT_EQ(0, system(cmd.c_str()));
    return qxReadFile(m_root.path("dl.pem")) + qxReadFile(m_root.pki("eca/intermediate.pem"));
  }

  QXTestRoot m_root;
};

TEST_F(CrlTest, CheckByLevelAndCrl) {
  const std::string good = qxReadFile(m_root.pki("eca/server.pem"));
  const std::string revoked =
      qxReadFile(m_root.pki("eca/revoked.pem")) + qxReadFile(m_root.pki("eca/intermediate.pem"));
  const std::string all = m_root.pki("eca/crl.pem");
  const std::string expired = m_root.pki("eca/crl_expired.pem");
  const std::string interOnly = file("inter.crl", ecaCrl(0));
  struct Case {
    const char* name;
    std::string chain;
    unsigned level;
    std::string crl;
    bool acceptStale;
    Result want;
  } cases[] = {
      {"level 0 checks nothing", revoked, 0, "", false, {0, false, 0}},
      // No CRL and an expired one are rows of the fault matrix.
      {"revoked leaf", revoked, 1, all, false, {0, true, QX_ERR_CERT_REVOKED}},
      {"leaf level needs only the issuer's CRL", good, 1, interOnly, false, {0, false, 0}},
      {"chain level needs every CRL", good, 2, interOnly, false, {kNoCrl, false, kNoCrl}},
      {"expired CRL accepted still revokes",
       revoked,
       1,
       expired,
       true,
       {0, true, QX_ERR_CERT_REVOKED}},
      {"garbage chain",
       "not a certificate",
       1,
       all,
       false,
       {QX_ERR_BAD_ARGUMENT, false, QX_ERR_BAD_ARGUMENT}},
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    Result r = check(tc.chain, tc.level, tc.crl, tc.acceptStale);
    EXPECT_EQ(tc.want.rc, r.rc);
    EXPECT_EQ(tc.want.revoked, r.revoked);
    EXPECT_EQ(tc.want.errorCode, r.errorCode);
  }
}

TEST_F(CrlTest, DownloadFromTheDistributionPoint) {
  const std::string interCrl = ecaCrl(0);
  struct Case {
    const char* name;
    std::string body;
    bool mayDownload;
    int wantRc;
    int wantHits;
  } cases[] = {
      {"download not allowed", interCrl, false, kNoCrl, 0},
      {"not a CRL", "this is not a CRL", true, kNoCrl, 1},
      {"another issuer's CRL", ecaCrl(1), true, kNoCrl, 1},
      {"the issuer's CRL", interCrl, true, 0, 1},  // last: it is kept under the root
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(tc.name);
    CrlServer server(tc.body);
    const std::string chain = leafWithDistributionPoint(server.url());
    ASSERT_FALSE(chain.empty());
    Result r = check(chain, 1, "", false, tc.mayDownload);
    EXPECT_EQ(tc.wantRc, r.rc);
    EXPECT_FALSE(r.revoked);
    EXPECT_EQ(tc.wantHits, server.hits());
    if (tc.wantRc == 0) {  // the next check needs no download
      EXPECT_EQ(0, check(chain, 1, "", false, true).rc);
      EXPECT_EQ(1, server.hits());
    }
  }
  std::string body;
  EXPECT_EQ(kNoCrl, qxCrlDownload("http://127.0.0.1:1/eca.crl", body, 2));
  EXPECT_EQ(kNoCrl, qxCrlDownload("file:///etc/passwd", body, 2));
}

}  // namespace
