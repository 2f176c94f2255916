// CA type selection and the host's PKI artifacts: which CA a connection
// trusts and presents, where its files are, and how they reach libcurl.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "client/qxclnt_curl_option.h"
#include "platform/qx_certmap.h"
#include "platform/qx_config.h"
#include "platform/qx_log.h"
#include "platform/qx_root.h"
#include "platform/qx_util.h"
#include "qxcurl/qx_status.h"
#include "qxcurl/qxclnt_curl.h"
#include "tls/qx_tls_internal.h"

namespace {

bool isExternalCA(int usage) { return usage == CA_USAGE_ECA || usage == CA_USAGE_ECA_ALT; }

std::string usageText(ca_usage usage) { return CaUsageToString(usage); }

}  // namespace

std::string getCAFilePath(cert_type certType) {
  if (certType == CERT_TYPE_GLOBAL)
    return qxRootPath("/usr/tarvo/var/global/webtruststore/cacert.pem");
  return qxRootPath("/usr/tarvo/var/webtruststore/cacert.pem");
}

int QXClientCURL::getCATypeToUse(const caLoadType& loadType, unsigned short port, ca_usage& out,
                                 host_cert_data* artifacts) {
  const char* tag = "QXClientCURL::getCATypeToUse";
  // Read as a plain number: callers may hand in values outside the enumeration.
  std::underlying_type<caLoadType>::type raw;
  std::memcpy(&raw, &loadType, sizeof raw);
  if (raw == CA_LOAD_FORCE_QXCA || raw == CA_LOAD_FORCE_ECA) {
    out = raw == CA_LOAD_FORCE_QXCA ? CA_USAGE_QXCA : CA_USAGE_ECA;
    QXLOG(QXLOG_PROGRESS, tag) << "Overriding configured CA type, as requested.";
    if (artifacts == nullptr) {
      QXLOG(QXLOG_DETAIL, tag) << "artifacts is NULL. CA type to use: [" << usageText(out) << "]";
      return 0;
    }
  } else if (raw != CA_LOAD_CONFIGURED) {
    QXLOG(QXLOG_OPTION, tag) << "Invalid argument passed.";
    return QX_ERR_BAD_ARGUMENT;
  }

  certMapInfo record;
  std::memset(&record, 0, sizeof record);
  int rc = getCertMapInfo(m_certType, m_server.c_str(), record);
  if (rc != 0) {
    QXLOG(QXLOG_DETAIL, tag) << "Unable to set cURL TLS params, as couldn't load "
                                "CertMapInfo.getCertMapInfo FAILED with ["
                             << rc << "] error code.";
    out = raw == CA_LOAD_FORCE_ECA ? CA_USAGE_ECA : CA_USAGE_QXCA;
    QXLOG(QXLOG_PROGRESS, tag) << "CA type to use: [" << usageText(out) << "]";
    return 0;
  }
  if (raw == CA_LOAD_CONFIGURED) {
    out = getCaSupportedByThisHost(record);
    QXLOG(QXLOG_PROGRESS, tag) << "getCaSupportedByThisHost: CA type to use: [" << usageText(out)
                               << "]";
  }
  if (out == CA_USAGE_NONE || artifacts == nullptr) return 0;

  rc = getCertDataByCAtypeExEx(record, out, 1, port, artifacts);
  if (rc != 0) {
    QXLOG(QXLOG_DETAIL, tag)
        << "Unable to determine PKI artifacts as configured.getCertDataByCAtype FAILED with [" << rc
        << "] error code.";
    QXLOG(QXLOG_PROGRESS, tag) << "getCertDataByCAtype failed: CA type to use: [" << usageText(out)
                               << "]";
  } else {
    QXLOG(QXLOG_PROGRESS, tag) << "getCertDataByCAtype passed: CA type to use: [" << usageText(out)
                               << "]";
  }
  return 0;
}

