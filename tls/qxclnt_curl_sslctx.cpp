// The SSL context libcurl builds for a connection: trust material loaded in
// memory, the server-name marker, the verification callback with the
// revocation check of the peer's leaf certificate; and what the peer's
// certificate says after a transfer.
#include <openssl/err.h>
#include <openssl/x509.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "platform/qx_config.h"
#include "platform/qx_crl.h"
#include "platform/qx_log.h"
#include "platform/qx_sslctx.h"
#include "platform/qx_util.h"
#include "qxcurl/qx_status.h"
#include "qxcurl/qxclnt_curl.h"
#include "tls/qx_tls_internal.h"

int qxclientcurl_sslctx_index = -1;

QXRevocationCache::~QXRevocationCache() = default;

namespace {

const char kVerifyTag[] = "QXClientCURL::libqxcurl_verify_callback()";

std::mutex g_indexMutex;
std::once_flag g_sniIndexOnce;
int g_sniIndex = -1;

void freeMarker(void* /*parent*/, void* ptr, CRYPTO_EX_DATA* /*ad*/, int /*idx*/, long /*argl*/,
                void* /*argp*/) {
  std::free(ptr);
}

int sniIndex() {
  std::call_once(g_sniIndexOnce, [] {
    g_sniIndex = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, freeMarker);
  });
  return g_sniIndex;
}

// Runs before the ClientHello is built, after libcurl has set the URL host
// as server name: the marker replaces it on the wire only. libcurl checks
// the certificate against the URL host on its own.
// The same moment serves the resumption rule: a session offered there is
// dropped when resuming it would skip a revocation check that must run.
void sniInfoCallback(const SSL* ssl, int where, int /*ret*/) {
  if ((where & SSL_CB_HANDSHAKE_START) == 0) return;
  SSL_CTX* ctx = SSL_get_SSL_CTX(ssl);
  int idx = sniIndex();
  if (ctx == nullptr || idx < 0) return;
  const char* marker = static_cast<const char*>(SSL_CTX_get_ex_data(ctx, idx));
  if (marker != nullptr && *marker != '\0') SSL_set_tlsext_host_name(const_cast<SSL*>(ssl), marker);
  if (qxclientcurl_sslctx_index >= 0) {
    try {
      qxTlsGateSession(const_cast<SSL*>(ssl), static_cast<const QXClientCURL*>(SSL_CTX_get_ex_data(
                                                  ctx, qxclientcurl_sslctx_index)));
    } catch (...) {
      SSL_set_session(const_cast<SSL*>(ssl), nullptr);
    }
  }
}

}  // namespace

int qxInstallSniMarker(SSL_CTX* ctx, const std::string& marker) {
  int idx = sniIndex();
  if (ctx == nullptr || idx < 0) return -1;
  char* copy = nullptr;
  if (!marker.empty()) {
    copy = strdup(marker.c_str());
    if (copy == nullptr) return -1;
  }
  // The context owns its copy (freed with it): the client may be gone or
  // have changed its marker by the time a later handshake runs.
  void* old = SSL_CTX_get_ex_data(ctx, idx);
  if (SSL_CTX_set_ex_data(ctx, idx, copy) != 1) {
    std::free(copy);
    return -1;
  }
  std::free(old);
  if (copy != nullptr) SSL_CTX_set_info_callback(ctx, sniInfoCallback);
  return 0;
}

CURLcode qxcurl_sni_context(CURL* /*curl*/, SSL_CTX* ctx, void* client) {
  if (client == nullptr) return CURLE_OK;
  auto* c = static_cast<QXClientCURL*>(client);
  try {
    if (qxInstallSniMarker(ctx, c->m_sniName) != 0) {
      QXLOG(QXLOG_OPTION, "QXClientCURL::setSNIHeader(CA_USAGE)")
          << "Cannot attach the server-name marker [" << c->m_sniName << "]";
    }
  } catch (...) {
    return CURLE_ABORTED_BY_CALLBACK;
  }
  return CURLE_OK;
}

