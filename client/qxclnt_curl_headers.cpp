// Response header fields and API-version negotiation.
#include <strings.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "platform/qx_log.h"
#include "platform/qx_util.h"
#include "qxcurl/qx_status.h"
#include "qxcurl/qxclnt_curl.h"

int QXClientCURL::getHttpHeaderField(const std::string& field, std::string& value) {
  const char* tag = "QXClientCURL::getHttpHeaderField";
  if (field.empty()) {
    QXLOG(QXLOG_PROGRESS, tag) << "Field = [" << field << "] is empty.";
    return QX_ERR_BAD_ARGUMENT;
  }
  value.clear();
  const std::string& text = m_responseHeaders;
  size_t pos = text.find(field + ":");
  if (pos == std::string::npos) {
    QXLOG(QXLOG_PROGRESS, tag) << "Warning: Field [" << field << ":"
                               << "] was not found in the response header.";
    return QX_ERR_HEADER_FIELD;
  }
  size_t colon = text.find(':', pos);
  if (colon == std::string::npos) {
    QXLOG(QXLOG_ERROR, tag) << "Error: Malformed or corrupt response header encountered. Field ["
                            << field << ":"
                            << "] was not delimited by a ':' in the response header.";
    return QX_ERR_HEADER_FIELD;
  }
  size_t start = text.find_first_not_of(" \t\v\f", colon + 1);
  size_t ws = start == std::string::npos ? std::string::npos : text.find_first_of(" \r\n", start);
  if (ws == std::string::npos) {
    QXLOG(QXLOG_ERROR, tag) << "Error: Malformed or corrupt response header encountered. Field ["
                            << field << ":"
                            << "] value was not delimited by a whitespace in the response header.";
    return QX_ERR_HEADER_FIELD;
  }
  size_t quote = text.find('"', start);
  if (quote == std::string::npos || quote > ws) {
    value = text.substr(start, ws - start);
  } else {
    size_t close = text.find('"', quote + 1);
    if (close == std::string::npos) {
      QXLOG(QXLOG_ERROR, tag)
          << "Error: Malformed or corrupt response header encountered. Field [" << field << ":"
          << "] value does not have corresponding double quote in the response header.";
      return QX_ERR_BAD_RESPONSE;
    }
    value = text.substr(quote + 1, close - quote - 1);
  }
  QXLOG(QXLOG_PROGRESS, tag) << "Field = [" << field << "] | Value = [" << value << "].";
  return 0;
}

int QXClientCURL::getRequestTypeFromUrlPath(const std::string& path) {
  const char* tag = "QXClientCURL::getRequestTypeFromUrlPath";
  static const char* const kCaCertUri = "arvion/security/cacert";
  QXLOG(QXLOG_PROGRESS, tag) << "URL path = " << path;
  QXLOG(QXLOG_PROGRESS, tag) << "uri = " << path;
  QXLOG(QXLOG_PROGRESS, tag) << "uri_getcacert = " << kCaCertUri;
  int type = strcasecmp(path.c_str(), kCaCertUri) == 0 ? 1 : 2;
  QXLOG(QXLOG_PROGRESS, tag) << "Request type of url = " << type;
  return type;
}

int QXClientCURL::getServerAPIVersion(std::string& version) {
  const char* tag = "QXClientCURL::getServerAPIVersion";
  std::string accept, contentType;
  bool hadAccept = getHTTPRequestHeader("Accept: ", accept) == 0;
  bool hadContentType = getHTTPRequestHeader("Content-Type: ", contentType) == 0;
  addHeaderField("Accept: ", "text/plain");
  int rc = Get(PING_URI);
  if (hadAccept) {
    addHeaderField("Accept: ", accept);
  } else {
    deleteHeaderField("Accept: ");
  }
  if (hadContentType) addHeaderField("Content-Type: ", contentType);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "GET operation for ping failed";
    return rc;
  }
  rc = getHttpHeaderField(QX_API_VERSION_HEADER_STR, version);
  if (rc != 0) {
    QXLOG(QXLOG_PROGRESS, tag) << "No Version header is found which indicates that the master "
                                  "version is less than 8.1.2";
    return rc;
  }
  QXLOG(QXLOG_PROGRESS, tag) << "Successfully retrieved the API version [" << version << "]";
  return 0;
}