int QXClientCURL::populatePKIArtifacts(const ca_usage& usage, const host_cert_data& artifacts,
                                       bool forMutualAuth) {
  const char* tag = "QXClientCURL::populatePKIArtifacts";
  int result = 0;
  if (usage != CA_USAGE_QXCA && forMutualAuth) {
    QXLOG(QXLOG_PROGRESS, tag)
        << "Populating missing/empty PKI artifacts for mutual auth, in ECA mode.";
  }
  if (m_certPath.empty() && artifacts.certPath[0] != '\0') {
    QXLOG(QXLOG_PROGRESS, tag) << "Populating m_certPath from pkiArtifacts";
    QXLOG(QXLOG_PROGRESS, tag) << "pkiArtifacts.certPath [" << artifacts.certPath << "].";
    if (access(artifacts.certPath, F_OK) != 0) {
      int e = errno;
      QXLOG(QXLOG_OPTION, tag)
          << "Missing path \"Path to X.509 certificate is not accessible.\". Errno is [" << e
          << "].";
      result = -1;
    } else {
      m_certPath = artifacts.certPath;
    }
  }
  if (forMutualAuth) {
    QXLOG(QXLOG_PROGRESS, tag) << "Populating m_certPath from pkiArtifacts";
    if (m_keyPath.empty() && artifacts.keyPath[0] != '\0') {
      if (access(artifacts.keyPath, F_OK) != 0) {
        int e = errno;
        QXLOG(QXLOG_OPTION, tag)
            << "Missing path \"Path to private key is not accessible.\". Errno is [" << e << "].";
        result = -1;
      } else {
        m_keyPath = artifacts.keyPath;
      }
    }
    if (isExternalCA(usage) && m_passphrase.empty() && artifacts.passphraseFilePath[0] != '\0') {
      if (access(artifacts.passphraseFilePath, F_OK) != 0) {
        int e = errno;
        QXLOG(QXLOG_OPTION, tag)
            << "Missing path \"Path to passphraseFile is not accessible.\". Errno is [" << e
            << "].";
        return -1;
      }
      int rc = loadPassphraseFromFile(artifacts.passphraseFilePath, m_passphrase);
      if (rc != 0) {
        QXLOG(QXLOG_ERROR, tag) << "FAILED to load/read private key password file.";
        return rc;
      }
    }
  }
  if (!m_CACertPath.empty()) return result;

  std::string caTrustPath;
  if (usage == CA_USAGE_QXCA || usage == CA_USAGE_NONE) {
    caTrustPath = getCAFilePath(m_certType);
  } else if (artifacts.trustStorePath[0] != '\0') {
    caTrustPath = artifacts.trustStorePath;
  }
  if (caTrustPath.empty()) {
    QXLOG(QXLOG_PROGRESS, tag) << "Trust store path is empty.";
    return result;
  }
  QXLOG(QXLOG_PROGRESS, tag) << "caTrustPath is [" << caTrustPath << "].";
  if (access(caTrustPath.c_str(), F_OK) == 0) {
    m_CACertPath = caTrustPath;
    return 0;
  }
  int e = errno;
  QXLOG(QXLOG_OPTION, tag) << "Missing path \"Path to trust store is not accessible.\". Errno is ["
                           << e << "].";
  return -1;
}