void cert_util_logger(const char* tag, const char* message) {
  QXLOG(QXLOG_ERROR, tag ? tag : "cert_util_logger") << (message ? message : "");
}

int register_verify_callback(SSL_CTX* ctx, void* client) {
  const char* tag = "register_verify_callback";
  {
    // Allocated once per process; the lock keeps two threads building their
    // first contexts together from allocating two indexes. A failed
    // allocation is tried again on the next context.
    std::lock_guard<std::mutex> lock(g_indexMutex);
    if (qxclientcurl_sslctx_index < 0) {
      int idx = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
      if (idx == -1) {
        QXLOG(QXLOG_ERROR, tag) << "SSL_CTX_get_ex_new_index failed";
        return CURLE_ABORTED_BY_CALLBACK;
      }
      logmsgf(QXLOG_PROGRESS, QXLOG_CATEGORY, tag, "SSL_CTX_get_ex_new_index returned %d", idx);
      qxclientcurl_sslctx_index = idx;
    }
  }
  if (SSL_CTX_set_ex_data(ctx, qxclientcurl_sslctx_index, client) != 1) {
    QXLOG(QXLOG_ERROR, tag) << "SSL_CTX_set_ex_data failed";
    return CURLE_ABORTED_BY_CALLBACK;
  }
  return CURLE_OK;
}

namespace {

CURLcode setSslContext(SSL_CTX* ctx, void* client) {
  const char* tag = "set_ssl_context";
  QXLOG(QXLOG_PROGRESS, tag) << "Setting the required parameters in ssl context!";
  if (client == nullptr) {
    QXLOG(QXLOG_ERROR, tag) << "QXClientCurl pointer is NULL. Aborting the callback.";
    return CURLE_ABORTED_BY_CALLBACK;
  }
  auto* c = static_cast<QXClientCURL*>(client);
  if (qxInstallSniMarker(ctx, c->m_sniName) != 0) {
    QXLOG(QXLOG_OPTION, tag) << "Cannot attach the server-name marker [" << c->m_sniName << "]";
  }

  if (IsFeatureEnabled_c(1) == 1) {
    if (SSLCTXHelper::set_ca_cert_in_ssl_context(c->m_CACertPath, cert_util_logger, &ctx) != 0) {
      QXLOG(QXLOG_ERROR, tag) << "SSLCTXHelper::set_ca_cert_in_ssl_context failed.";
      return CURLE_ABORTED_BY_CALLBACK;
    }
    QXLOG(QXLOG_PROGRESS, tag) << "CA certificate(s) from file [" << c->m_CACertPath
                               << "], successfully loaded in ssl_ctx.";
    if (!c->m_certPath.empty()) {
      if (SSLCTXHelper::set_cert_chain_in_ssl_context(c->m_certPath, cert_util_logger, &ctx) != 0) {
        QXLOG(QXLOG_ERROR, tag) << "set_cert_chain_in_ssl_context failed";
        return CURLE_ABORTED_BY_CALLBACK;
      }
      QXLOG(QXLOG_PROGRESS, tag) << "Certificate chain from file [" << c->m_certPath
                                 << "], successfully loaded in ssl_ctx.";
    }
    if (!c->m_keyPath.empty()) {
      int rc = SSLCTXHelper::set_private_key_in_ssl_context(c->m_keyPath, cert_util_logger, &ctx,
                                                            c->m_passphrase);
      if (rc == QX_ERR_KEY_NOT_FIPS) {
        c->m_sslCtxErrorCode = QX_ERR_KEY_NOT_FIPS;
        QXLOG(QXLOG_ERROR, tag) << "Provided private key is not FIPS supported";
        return CURLE_ABORTED_BY_CALLBACK;
      }
      if (rc != 0) {
        QXLOG(QXLOG_ERROR, tag) << "set_private_key_in_ssl_context failed with error code.";
        return CURLE_ABORTED_BY_CALLBACK;
      }
      QXLOG(QXLOG_PROGRESS, tag) << "Private key from file [" << c->m_keyPath
                                 << "], successfully loaded in ssl_ctx.";
    }
  }

  if (c->m_peerVerificationFlag) {
    // libcurl's mode is kept: it is SSL_VERIFY_PEER whenever libcurl checks
    // the peer. With that check off libcurl loads no CA at all, so forcing
    // the mode would fail every handshake, good or bad.
    SSL_CTX_set_verify(ctx, SSL_CTX_get_verify_mode(ctx), libqxcurl_verify_callback);
    int rc = register_verify_callback(ctx, client);
    if (rc != CURLE_OK) return CURLE_ABORTED_BY_CALLBACK;
    // The resumption rule runs at handshake start, marker or not.
    SSL_CTX_set_info_callback(ctx, sniInfoCallback);
  } else {
    QXLOG(QXLOG_PROGRESS, tag)
        << "Since m_peerVerificationFlag is false, not setting libqxcurl_verify_callback";
  }
  return CURLE_OK;
}

// Turns the session cache of a connection's context off unless told to keep
// it: libcurl then never stores that connection's session.
class SessionKeeper {
 public:
  explicit SessionKeeper(SSL_CTX* ctx) : m_ctx(ctx) {}
  ~SessionKeeper() {
    if (!m_keep) SSL_CTX_set_session_cache_mode(m_ctx, SSL_SESS_CACHE_OFF);
  }
  SessionKeeper(const SessionKeeper&) = delete;
  SessionKeeper& operator=(const SessionKeeper&) = delete;
  void keep() { m_keep = true; }

