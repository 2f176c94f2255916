// libcurl results and X.509 verification results to the product's statuses,
// the host-name mismatch explanation and the JSON wrapping of text bodies.
#include <jansson.h>
#include <openssl/x509_vfy.h>
#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "platform/qx_log.h"
#include "platform/qx_util.h"
#include "qxcurl/qx_status.h"
#include "qxcurl/qxclnt_curl.h"

namespace {
// The product counts "key usage does not include certificate signing" as 33
// (OpenSSL's own number for it is 32); both directions keep the product's.
constexpr int kKeyUsageNoCertSign = 33;

struct CodePair {
  int from;
  int to;
};

// X.509 verification result under libcurl 60 -> status.
const CodePair kVerifyResultToStatus[] = {
    {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, QX_ERR_UNKNOWN_ISSUER},
    {X509_V_ERR_CERT_NOT_YET_VALID, QX_ERR_CERT_NOT_YET_VALID},
    {X509_V_ERR_CERT_HAS_EXPIRED, QX_ERR_CERT_EXPIRED},
    {X509_V_ERR_UNABLE_TO_GET_CRL, QX_ERR_CRL_UNAVAILABLE},
    {X509_V_ERR_CRL_HAS_EXPIRED, QX_ERR_CRL_EXPIRED},
    {X509_V_ERR_CERT_REVOKED, QX_ERR_CERT_REVOKED},
    {X509_V_ERR_UNABLE_TO_DECRYPT_CRL_SIGNATURE, QX_ERR_CRL_SIG_DECRYPT},
    {X509_V_ERR_CRL_SIGNATURE_FAILURE, QX_ERR_CRL_SIGNATURE},
    {X509_V_ERR_CRL_NOT_YET_VALID, QX_ERR_CRL_NOT_YET_VALID},
    {X509_V_ERR_ERROR_IN_CRL_LAST_UPDATE_FIELD, QX_ERR_CRL_LAST_UPDATE},
    {X509_V_ERR_ERROR_IN_CRL_NEXT_UPDATE_FIELD, QX_ERR_CRL_NEXT_UPDATE},
    {kKeyUsageNoCertSign, QX_ERR_KEYUSAGE_CERT_SIGN},
    {X509_V_ERR_KEYUSAGE_NO_CRL_SIGN, QX_ERR_KEYUSAGE_CRL_SIGN},
    {X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION, QX_ERR_CRL_CRITICAL_EXT},
    {X509_V_ERR_DIFFERENT_CRL_SCOPE, QX_ERR_CRL_SCOPE},
    {X509_V_ERR_CRL_PATH_VALIDATION_ERROR, QX_ERR_CRL_PATH},
};

// Status -> X.509 verification code, for the verification callback: the
// revocation statuses only. 9321 has no forward entry and still maps to 3.
const CodePair kStatusToVerifyCode[] = {
    {QX_ERR_CRL_UNAVAILABLE, X509_V_ERR_UNABLE_TO_GET_CRL},
    {QX_ERR_CRL_EXPIRED, X509_V_ERR_CRL_HAS_EXPIRED},
    {QX_ERR_CERT_REVOKED, X509_V_ERR_CERT_REVOKED},
    {QX_ERR_CRL_CHECK, X509_V_ERR_UNABLE_TO_GET_CRL},
    {QX_ERR_CRL_SIG_DECRYPT, X509_V_ERR_UNABLE_TO_DECRYPT_CRL_SIGNATURE},
    {QX_ERR_CRL_SIGNATURE, X509_V_ERR_CRL_SIGNATURE_FAILURE},
    {QX_ERR_CRL_NOT_YET_VALID, X509_V_ERR_CRL_NOT_YET_VALID},
    {QX_ERR_CRL_LAST_UPDATE, X509_V_ERR_ERROR_IN_CRL_LAST_UPDATE_FIELD},
    {QX_ERR_CRL_NEXT_UPDATE, X509_V_ERR_ERROR_IN_CRL_NEXT_UPDATE_FIELD},
    {QX_ERR_KEYUSAGE_CERT_SIGN, kKeyUsageNoCertSign},
    {QX_ERR_KEYUSAGE_CRL_SIGN, X509_V_ERR_KEYUSAGE_NO_CRL_SIGN},
    {QX_ERR_CRL_CRITICAL_EXT, X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION},
    {QX_ERR_CRL_SCOPE, X509_V_ERR_DIFFERENT_CRL_SCOPE},
    {QX_ERR_CRL_PATH, X509_V_ERR_CRL_PATH_VALIDATION_ERROR},
};

constexpr int X509_UNSPECIFIED = X509_V_ERR_UNSPECIFIED;
const char* const STRING_MEMBER = "QX_STRING_RESPONSE";

std::string trimBlanks(const std::string& s) {
  size_t b = s.find_first_not_of(" \t");
  if (b == std::string::npos) return std::string();
  size_t e = s.find_last_not_of(" \t");
  return s.substr(b, e - b + 1);
}
}  // namespace

