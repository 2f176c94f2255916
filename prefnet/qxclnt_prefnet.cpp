#include "prefnet/qxclnt_prefnet.h"

#include "qx_log.h"

namespace {
constexpr int WN_STATUS_SUCCESS = 0;
constexpr int WN_STATUS_BAD_PARAM = 2;
constexpr long DEFAULT_CONNECT_TIMEOUT = 40;
}  // namespace

qxclnt_curl_prefnet::qxclnt_curl_prefnet(const std::string& host, unsigned int port,
                                         long timeoutSeconds)
    : m_host(host),
      m_port(port),
      m_timeout(timeoutSeconds < 0 ? DEFAULT_CONNECT_TIMEOUT : timeoutSeconds) {
  if (host.empty()) {
    QXLOG(QXLOG_OPTION, "qxclnt_curl_prefnet::qxclnt_curl_prefnet")
        << "Invalid hostname; throwing WN_STATUS_BAD_PARAM.";
    throw WN_STATUS_BAD_PARAM;
  }
}

qxclnt_curl_prefnet::~qxclnt_curl_prefnet() = default;

int qxclnt_curl_prefnet::update_connect_param(const std::string& host) {
  if (host.empty() || m_state != 0) return WN_STATUS_BAD_PARAM;
  m_host = host;
  return WN_STATUS_SUCCESS;
}

bool qxclnt_curl_prefnet::update_connect_param(long seconds) {
  m_timeout = seconds < 1 ? DEFAULT_CONNECT_TIMEOUT : seconds;
  return false;
}

int qxclnt_curl_prefnet::reset() {
  // The socket, once handed over, belongs to libcurl: forget it, never close it.
  m_fd = -1;
  m_state = 0;
  return WN_STATUS_SUCCESS;
}

qxclnt_curl_prefnet::operator int() { return m_fd; }

qxclnt_curl_prefnet::operator std::string() { return std::string(); }