int QXClientCURL::setFSPKIArtifacts(const ca_usage& usage, bool forMutualAuth) {
  const char* tag = "QXClientCURL::setFSPKIArtifacts";
  // With feature switch 1 an external CA's material goes straight into the
  // TLS context (set_ssl_context) instead of through libcurl's file options.
  bool useFiles = !(IsFeatureEnabled_c(1) == 1 && usage != CA_USAGE_QXCA);

  int result =
      qxSetCurlOption(*this, CURLOPT_SSLCERTTYPE, "PEM", "CURLOPT_SSLCERTTYPE", QXLOG_OPTION, tag);

  m_caUsage = usage;
  const char* sniTag = "QXClientCURL::setSNIHeader(CA_USAGE)";
  if (usage == CA_USAGE_QXCA) {
    m_sniName = "QXCA";
  } else if (isExternalCA(usage)) {
    m_sniName = "ECA";
  } else {
    m_sniName.clear();
  }
  QXLOG(QXLOG_PROGRESS, sniTag) << "Setting SNI header for [" << m_sniName << "]";
  if (!m_sniName.empty()) {
    // Stock libcurl cannot send a server name other than the URL host: the
    // marker is put on the connection by the SSL-context callback. An
    // external CA installs set_ssl_context below, which does the same.
    CURLcode rc = curl_easy_setopt(m_curlHandle, CURLOPT_SSL_CTX_FUNCTION, qxcurl_sni_context);
    if (rc == CURLE_OK) rc = curl_easy_setopt(m_curlHandle, CURLOPT_SSL_CTX_DATA, this);
    if (rc != CURLE_OK) {
      m_curlError = rc;
      QXLOG(QXLOG_OPTION, sniTag) << "FAILED to set CURLOPT_SNI_HOSTNAME in cURL. cURL :"
                                  << curl_easy_strerror(rc);
      mapCurlError();
    }
  }
  // Sessions are shared with the process's other clients of the same trust;
  // a resumed session runs no verification callback, so where a revocation
  // check must run, the handshake resumes only while the answer holds
  // (qxclnt_tls_share.cpp).
  qxSetCurlOption(*this, CURLOPT_SSL_SESSIONID_CACHE, 1L, "CURLOPT_SSL_SESSIONID_CACHE",
                  QXLOG_OPTION, tag);
  qxTlsShareAttach(*this);

  if (forMutualAuth) {
    qxSetCurlOption(*this, CURLOPT_SSL_VERIFYPEER, 1L, "CURLOPT_SSL_VERIFYPEER", QXLOG_OPTION, tag);
    qxSetCurlOption(*this, CURLOPT_SSL_VERIFYHOST, 2L, "CURLOPT_SSL_VERIFYHOST", QXLOG_OPTION, tag);
    if (m_certPath.empty() || m_keyPath.empty()) {
      QXLOG(QXLOG_OPTION, tag) << "Missing PKI artifact(s) "
                               << (m_certPath.empty() ? "X509 Certificate " : "")
                               << (m_keyPath.empty() ? "Private Key" : "");
      return QX_ERR_BAD_ARGUMENT;
    }
    if (useFiles) {
      QXLOG(QXLOG_PROGRESS, tag) << "Setting QXCA certificates";
      result = qxSetCurlOption(*this, CURLOPT_SSLCERT, m_certPath.c_str(), "CURLOPT_SSLCERT",
                               QXLOG_OPTION, tag);
      // A later success must not hide an earlier failure.
      int rc = qxSetCurlOption(*this, CURLOPT_SSLKEY, m_keyPath.c_str(), "CURLOPT_SSLKEY",
                               QXLOG_OPTION, tag);
      if (rc != 0) result = rc;
      // Always a (possibly empty) password, so that OpenSSL never falls back
      // to prompting on a terminal for an encrypted key.
      qxSetCurlOption(*this, CURLOPT_KEYPASSWD, m_passphrase.c_str(), "CURLOPT_KEYPASSWD",
                      QXLOG_OPTION, tag);
      QXLOG(QXLOG_PROGRESS, tag) << "Using X509 Certificate [" << m_certPath << "], and "
                                 << "Private Key [" << m_keyPath << "].";
    }
  }

  if (!m_CACertPath.empty()) {
    QXLOG(QXLOG_PROGRESS, tag) << "m_CACertPath: [" << m_CACertPath << "]";
    if (useFiles) {
      QXLOG(QXLOG_PROGRESS, tag) << "Setting QXCA CA certificate";
      int rc = qxSetCurlOption(*this, CURLOPT_CAINFO, m_CACertPath.c_str(), "CURLOPT_CAINFO",
                               QXLOG_OPTION, tag);
      if (rc != 0) result = rc;
      // The trust store alone is trusted, not the system's hashed directory.
      // That also lets libcurl keep the store it built from the file: with
      // an SSL-context callback installed it must build it before every
      // ClientHello, so each new connection would read and parse the file
      // while the server waits. Kept for a second at most, so a replaced
      // trust store reaches new connections as fast as a configuration change.
      qxSetCurlOption(*this, CURLOPT_CAPATH, static_cast<const void*>(nullptr), "CURLOPT_CAPATH",
                      QXLOG_OPTION, tag);
      qxSetCurlOption(*this, CURLOPT_CA_CACHE_TIMEOUT, 1L, "CURLOPT_CA_CACHE_TIMEOUT", QXLOG_OPTION,
                      tag);
    } else {
      setupCAInfoToNULL();
    }
    if (setTrustedCertInMemory(m_CACertPath) != 0) {
      QXLOG(QXLOG_OPTION, tag) << "Failed to read trusted CA certificate in memory.";
    }
  } else {
    QXLOG(QXLOG_OPTION, tag)
        << "Truststore info missing, implying verification for server certificate shall fail.";
    // Without this libcurl would fall back to its built-in CA bundle, and a
    // server with a public certificate would verify after all.
    setupCAInfoToNULL();
  }

  if (isExternalCA(usage)) {
    QXLOG(QXLOG_PROGRESS, tag) << "Setting call back to perform crl check for ECA certificate";
    setContextFunction(set_ssl_context, this);
  }
  return result;
}

