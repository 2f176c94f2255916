// TLS sessions shared by every client object of the process, and the rule
// that keeps a resumed session from skipping a revocation check whose answer
// may have changed.
//
// Clients with the same trust (CA kind, trust store, certificate and key)
// and, for the external CA, the same revocation settings share one libcurl
// share object holding TLS sessions, so a new client object resumes a session
// an earlier one made. libcurl keys sessions by host, port and TLS options
// inside a share.
//
// A resumed session runs no verification callback. So, for the external CA,
// a connection's session is kept only when its leaf passed a CRL check that
// ran (the verification callback turns the connection's session cache off
// otherwise), and tickets a resumed connection receives are not kept. And for
// a client whose handshakes check revocation, a session offered for
// resumption is dropped at handshake start (a full handshake follows, with
// the check) unless all of these hold: it is younger than kSessionLifetime; no CRL
// source (the CRL directory, the certificate map's CRL files, the client's
// own CRL file) changed since it was made; a current CRL of its certificate's
// issuer is present (for level 2: every CRL present is current); the client
// has no revocation cache of its own; and the client's settings are still
// those of the share it was taken from.
#include <curl/curl.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/qx_crl.h"
#include "platform/qx_log.h"
#include "qxcurl/qxclnt_curl.h"
#include "tls/qx_tls_internal.h"

namespace {

const char kTag[] = "QXClientCURL::tlsSessionShare";
constexpr size_t kMaxShares = 64;

struct Share {
  CURLSH* handle = nullptr;
  std::mutex locks[CURL_LOCK_DATA_LAST];
};

void lockShare(CURL* /*h*/, curl_lock_data data, curl_lock_access /*access*/, void* user) {
  if (data >= 0 && data < CURL_LOCK_DATA_LAST) static_cast<Share*>(user)->locks[data].lock();
}

void unlockShare(CURL* /*h*/, curl_lock_data data, void* user) {
  if (data >= 0 && data < CURL_LOCK_DATA_LAST) static_cast<Share*>(user)->locks[data].unlock();
}

// Shares live as long as the process: handles of clients anywhere may point
// at them until the very end.
std::mutex g_sharesMutex;
std::map<std::string, Share*>& shares() {
  static auto* m = new std::map<std::string, Share*>();
  return *m;
}

CURLSH* shareFor(const std::string& key) {
  std::lock_guard<std::mutex> guard(g_sharesMutex);
  auto it = shares().find(key);
  if (it != shares().end()) return it->second->handle;
  if (shares().size() >= kMaxShares) return nullptr;
  auto share = std::make_unique<Share>();
  share->handle = curl_share_init();
  if (share->handle == nullptr) return nullptr;
  if (curl_share_setopt(share->handle, CURLSHOPT_LOCKFUNC, lockShare) != CURLSHE_OK ||
      curl_share_setopt(share->handle, CURLSHOPT_UNLOCKFUNC, unlockShare) != CURLSHE_OK ||
      curl_share_setopt(share->handle, CURLSHOPT_USERDATA, share.get()) != CURLSHE_OK ||
      curl_share_setopt(share->handle, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION) != CURLSHE_OK) {
    curl_share_cleanup(share->handle);
    return nullptr;
  }
  CURLSH* handle = share->handle;
  shares()[key] = share.release();
  return handle;
}

bool externalCA(const QXClientCURL& c) {
  return c.m_caUsage == CA_USAGE_ECA || c.m_caUsage == CA_USAGE_ECA_ALT;
}

// The share a client belongs in; empty: none (its sessions stay its own).
void shareKey(const QXClientCURL& c, std::string& key) {
  key.clear();
  if (c.m_sniName.empty()) return;
  key.append(c.m_sniName).append("\n").append(c.m_CACertPath).append("\n");
  key.append(c.m_certPath).append("\n").append(c.m_keyPath);
  if (!externalCA(c)) return;
  // Verdicts from a revocation cache are the cache owner's business.
  if (c.m_revocationCache != nullptr) {
    key.clear();
    return;
  }
  key.append("\n").append(c.m_peerVerificationFlag ? "v" : "-");
  key.append(std::to_string(c.m_crlCheckLevel));
  key.append(c.m_allowFailedCrlCheck ? "a" : "-").append(c.m_crlDownload ? "d" : "-");
  key.append("\n").append(c.m_crlPath);
}

// What the CRL sources say, parsed again only when a source changed.
struct CrlView {
  time_t changedAt = 0;
  std::vector<QXCrlSummary> crls;
};

CrlView crlView(const std::string& crlFile) {
  struct Cached {
    std::string fingerprint;
    CrlView view;
  };
  static std::mutex mutex;
  static auto* cache = new std::map<std::string, Cached>();
  QXCrlSourceState state = qxCrlSourceState(crlFile);
  {
    std::lock_guard<std::mutex> guard(mutex);
    auto it = cache->find(crlFile);
    if (it != cache->end() && it->second.fingerprint == state.fingerprint) return it->second.view;
  }
  CrlView view;
  view.changedAt = state.changedAt;
  view.crls = qxCrlSummaries(state.files);
  std::lock_guard<std::mutex> guard(mutex);
  if (cache->size() > 16) cache->clear();
  (*cache)[crlFile] = Cached{state.fingerprint, view};
  return view;
}

// Whether c's handshakes check revocation, so that resuming needs the rule.
bool checksRevocation(const QXClientCURL& c) {
  return externalCA(c) && c.m_peerVerificationFlag && c.m_crlCheckLevel != 0;
}

// Why session may not be resumed by c (a client that checks revocation);
// null when it may.
const char* refusal(const QXClientCURL& c, SSL_SESSION* session) {
  if (c.m_revocationCache != nullptr) return "revocation verdicts come from the client's cache";
  thread_local std::string key;
  shareKey(c, key);
  if (key != c.m_tlsShareKey) return "the client's revocation settings changed";
  time_t now = std::time(nullptr);
  time_t made = static_cast<time_t>(SSL_SESSION_get_time(session));
  if (made > now || now - made >= kQXTlsSessionLifetime) return "it is too old";
  CrlView view = crlView(c.m_crlPath);
  // Whole seconds: a session made in the second a CRL changed is not trusted.
  if (made <= view.changedAt) return "the CRLs changed since it was verified";
  X509* peer = SSL_SESSION_get0_peer(session);
  if (peer == nullptr) return "it holds no peer certificate";
  unsigned char* der = nullptr;
  int len = i2d_X509_NAME(X509_get_issuer_name(peer), &der);
  if (len <= 0) return "its issuer cannot be read";
  std::string issuer(reinterpret_cast<char*>(der), static_cast<size_t>(len));
  OPENSSL_free(der);
  bool issuerCurrent = false, allCurrent = true;
  for (const QXCrlSummary& s : view.crls) {
    bool current = s.nextUpdate == 0 || s.nextUpdate > now;
    allCurrent = allCurrent && current;
    if (current && s.issuerDer == issuer) issuerCurrent = true;
  }
  if (!issuerCurrent) return "no current CRL of its issuer";
  if (c.m_crlCheckLevel >= 2 && !allCurrent) return "a CRL of the chain is not current";
  return nullptr;
}

}  // namespace