int QXClientCURL::setClientRequestHeaderAsPerServerVersion() {
  const char* tag = "QXClientCURL::setClientRequestHeaderAsPerServerVersion";
  QXClientCURL* probe = nullptr;
  try {
    // The probe borrows this client's token manager only to avoid building
    // one: an insecure session never asks it for a token.
    probe = new QXClientCURL(m_server, m_port, m_certType, QXCURL_INSECURE, m_tokenManager,
                             m_installPath, m_tunnelAllowed, m_routeOnServer, false, m_caType,
                             m_trustStorePath, m_keyPath, m_certPath, m_passphrase, m_crlPath,
                             m_skipPKIInfo, false, m_locale, m_reserved);
  } catch (int status) {
    QXLOG(QXLOG_ERROR, tag) << "Unable to connect to server";
    return status;
  }
  probe->m_versionProbe = true;
  probe->m_server_url = m_server_url;
  probe->m_connectionTimeout = m_connectionTimeout;
  probe->setSkipPeerVerification();
  std::string version;
  int rc = probe->getServerAPIVersion(version);
  delete probe;
  // 227 and 7610 come from the header lookup: the server answered, without a
  // usable version.
  if (rc == QX_ERR_HEADER_FIELD || rc == QX_ERR_BAD_RESPONSE) {
    QXLOG(QXLOG_PROGRESS, tag)
        << "Unable to find version header. Setting request header with default media type: "
        << QX_DEFAULT_MEDIA_TYPE;
    addHeaderField("Accept: ", QX_DEFAULT_MEDIA_TYPE);
    addHeaderField("Content-Type: ", QX_DEFAULT_MEDIA_TYPE);
    return 0;
  }
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Unable to connect to server";
    return rc;
  }
  std::string chosen =
      compare_api_version(version.c_str(), MAX_VERSION.c_str()) < 0 ? version : MAX_VERSION;
  QXLOG(QXLOG_PROGRESS, tag) << "Minimum of the two version is " << chosen;
  return setJsonMediaTypeAPIVersion(chosen);
}

int QXClientCURL::setJsonMediaTypeAPIVersion(const std::string& version) {
  // The version may come from a response header: never let it end the
  // request header line.
  if (version.find_first_of(std::string("\r\n\0", 3)) != std::string::npos) {
    QXLOG(QXLOG_ERROR, "QXClientCURL::setJsonMediaTypeAPIVersion")
        << "API version holds a line break; ignored";
    return QX_ERR_BAD_ARGUMENT;
  }
  std::string mediaType = QX_MEDIA_TYPE_JSON + ";version=" + version;
  int rc = addHeaderField("Accept: ", mediaType);
  if (rc == 0) rc = addHeaderField("Content-Type: ", mediaType);
  m_clientId = QX_HEADER_X_CLIENT_ID_VALUE + "-" + get_exe_basename() + "-" +
               std::to_string(static_cast<long>(getpid()));
  if (rc == 0) rc = addHeaderField(QX_HEADER_X_CLIENT_ID, m_clientId);
  return rc;
}

int QXClientCURL::getCacheTTLFromAPIHeader() {
  if (m_mockTTL) return m_mockTTLValue;
  std::string value;
  if (getHttpHeaderField("X-Cache-Validity", value) != 0) return 0;
  long ttl = std::strtol(value.c_str(), nullptr, 10);
  // Out-of-range values saturate rather than wrap into another meaning (-1).
  if (ttl > INT_MAX) return INT_MAX;
  if (ttl < INT_MIN) return INT_MIN;
  return static_cast<int>(ttl);
}