int QXClientCURL::setCurlTLSParams(caLoadType reqCAType, bool forMutualAuth, bool skipPKIInfo) {
  const char* tag = "QXClientCURL::setCurlTLSParams";
  host_cert_data record;
  std::memset(&record, 0, sizeof record);
  ca_usage usage = CA_USAGE_QXCA;
  int rc = getCATypeToUse(reqCAType, 0, usage, skipPKIInfo ? nullptr : &record);
  QXLOG(QXLOG_PROGRESS, tag) << "reqCAType [" << static_cast<int>(reqCAType) << "] "
                             << "forMutualAuth [" << (forMutualAuth ? 1 : 0) << "] skipPKIInfo ["
                             << (skipPKIInfo ? 1 : 0) << "]";
  if (rc != 0) {
    QXLOG(QXLOG_DETAIL, tag) << "FAILED to determine CA type to use.";
    return rc;
  }
  if (populatePKIArtifacts(usage, record, forMutualAuth) != 0) {
    QXLOG(QXLOG_DETAIL, tag) << "FAILED to populate PKI Artifacts.";
  }
  return setFSPKIArtifacts(usage, forMutualAuth);
}

int QXClientCURL::setupHostCertCurlOption() {
  return setCurlTLSParams(CA_LOAD_CONFIGURED, true, false);
}

int QXClientCURL::setupHostCertCurlOptionByCAType() {
  if (m_caUsage == CA_USAGE_QXCA) return setCurlTLSParams(CA_LOAD_FORCE_QXCA, true, false);
  if (isExternalCA(m_caUsage)) return setCurlTLSParams(CA_LOAD_FORCE_ECA, true, false);
  return setCurlTLSParams(CA_LOAD_CONFIGURED, true, false);
}

int QXClientCURL::setAssortedCurlPKIParams(const caLoadType& loadType,
                                           const std::string& trustStore, bool forMutualAuth,
                                           const std::string& crlPath, const std::string& certPath,
                                           const std::string& keyPath,
                                           const std::string& passphrase,
                                           const std::string& passphraseFile) {
  const char* tag = "QXClientCURL::setAssortedCurlPKIParams";
  ca_usage usage = CA_USAGE_QXCA;
  int rc = getCATypeToUse(loadType, 0, usage, nullptr);
  if (rc != 0) {
    QXLOG(QXLOG_OPTION, tag) << "Unable to determine CA Type to use. Shall not set SNI header.";
    return rc;
  }
  auto missing = [&](const std::string& path, const char* what) {
    if (access(path.c_str(), F_OK) == 0) return false;
    int e = errno;
    QXLOG(QXLOG_OPTION, tag) << "Missing path \"" << what << "\". Errno is [" << e << "].";
    return true;
  };
  if (!trustStore.empty()) {
    if (missing(trustStore, "truststore.")) return QX_ERR_FILE_NOT_FOUND;
    m_CACertPath = trustStore;
  }
  if (!crlPath.empty()) {
    if (missing(crlPath, "CRL file path provided but couldn't load.")) return QX_ERR_FILE_NOT_FOUND;
    m_crlPath = crlPath;
  }
  if (forMutualAuth) {
    if (certPath.empty() || keyPath.empty()) {
      QXLOG(QXLOG_OPTION, tag) << "For mutual auth both certPath and keyPath must be specified.";
      return QX_ERR_BAD_ARGUMENT;
    }
    if (missing(certPath, "X.509 certificate.")) return QX_ERR_FILE_NOT_FOUND;
    m_certPath = certPath;
    if (missing(keyPath, "key file.")) return QX_ERR_FILE_NOT_FOUND;
    m_keyPath = keyPath;
    if (isExternalCA(usage)) {
      if (!passphrase.empty()) {
        m_passphrase = passphrase;
      } else if (!passphraseFile.empty()) {
        rc = loadPassphraseFromFile(passphraseFile, m_passphrase);
        if (rc != 0) {
          QXLOG(QXLOG_OPTION, tag) << "FAILED to load/read private key password file.";
          return rc;
        }
      }
    }
  }
  return setFSPKIArtifacts(usage, forMutualAuth);
}