 private:
  SSL_CTX* m_ctx;
  bool m_keep = false;
};

int verifyPeer(int preverify_ok, X509_STORE_CTX* store) {
  SSL* ssl =
      static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
  if (ssl == nullptr) {
    QXLOG(QXLOG_ERROR, kVerifyTag) << "SSL retrieved from store context is NULL";
    return 0;
  }
  SSL_CTX* ctx = SSL_get_SSL_CTX(ssl);
  if (ctx == nullptr) {
    QXLOG(QXLOG_ERROR, kVerifyTag) << "SSL context is NULL";
    return 0;
  }
  if (qxclientcurl_sslctx_index < 0) {
    QXLOG(QXLOG_ERROR, "QXClientCURL::get_exdata_index()")
        << "qxclientcurl_sslctx_index is not initialized!!";
    return 0;
  }
  auto* c = static_cast<QXClientCURL*>(SSL_CTX_get_ex_data(ctx, qxclientcurl_sslctx_index));
  if (c == nullptr) {
    QXLOG(QXLOG_ERROR, kVerifyTag) << "QXClientCurl pointer is NULL. Aborting the callback.";
    return 0;
  }
  if (preverify_ok == 0) {
    QXLOG(QXLOG_ERROR, kVerifyTag) << "failed to verify certificate, returning";
    return 0;
  }
  int depth = X509_STORE_CTX_get_error_depth(store);
  logmsgf(QXLOG_PROGRESS, QXLOG_CATEGORY, kVerifyTag, "crlCheckLevel = [%d], depth = [%d]",
          static_cast<int>(c->m_crlCheckLevel), depth);
  if (depth != 0) return 1;
  // From here the leaf is accepted either after a CRL check that ran and
  // passed, or on a weaker ground (no check, a cached verdict, a check that
  // could not be done). Only the first may be resumed later without the
  // check: on any other, this connection's session is not kept at all.
  SessionKeeper keeper(ctx);
  if (c->m_crlCheckLevel == 0) return 1;

  char* pem = getPEMStrFromX509_sk(X509_STORE_CTX_get0_chain(store));
  if (pem == nullptr) {
    QXLOG(QXLOG_PROGRESS, kVerifyTag) << "Failed to get certificate chain";
    return 0;
  }
  std::string chain(pem);
  std::free(pem);
  std::string trusted;
  c->getTrustedCert(trusted);
  if (qxLogWanted(QXLOG_PROGRESS)) {
    logmsgf(QXLOG_PROGRESS, QXLOG_CATEGORY, kVerifyTag, "certChain = [%s]", chain.c_str());
    logmsgf(QXLOG_PROGRESS, QXLOG_CATEGORY, kVerifyTag, "pemTrustedCert = [%s]", trusted.c_str());
  }

  if (c->m_revocationCache != nullptr) {
    bool revoked = false;
    if (c->m_revocationCache->lookup(chain, revoked) == 0) {
      logmsgf(QXLOG_PROGRESS, QXLOG_CATEGORY, kVerifyTag,
              "Peer cert revocation status found in cache, isRevoked = %d", revoked ? 1 : 0);
      if (!revoked) {
        QXLOG(QXLOG_PROGRESS, kVerifyTag) << "Peer certificate is not revoked";
        return 1;
      }
      QXLOG(QXLOG_ERROR, kVerifyTag) << "Peer certificate is revoked";
      X509_STORE_CTX_set_error(store, X509_V_ERR_CERT_REVOKED);
      return 0;
    }
  }

  bool revoked = false;
  int errorCode = 0;
  std::string errorStr;
  int rc = 0;
  {
    NoQXCurlCrlServiceFactory factory;
    std::unique_ptr<QXCurlCrlService> service(factory.createCrlService(
        CERT_TYPE_HOST, false, false, c->m_crlPath.empty() ? nullptr : c->m_crlPath.c_str()));
    if (!service) {
      rc = QX_ERR_NO_MEMORY;
      errorCode = QX_ERR_NO_MEMORY;
      errorStr = "no CRL service";
    } else {
      try {
        rc = service->checkRevocation(chain, trusted, c->m_crlCheckLevel, revoked, errorCode,
                                      errorStr, c->m_crlDownload, 0);
      } catch (...) {
        rc = QX_ERR_CERT_VERIFY;
        errorCode = QX_ERR_CERT_VERIFY;
        errorStr = "CRL service failed";
      }
    }
  }
  if (rc != 0) {
    if (c->m_allowFailedCrlCheck) {
      logmsgf(QXLOG_OPTION, QXLOG_CATEGORY, kVerifyTag,
              "Failed to perform CRL check of peer certificate, still allowing the "
              "connectionerrorCode = %d, errorStr = %s",
              errorCode, errorStr.c_str());
      return 1;
    }
    logmsgf(QXLOG_ERROR, QXLOG_CATEGORY, kVerifyTag,
            "Failed to perform CRL check of peer certificate, errorCode = %d, errorStr = %s",
            errorCode, errorStr.c_str());
    X509_STORE_CTX_set_error(store, getSSLVerifyErrorCode(errorCode));
    return 0;
  }
  if (revoked) {
    logmsgf(QXLOG_ERROR, QXLOG_CATEGORY, kVerifyTag,
            "Peer certificate is revoked, errorCode = %d, errorStr = %s", errorCode,
            errorStr.c_str());
    X509_STORE_CTX_set_error(store, getSSLVerifyErrorCode(errorCode));
    return 0;
  }
  QXLOG(QXLOG_PROGRESS, kVerifyTag) << "Peer certificate is not revoked";
  keeper.keep();
  return 1;
}

}  // namespace

