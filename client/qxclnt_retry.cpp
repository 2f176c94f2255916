#include "client/qxclnt_retry.h"

#include <curl/curl.h>

#include "platform/qx_log.h"
#include "qxcurl/qx_status.h"

namespace qxretry {

namespace {

// The rules, in the order they are consulted. Each either decides or hands
// the attempt on to the rule it names; read top to bottom they are the table.
class Rules {
 public:
  Rules(const Attempt& a, const std::function<bool()>& rightMaster, const char* tag)
      : m_status(a.status),
        m_curl(a.curlError),
        m_http(a.httpCode),
        m_tunnel(a.tunnelUsed),
        m_rightMaster(rightMaster),
        m_tag(tag) {}

  int decide() {
    if (m_http == 503) return m_tunnel ? RETRY_TUNNEL : RETRY_DIRECT;
    if (m_curl == CURLE_SSL_CONNECT_ERROR) return tlsConnectFailed();
    if (m_http == 400) return STOP;
    if (m_curl == CURLE_COULDNT_CONNECT) return couldNotConnect();
    if (m_http == 200) return peerVerification();
    return gatewayFailure();
  }

 private:
  bool gateway() const { return m_http == 502 || m_http == 504; }

  // The TLS handshake failed: directly, that is the end; behind a tunnel that
  // answered 200 the host behind it may be down.
  int tlsConnectFailed() {
    if (!m_tunnel && m_status == QX_ERR_TLS_CONNECT) return STOP;
    if (m_http == 400) return STOP;
    if (m_http == 200) return tunnelOpenedHandshakeFailed();
    return gatewayFailure();
  }

  int couldNotConnect() {
    if (!m_tunnel && m_status == QX_ERR_CONNECT) return NEXT_SILENT;
    return peerVerification();
  }

  int tunnelOpenedHandshakeFailed() {
    if (m_status == QX_ERR_TLS_CONNECT && m_tunnel) {
      if (m_rightMaster()) {
        QXLOG(QXLOG_PROGRESS, m_tag) << "QbPBX/QXU on host is down.";
        return RETRY_TUNNEL;
      }
      QXLOG(QXLOG_PROGRESS, m_tag)
          << "QbPBX/QXU on host is down; but it's possibly a wrong Master server.";
      return NEXT_TUNNEL;
    }
    return receiveOrConnectFailed();
  }

  // The tunnel answered 502 or 504 and the transfer failed to receive.
  int gatewayFailure() {
    if (!gateway()) return peerVerification();
    if (m_curl != CURLE_RECV_ERROR) return peerVerification();
    if (m_status == QX_ERR_RECEIVE && m_tunnel) {
      if (m_rightMaster()) {
        QXLOG(QXLOG_PROGRESS, m_tag) << "Host is down. m_httpCode = " << m_http;
        return STOP;
      }
      QXLOG(QXLOG_PROGRESS, m_tag)
          << "Host is down; but it's possibly a wrong Master server. m_httpCode = " << m_http;
      return NEXT_TUNNEL;
    }
    return receiveOrConnectFailed();
  }

  int peerVerification() {
    if (m_curl != CURLE_PEER_FAILED_VERIFICATION) return receiveOrConnectFailed();
    if (m_tunnel && m_status == QX_ERR_UNKNOWN_ISSUER) return NEXT_TUNNEL;
    return nameOrProxy();
  }

  int receiveOrConnectFailed() {
    if (!gateway() && m_curl == CURLE_RECV_ERROR) {
      if (m_status == QX_ERR_RECEIVE && m_tunnel) {
        QXLOG(QXLOG_PROGRESS, m_tag) << "Tunnel is down. m_httpCode = " << m_http;
        return NEXT_TUNNEL;
      }
      return nameOrProxy();
    }
    if (m_curl == CURLE_COULDNT_CONNECT) {
      if (m_tunnel && m_status == QX_ERR_CONNECT) return NEXT_TUNNEL;
      if (m_status == QX_ERR_HOST_MISMATCH) return m_tunnel ? NEXT_TUNNEL : STOP;
      return STOP;
    }
    return nameOrProxy();
  }

  int nameOrProxy() {
    if (m_status == QX_ERR_HOST_MISMATCH) return m_tunnel ? NEXT_TUNNEL : STOP;
    if (m_curl == CURLE_COULDNT_RESOLVE_PROXY && m_tunnel && m_status == QX_ERR_CURL_OTHER)
      return NEXT_TUNNEL;
    return STOP;
  }

  const int m_status;
  const int m_curl;
  const int64_t m_http;
  const bool m_tunnel;
  const std::function<bool()>& m_rightMaster;
  const char* m_tag;
};

}  // namespace

int decideNextAction(const Attempt& attempt, const std::function<bool()>& rightMaster,
                     const char* tag) {
  QXLOG(QXLOG_PROGRESS, tag) << "qxErrorCode = " << attempt.status
                             << " | curl error = " << attempt.curlError
                             << " | m_httpCode = " << attempt.httpCode
                             << " | tunnelUsed = " << attempt.tunnelUsed;
  int action = Rules(attempt, rightMaster, tag).decide();
  QXLOG(QXLOG_PROGRESS, tag) << "Recommended next action = " << action;
  return action;
}

Plan plan(int seconds) {
  if (seconds <= 0) return Plan{0, 0, 0};
  // At most ten retries; short windows retry every five seconds.
  if (seconds / 5 > 10) return Plan{10, seconds / 10, seconds % 10};
  return Plan{seconds / 5, 5, seconds % 5};
}

std::vector<int> randomGaps(int count, int interval, const std::function<int()>& rnd) {
  std::vector<int> gaps;
  if (interval <= 0 || count <= 0) return gaps;
  gaps.reserve(static_cast<size_t>(count));
  int previous = 0;
  for (int i = 0; i < count; ++i) {
    int moment = 1 + i * interval + rnd() % interval;
    gaps.push_back(moment - previous);
    previous = moment;
  }
  return gaps;
}

}  // namespace qxretry