int QXClientCURL::setupCAPath() {
  int rc = setAssortedCurlPKIParams(CA_LOAD_CONFIGURED, getCAFilePath(m_certType), false, "", "",
                                    "", "", "");
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, "setupCAPath") << "Failed to set CA file path ";
    return QX_ERR_FILE_NOT_FOUND;
  }
  return 0;
}

int QXClientCURL::setCustomCAPath(const std::string& caPath, const std::string& caType) {
  caLoadType lt = caType == "QXCA" ? CA_LOAD_FORCE_QXCA : CA_LOAD_CONFIGURED;
  int rc = setAssortedCurlPKIParams(lt, caPath, false, "", "", "", "", "");
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, "setCustomCAPath") << "Failed to set CA file path ";
    return QX_ERR_FILE_NOT_FOUND;
  }
  return 0;
}

int QXClientCURL::setCustomSecurityCreds(const std::string& caCertPath, const std::string& keyPath,
                                         const std::string& certPath, const std::string& passphrase,
                                         const std::string& crlPath) {
  m_CACertPath = caCertPath;
  m_keyPath = keyPath;
  m_certPath = certPath;
  if (!passphrase.empty()) m_passphrase = passphrase;
  if (!crlPath.empty()) m_crlPath = crlPath;
  return 0;
}

int QXClientCURL::getTrustStorePath(std::string& path) {
  path = m_CACertPath;
  return 0;
}

int QXClientCURL::getTrustedCert(std::string& cert) {
  cert = m_trustedCert;
  return 0;
}

int QXClientCURL::setTrustedCertInMemory(std::string path) {
  logmsgf(QXLOG_PROGRESS, QXLOG_CATEGORY, "QXClientCURL:::setTrustedCertInMemory",
          "Reading data from file [%s]", path.c_str());
  // The same file, unchanged since this client read it (the constructor's
  // trust store set again by the caller): no second read.
  struct stat st;
  std::string identity;
  if (stat(path.c_str(), &st) == 0) {
    identity = path + "|" + std::to_string(st.st_ino) + "|" + std::to_string(st.st_size) + "|" +
               std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec) + "|" +
               std::to_string(IsFeatureEnabled_c(1));
    if (identity == m_trustedCertSource && !m_trustedCert.empty()) return 0;
  }
  m_trustedCertSource.clear();
  int rc = IsFeatureEnabled_c(1) == 1 ? readPEMDataFromFile(path, m_trustedCert)
                                      : readDataFromFile(path, m_trustedCert);
  if (rc == 0) m_trustedCertSource = identity;
  return rc;
}

int QXClientCURL::loadPassphraseFromFile(const std::string& path, std::string& passphrase) {
  const char* tag = "QXClientCURL::loadPassphraseFromFile";
  FILE* f = std::fopen(path.c_str(), "r");
  if (f == nullptr) {
    int e = errno;
    QXLOG(QXLOG_OPTION, tag) << "Failed to open passphrase file [" << path << "]."
                             << "Error reported is [" << e << "].";
    return QX_ERR_FILE_NOT_FOUND;
  }
  char buf[1024];
  std::memset(buf, 0, sizeof buf);
  int result = 0;
  std::string text;
  if (std::fgets(buf, sizeof buf, f) == nullptr) {
    int fe = std::ferror(f);
    QXLOG(QXLOG_OPTION, tag) << "Reading passphrase from file [" << path << "] FAILED."
                             << "Error reported is [" << fe << "].";
    result = fe != 0 ? QX_ERR_READ : QX_ERR_PASSPHRASE_EMPTY;
  } else {
    for (const char* p = buf; *p != '\0'; ++p)
      if (*p != '\r') text += *p;
    std::string noLf;
    for (char ch : text)
      if (ch != '\n') noLf += ch;
    text.swap(noLf);
  }
  if (std::fclose(f) == -1) {
    int e = errno;
    QXLOG(QXLOG_OPTION, tag) << "fclose failed to close [" << path << "]."
                             << "Error reported is [" << e << "].";
  }
  std::memset(buf, 0, sizeof buf);
  if (result == 0) {
    passphrase = text;
    QXLOG(QXLOG_PROGRESS, tag) << "Passphrase set, to decrypt PKI Key.";
  }
  return result;
}