int getSSLVerifyErrorCode(int status) {
  int code = X509_UNSPECIFIED;
  for (const CodePair& p : kStatusToVerifyCode) {
    if (p.from == status) code = p.to;
  }
  QXLOG(QXLOG_PROGRESS, "getSSLVerifyErrorCode")
      << "Translating Arvion code [" << status << "] to SSL verification code [" << code << "]";
  return code;
}

int QXClientCURL::mapCurlError() {
  int status;
  switch (m_curlError) {
    case CURLE_OK:
      status = 0;
      break;
    case CURLE_FAILED_INIT:
      status = QX_ERR_CURL_INIT;
      break;
    case CURLE_URL_MALFORMAT:
      status = QX_ERR_BAD_URL;
      break;
    case CURLE_COULDNT_RESOLVE_HOST:
      status = QX_ERR_RESOLVE;
      break;
    case CURLE_COULDNT_CONNECT:
      status = QX_ERR_CONNECT;
      break;
    case CURLE_REMOTE_ACCESS_DENIED:
      status = QX_ERR_ACCESS_DENIED;
      break;
    case CURLE_WRITE_ERROR:
    case CURLE_SEND_ERROR:
      status = QX_ERR_SEND;
      break;
    case CURLE_READ_ERROR:
    case CURLE_RECV_ERROR:
      status = QX_ERR_RECEIVE;
      break;
    case CURLE_OUT_OF_MEMORY:
      status = QX_ERR_NO_MEMORY;
      break;
    case CURLE_OPERATION_TIMEDOUT:
      status = QX_ERR_TIMEOUT;
      break;
    case CURLE_SSL_CONNECT_ERROR:
      status = QX_ERR_TLS_CONNECT;
      break;
    case CURLE_ABORTED_BY_CALLBACK:
      status = m_sslCtxErrorCode == QX_ERR_KEY_NOT_FIPS ? QX_ERR_KEY_NOT_FIPS : QX_ERR_CURL_OTHER;
      break;
    case CURLE_SSL_CERTPROBLEM:
      status = QX_ERR_CLIENT_CERT;
      break;
    case CURLE_SSL_CACERT_BADFILE:
      status = QX_ERR_TRUST_STORE;
      break;
    case CURLE_FILESIZE_EXCEEDED:  // the response body cap (setCurlCallbackForHeaderAndData)
      status = QX_ERR_RESPONSE_TOO_LARGE;
      break;
    case CURLE_PEER_FAILED_VERIFICATION: {
      long result = 0;
      if (!getSSLVerifyResult(&result)) result = 0;
      status = 0;
      for (const CodePair& p : kVerifyResultToStatus) {
        if (p.from == result) status = p.to;
      }
      if (status == 0) {
        if (result > 1) {
          QXLOG(QXLOG_ERROR, "mapCurlError") << "Certificate verification result = " << result;
          status = QX_ERR_CERT_VERIFY;
        } else {
          status = mapCurlPeerFailedVerification();
        }
      }
      break;
    }
    default:
      status = QX_ERR_CURL_OTHER;
      break;
  }
  QXLOG(QXLOG_PROGRESS, "mapCurlError")
      << "Translating CURL status [" << m_curlError << "] to Arvion status [" << status << "]";
  return status;
}