// Both callbacks run inside libcurl and OpenSSL: nothing may be thrown
// through their C frames.
CURLcode set_ssl_context(CURL* /*curl*/, SSL_CTX* ctx, void* client) {
  try {
    return setSslContext(ctx, client);
  } catch (...) {
    return CURLE_ABORTED_BY_CALLBACK;
  }
}

int libqxcurl_verify_callback(int preverify_ok, X509_STORE_CTX* store) {
  try {
    return verifyPeer(preverify_ok, store);
  } catch (...) {
    return 0;
  }
}

void QXClientCURL::DisableCrlCheck() {
  QXLOG(QXLOG_PROGRESS, "QXClientCURL::DisableCrlCheck")
      << "Disabling CRL check by setting m_crlCheckLevel to DISABLE";
  m_crlCheckLevel = 0;
  qxTlsShareAttach(*this);  // the share of clients with these settings
}

void QXClientCURL::setSkipCRLDownload() {
  QXLOG(QXLOG_PROGRESS, "QXClientCURL::setSkipCRLDownload") << "skipping CRL Download";
  m_crlDownload = false;
  qxTlsShareAttach(*this);  // the share of clients with these settings
}

void QXClientCURL::allowConnectionWithFailedCRLCheck() {
  QXLOG(QXLOG_PROGRESS, "QXClientCURL::allowConnectionWithFailedCRLCheck")
      << "allowing the ssl connection even if CRL check fails";
  m_allowFailedCrlCheck = true;
  qxTlsShareAttach(*this);  // the share of clients with these settings
}