void QXClientCURL::setApplianceConnection(bool isAppliance, const std::string& caCertFilePath) {
  m_isApplianceConnection = isAppliance;
  if (isAppliance) {
    QXLOG(QXLOG_PROGRESS, "QXClientCURL::setApplianceConnection")
        << "Using paths as caCertFilePath [" << caCertFilePath << "]";
    setAssortedCurlPKIParams(CA_LOAD_CONFIGURED, caCertFilePath, false, "", "", "", "", "");
  } else {
    setupHostCertCurlOption();
  }
}

int QXClientCURL::setupCAInfoToNULL() {
  const char* tag = "QXClientCURL::setupCAInfoToNULL";
  qxSetCurlOption(*this, CURLOPT_CAPATH, static_cast<const void*>(nullptr), "CURLOPT_CAPATH",
                  QXLOG_OPTION, tag);
  return qxSetCurlOption(*this, CURLOPT_CAINFO, static_cast<const void*>(nullptr), "CURLOPT_CAINFO",
                         QXLOG_OPTION, tag);
}

namespace {
// Sets both verification switches; the host option's failure wins when both fail.
int setVerification(QXClientCURL& c, long peer, long host, const char* tag) {
  int rc =
      qxSetCurlOption(c, CURLOPT_SSL_VERIFYPEER, peer, "CURLOPT_SSL_VERIFYPEER", QXLOG_OPTION, tag);
  int rc2 =
      qxSetCurlOption(c, CURLOPT_SSL_VERIFYHOST, host, "CURLOPT_SSL_VERIFYHOST", QXLOG_OPTION, tag);
  return rc2 != 0 ? rc2 : rc;
}
}  // namespace

int QXClientCURL::setSkipPeerHostVerification() {
  m_callerVerifyPeer = m_callerVerifyHost = 0;
  return setVerification(*this, 0L, 0L, "QXClientCURL::setSkipPeerHostVerification");
}

int QXClientCURL::setSkipPeerVerification() {
  m_peerVerificationFlag = false;
  m_callerVerifyPeer = 0;
  qxTlsShareAttach(*this);
  return qxSetCurlOption(*this, CURLOPT_SSL_VERIFYPEER, 0L, "CURLOPT_SSL_VERIFYPEER", QXLOG_OPTION,
                         "QXClientCURL::setSkipPeerVerification");
}

int QXClientCURL::setSkipHostVerification() {
  m_callerVerifyHost = 0;
  return qxSetCurlOption(*this, CURLOPT_SSL_VERIFYHOST, 0L, "CURLOPT_SSL_VERIFYHOST", QXLOG_OPTION,
                         "QXClientCURL::setSkipHostVerification");
}

int QXClientCURL::setPeerAndHostVerification() {
  m_callerVerifyPeer = 1;
  m_callerVerifyHost = 2;
  return setVerification(*this, 1L, 2L, "QXClientCURL::setPeerAndHostVerification");
}

int QXClientCURL::setContextFunction(CURLcode (*fn)(CURL*, SSL_CTX*, void*), void* data) {
  const char* tag = "QXClientCURL::setContextFunction";
  CURLcode rc = curl_easy_setopt(m_curlHandle, CURLOPT_SSL_CTX_FUNCTION, fn);
  int result = 0;
  if (rc != CURLE_OK) {
    m_curlError = rc;
    QXLOG(QXLOG_OPTION, tag) << "FAILED to set CURLOPT_SSL_CTX_FUNCTION in cURL. cURL :"
                             << curl_easy_strerror(rc);
    result = mapCurlError();
  }
  if (data != nullptr) {
    int rc2 = qxSetCurlOption(*this, CURLOPT_SSL_CTX_DATA, data, "CURLOPT_SSL_CTX_DATA",
                              QXLOG_OPTION, tag);
    if (rc2 != 0) result = rc2;
  }
  return result;
}