int QXClientCURL::mapCurlPeerFailedVerification() {
  const char* tag = "QXClientCURL::mapCurlPeerFailedVerification";
  m_extendedErrors.clear();
  curl_certinfo* info = nullptr;
  if (!getServerCertInfo(&info)) {
    QXLOG(QXLOG_ERROR, tag) << "Failed to get Server CertInfo";
    return QX_ERR_NO_CERT_INFO;
  }
  if (info == nullptr || info->num_of_certs < 1 || info->certinfo == nullptr) {
    QXLOG(QXLOG_ERROR, tag) << "Invalid Server CertInfo";
    return QX_ERR_NO_CERT_INFO;
  }
  std::string commonName;
  std::vector<std::string> altNames;
  for (curl_slist* p = info->certinfo[0]; p != nullptr; p = p->next) {
    if (p->data == nullptr) continue;
    std::string line = p->data;
    if (line.find("Subject Alternative Name:") != std::string::npos) {
      size_t dns = line.find("DNS:");
      if (dns == std::string::npos) continue;
      std::string rest = line.substr(dns + 4);
      size_t from = 0;
      while (from <= rest.size()) {
        size_t comma = rest.find(',', from);
        std::string item = trimBlanks(
            rest.substr(from, comma == std::string::npos ? std::string::npos : comma - from));
        // Only host names count; addresses and other kinds are left out.
        if (item.compare(0, 4, "DNS:") == 0) {
          item = trimBlanks(item.substr(4));
        } else if (item.find(':') != std::string::npos) {
          item.clear();
        }
        if (!item.empty()) altNames.push_back(item);
        if (comma == std::string::npos) break;
        from = comma + 1;
      }
    } else if (line.find("Subject:") != std::string::npos) {
      size_t cn = line.find("CN = ");
      if (cn != std::string::npos) {
        std::string rest = line.substr(cn + 5);
        commonName = trimBlanks(rest.substr(0, rest.find(',')));
      }
    }
  }
  if (!altNames.empty()) {
    for (const std::string& name : altNames) {
      if (strcasecmp(name.c_str(), m_server.c_str()) != 0) m_extendedErrors.push_back(name);
    }
  } else if (strcasecmp(commonName.c_str(), m_server.c_str()) != 0) {
    m_extendedErrors.push_back(commonName);
  }
  return QX_ERR_HOST_MISMATCH;
}

bool QXClientCURL::getExtendedErrorInfo(int status, std::vector<std::string>* names) {
  if (status != QX_ERR_HOST_MISMATCH || names == nullptr) return false;
  *names = m_extendedErrors;
  return true;
}

int QXClientCURL::makeJsonResponseFromString(std::string& out) {
  const char* tag = "QXClientCURL::makeJsonResponseFromString";
  json_t* root = json_object();
  if (root == nullptr) {
    QXLOG(QXLOG_ERROR, tag) << "Unable to allocate memory for json root object";
    return QX_ERR_NO_MEMORY;
  }
  json_t* value = json_stringn(m_responseBody.data(), m_responseBody.size());
  if (value == nullptr || json_object_set_new(root, STRING_MEMBER, value) != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Error in getting response";
    json_decref(root);
    return QX_ERR_JSON_PARSE;
  }
  char* text = json_dumps(root, JSON_COMPACT);
  json_decref(root);
  if (text == nullptr) {
    QXLOG(QXLOG_ERROR, tag) << "Error in getting response";
    return QX_ERR_JSON_PARSE;
  }
  out = text;
  free(text);
  return 0;
}

int QXClientCURL::makeStringResponseFromJson() {
  const char* tag = "QXClientCURL::makeStringResponseFromJson";
  if (m_responseBody.empty()) {
    QXLOG(QXLOG_ERROR, tag) << "Input json string is empty";
    return QX_ERR_BAD_ARGUMENT;
  }
  json_error_t error;
  json_t* root = json_loadb(m_responseBody.data(), m_responseBody.size(), JSON_ALLOW_NUL, &error);
  if (root == nullptr || !json_is_object(root)) {
    QXLOG(QXLOG_ERROR, tag) << "Error in loading json";
    json_decref(root);
    return QX_ERR_JSON_PARSE;
  }
  json_t* value = json_object_get(root, STRING_MEMBER);
  if (!json_is_string(value)) {
    QXLOG(QXLOG_ERROR, tag) << "Error in parsing json object";
    json_decref(root);
    return QX_ERR_BAD_RESPONSE;
  }
  m_responseBody.assign(json_string_value(value), json_string_length(value));
  json_decref(root);
  return 0;
}
