// libcurl results and X.509 verification results to the product's statuses,
// the host-name mismatch explanation and the JSON wrapping of text bodies.
#include <jansson.h>
#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "qx_log.h"
#include "qx_util.h"
#include "qxclnt_curl.h"

namespace {
struct CodePair {
  int from;
  int to;
};

// X.509 verification result under libcurl 60 -> status.
const CodePair kVerifyResultToStatus[] = {
    {20, 8504}, {9, 8505},  {10, 8506}, {3, 5982},  {12, 9314}, {23, 9318}, {5, 9328},  {8, 9329},
    {11, 9330}, {15, 9331}, {16, 9332}, {33, 9333}, {35, 9334}, {36, 9335}, {44, 9336}, {54, 9337},
};

// Status -> X.509 verification code; 9321 has no forward entry on purpose.
const CodePair kStatusToVerifyCode[] = {
    {5982, 3},  {9314, 12}, {9318, 23}, {9321, 3},  {9328, 5},  {9329, 8},  {9330, 11},
    {9331, 15}, {9332, 16}, {9333, 33}, {9334, 35}, {9335, 36}, {9336, 44}, {9337, 54},
};

constexpr int X509_UNSPECIFIED = 1;
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
      status = 103;
      break;
    case CURLE_URL_MALFORMAT:
      status = 8502;
      break;
    case CURLE_COULDNT_RESOLVE_HOST:
      status = 47;
      break;
    case CURLE_COULDNT_CONNECT:
      status = 8500;
      break;
    case CURLE_REMOTE_ACCESS_DENIED:
      status = 8501;
      break;
    case CURLE_WRITE_ERROR:
    case CURLE_SEND_ERROR:
      status = 44;
      break;
    case CURLE_READ_ERROR:
    case CURLE_RECV_ERROR:
      status = 42;
      break;
    case CURLE_OUT_OF_MEMORY:
      status = 10;
      break;
    case CURLE_OPERATION_TIMEDOUT:
      status = 41;
      break;
    case CURLE_SSL_CONNECT_ERROR:
      status = 26;
      break;
    case CURLE_ABORTED_BY_CALLBACK:
      status = m_sslCtxErrorCode == 8787 ? 8787 : 8503;
      break;
    case CURLE_SSL_CERTPROBLEM:
      status = 8511;
      break;
    case CURLE_SSL_CACERT_BADFILE:
      status = 8508;
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
          status = 8507;
        } else {
          status = mapCurlPeerFailedVerification();
        }
      }
      break;
    }
    default:
      status = 8503;
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
    return 8510;
  }
  if (info == nullptr || info->num_of_certs < 1 || info->certinfo == nullptr) {
    QXLOG(QXLOG_ERROR, tag) << "Invalid Server CertInfo";
    return 8510;
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
  return 8509;
}

bool QXClientCURL::getExtendedErrorInfo(int status, std::vector<std::string>* names) {
  if (status != 8509 || names == nullptr) return false;
  *names = m_extendedErrors;
  return true;
}

int QXClientCURL::makeJsonResponseFromString(std::string& out) {
  const char* tag = "QXClientCURL::makeJsonResponseFromString";
  json_t* root = json_object();
  if (root == nullptr) {
    QXLOG(QXLOG_ERROR, tag) << "Unable to allocate memory for json root object";
    return 10;
  }
  json_t* value = json_stringn(m_responseBody.data(), m_responseBody.size());
  if (value == nullptr || json_object_set_new(root, STRING_MEMBER, value) != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Error in getting response";
    json_decref(root);
    return 7617;
  }
  char* text = json_dumps(root, JSON_COMPACT);
  json_decref(root);
  if (text == nullptr) {
    QXLOG(QXLOG_ERROR, tag) << "Error in getting response";
    return 7617;
  }
  out = text;
  free(text);
  return 0;
}

int QXClientCURL::makeStringResponseFromJson() {
  const char* tag = "QXClientCURL::makeStringResponseFromJson";
  if (m_responseBody.empty()) {
    QXLOG(QXLOG_ERROR, tag) << "Input json string is empty";
    return 20;
  }
  json_error_t error;
  json_t* root = json_loadb(m_responseBody.data(), m_responseBody.size(), JSON_ALLOW_NUL, &error);
  if (root == nullptr || !json_is_object(root)) {
    QXLOG(QXLOG_ERROR, tag) << "Error in loading json";
    json_decref(root);
    return 7617;
  }
  json_t* value = json_object_get(root, STRING_MEMBER);
  if (!json_is_string(value)) {
    QXLOG(QXLOG_ERROR, tag) << "Error in parsing json object";
    json_decref(root);
    return 7610;
  }
  m_responseBody.assign(json_string_value(value), json_string_length(value));
  json_decref(root);
  return 0;
}