void qxTlsShareAttach(QXClientCURL& c) {
  if (c.m_curlHandle == nullptr) return;
  thread_local std::string key;
  shareKey(c, key);
  if (key == c.m_tlsShareKey) return;
  CURLSH* share = key.empty() ? nullptr : shareFor(key);
  if (curl_easy_setopt(c.m_curlHandle, CURLOPT_SHARE, share) != CURLE_OK) {
    QXLOG(QXLOG_DETAIL, kTag) << "Cannot attach the TLS session share";
    share = nullptr;
    curl_easy_setopt(c.m_curlHandle, CURLOPT_SHARE, static_cast<CURLSH*>(nullptr));
  }
  c.m_tlsShare = share;
  c.m_tlsShareKey = share != nullptr ? key : std::string();
}

void qxTlsGateSession(SSL* ssl, const QXClientCURL* client) {
  SSL_SESSION* session = SSL_get_session(ssl);
  if (session == nullptr || client == nullptr || !checksRevocation(*client)) return;
  const char* why = refusal(*client, session);
  if (why == nullptr) {
    QXLOG(QXLOG_PROGRESS, kTag) << "Resuming the TLS session";
    // Tickets a resumed connection receives are not kept: a session's age
    // always counts from the handshake that checked the certificate.
    SSL_CTX_set_session_cache_mode(SSL_get_SSL_CTX(ssl), SSL_SESS_CACHE_OFF);
    return;
  }
  QXLOG(QXLOG_PROGRESS, kTag) << "Not resuming the TLS session: " << why;
  SSL_set_session(ssl, nullptr);
}