bool QXClientCURL::getServerCertInfo(curl_certinfo** certInfo) {
  if (certInfo == nullptr ||
      curl_easy_getinfo(m_curlHandle, CURLINFO_CERTINFO, certInfo) != CURLE_OK) {
    QXLOG(QXLOG_ERROR, "QXClientCURL::getServerCertInfo")
        << "Failed to get Server CertInfo from CURL";
    return false;
  }
  return true;
}

bool QXClientCURL::getSSLVerifyResult(long* result) {
  if (result == nullptr ||
      curl_easy_getinfo(m_curlHandle, CURLINFO_SSL_VERIFYRESULT, result) != CURLE_OK) {
    QXLOG(QXLOG_ERROR, "QXClientCURL::getSSLVerifyResult")
        << "Failed to get CURLINFO_SSL_VERIFYRESULT from CURL";
    return false;
  }
  return true;
}

void qxCertInfoNames(const struct curl_slist* entries, std::list<std::string>& names,
                     std::string* commonName) {
  static const char kSan[] = "Subject Alternative Name:";
  static const char kSubject[] = "Subject:";
  static const char kCN[] = "CN = ";
  const char* tag = "QXClientCURL::extractPeerCertSAN";
  std::string cn;
  for (const curl_slist* e = entries; e != nullptr; e = e->next) {
    if (e->data == nullptr) continue;
    std::string line(e->data);
    size_t pos = line.find(kSan);
    if (pos != std::string::npos) {
      std::string rest = line.substr(pos + sizeof kSan - 1);
      size_t start = 0;
      while (start <= rest.size()) {
        size_t comma = rest.find(',', start);
        std::string item = trim(
            rest.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
        if (item.compare(0, 4, "DNS:") == 0) {
          std::string name = trim(item.substr(4));
          names.push_back(name);
          logmsgf(QXLOG_PROGRESS, QXLOG_CATEGORY, tag, "The SAN of master server is [%s]",
                  name.c_str());
        }
        if (comma == std::string::npos) break;
        start = comma + 1;
      }
      continue;
    }
    pos = line.find(kSubject);
    if (pos != std::string::npos) {
      size_t at = line.find(kCN, pos);
      if (at != std::string::npos) {
        std::string rest = line.substr(at + sizeof kCN - 1);
        cn = trim(rest.substr(0, rest.find(',')));
        logmsgf(QXLOG_PROGRESS, QXLOG_CATEGORY, tag, "The CN of master server is [%s]", cn.c_str());
      }
    }
  }
  if (names.empty()) names.push_back(cn);
  if (commonName != nullptr) *commonName = cn;
}

int QXClientCURL::extractPeerCertSAN(std::list<std::string>& names) {
  const char* tag = "QXClientCURL::extractPeerCertSAN";
  curl_certinfo* info = nullptr;
  if (!getServerCertInfo(&info)) {
    QXLOG(QXLOG_ERROR, tag) << "Failed to get Server CertInfo";
    return QX_ERR_CERT_EXAMINE;
  }
  if (info == nullptr || info->num_of_certs < 1 || info->certinfo == nullptr) {
    QXLOG(QXLOG_ERROR, tag) << "Invalid Server CertInfo";
    return QX_ERR_CERT_EXAMINE;
  }
  qxCertInfoNames(info->certinfo[0], names);
  return 0;
}
