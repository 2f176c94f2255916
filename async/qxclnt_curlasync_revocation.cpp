// Revocation verdicts shared by the asynchronous clients: the TLS layer asks
// the client's cache before it runs a CRL check of its own.
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "platform/qx_crl.h"
#include "platform/qx_log.h"
#include "qxcurl/qxclnt_curlasync.h"

namespace {

struct Verdict {
  bool revoked;
  time_t expires;
};

// A handful of masters per process; a full table is simply emptied.
constexpr size_t kMaxVerdicts = 256;

std::mutex g_mutex;
std::unordered_map<std::string, Verdict>& verdicts() {
  static std::unordered_map<std::string, Verdict> table;
  return table;
}

}  // namespace

void QXAsyncRevocationCache::clear() {
  std::lock_guard<std::mutex> guard(g_mutex);
  verdicts().clear();
}

// Runs inside OpenSSL's verification callback: nothing may be thrown.
int QXAsyncRevocationCache::lookup(const std::string& chainPem, bool& isRevoked) {
  const char* tag = "QXAsyncRevocationCache::lookup";
  try {
    const QXClientCURL& c = m_client;
    std::string key = chainPem;
    key.append(1, '\0').append(c.m_trustedCert).append(1, '\0').append(c.m_crlPath);
    key.append(1, '\0')
        .append(std::to_string(c.m_crlCheckLevel))
        .append(c.m_crlDownload ? "d" : "");
    const time_t now = time(nullptr);
    {
      std::lock_guard<std::mutex> guard(g_mutex);
      auto it = verdicts().find(key);
      if (it != verdicts().end() && now < it->second.expires) {
        isRevoked = it->second.revoked;
        return 0;
      }
    }
    QXLOG(QXLOG_PROGRESS, tag) << "Checking the revocation of a chain not seen yet";
    NoQXCurlCrlServiceFactory factory;
    std::unique_ptr<QXCurlCrlService> service(factory.createCrlService(
        CERT_TYPE_HOST, false, false, c.m_crlPath.empty() ? nullptr : c.m_crlPath.c_str()));
    bool revoked = false;
    int errorCode = 0;
    std::string errorStr;
    if (!service || service->checkRevocation(chainPem, c.m_trustedCert, c.m_crlCheckLevel, revoked,
                                             errorCode, errorStr, c.m_crlDownload, 0) != 0) {
      return -1;  // undecided: the TLS layer checks and reports itself
    }
    std::lock_guard<std::mutex> guard(g_mutex);
    if (verdicts().size() >= kMaxVerdicts) verdicts().clear();
    verdicts()[key] = Verdict{revoked, now + kTtlSec};
    isRevoked = revoked;
    return 0;
  } catch (...) {
    QXLOG(QXLOG_ERROR, tag) << "Revocation verdict could not be looked up";
    return -1;
  }
}
