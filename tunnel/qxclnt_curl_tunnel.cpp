// The client's HTTP tunnels: proxy options, the tunnel road of
// performOperation, and the check that a tunnel led to the intended master.
#include <strings.h>

#include <list>
#include <string>

#include "client/qxclnt_curl_option.h"
#include "client/qxclnt_retry.h"
#include "platform/qx_certmap.h"
#include "platform/qx_log.h"
#include "qxcurl/qx_status.h"
#include "qxcurl/qxclnt_curl.h"
#include "qxcurl/websvc_tunnel_router.h"

namespace {

const char* const kTunnelPort = "1556";
// The router's lookup ends after a handful of batches; only a tunnel-use
// setting that keeps changing during the operation could make it go on.
constexpr int kMaxLookupPasses = 32;

}  // namespace

using qxretry::NEXT_SILENT;
using qxretry::NEXT_TUNNEL;
using qxretry::RETRY_DIRECT;
using qxretry::RETRY_TUNNEL;
using qxretry::STOP;

bool QXClientCURL::isHttpTunnelAllowed() {
  QXLOG(QXLOG_PROGRESS, "QXClientCURL::isHttpTunnelAllowed")
      << "isHttpTunnelAllowed = [" << m_tunnelAllowed << "]";
  return m_tunnelAllowed;
}

int QXClientCURL::enableHttpTunnelUse() {
  QXLOG(QXLOG_PROGRESS, "QXClientCURL::enableHttpTunnelUse") << "Enabling use of Http Tunnel...";
  m_tunnelAllowed = true;
  return 1;
}

int QXClientCURL::disableHttpTunnelUse() {
  QXLOG(QXLOG_PROGRESS, "QXClientCURL::disableHttpTunnelUse") << "Disabling use of Http Tunnel...";
  m_tunnelAllowed = false;
  return 1;
}

int QXClientCURL::setAdditionalTunnelServers(std::list<std::string>& servers) {
  return m_tunnelRouter ? m_tunnelRouter->setAdditionalTunnelServers(servers) : QX_ERR_NO_MEMORY;
}

int QXClientCURL::enableTunnelOptions(std::string tunnel) {
  const char* tag = "QXClientCURL::enableTunnelOptions";
  std::string proxy = tunnel + ":" + kTunnelPort;
  m_tunnelName = tunnel;
  QXLOG(QXLOG_PROGRESS, tag) << "Setting proxy = [" << proxy << "] to be used as HTTP tunnel";
  int rc = qxSetCurlOption(*this, CURLOPT_PROXY, proxy.c_str(), "CURLOPT_PROXY", QXLOG_OPTION, tag);
  QXLOG(QXLOG_PROGRESS, tag)
      << "Setting --proxytunnel to 1 to use the specified proxy as HTTP tunnel";
  int rc2 = qxSetCurlOption(*this, CURLOPT_HTTPPROXYTUNNEL, 1L, "CURLOPT_HTTPPROXYTUNNEL",
                            QXLOG_OPTION, tag);
  return rc != 0 ? rc : rc2;
}

int QXClientCURL::disableTunnelOptions() {
  const char* tag = "disableTunnelOptions";
  m_tunnelName = m_server;
  QXLOG(QXLOG_PROGRESS, tag) << "Disabling any --proxy option previously set.";
  // The empty string switches an explicit proxy off (null would let the
  // environment's proxy variables apply).
  int rc = qxSetCurlOption(*this, CURLOPT_PROXY, "", "CURLOPT_PROXY", QXLOG_OPTION, tag);
  QXLOG(QXLOG_PROGRESS, tag) << "Disabling any --proxytunnel option previously set.";
  int rc2 = qxSetCurlOption(*this, CURLOPT_HTTPPROXYTUNNEL, 0L, "CURLOPT_HTTPPROXYTUNNEL",
                            QXLOG_OPTION, tag);
  return rc != 0 ? rc : rc2;
}

int QXClientCURL::setorResetTunnelOptions(std::string tunnel) {
  if (!tunnel.empty()) return enableTunnelOptions(tunnel);
  QXLOG(QXLOG_PROGRESS, "QXClientCURL::setorResetTunnelOptions")
      << "Empty tunnel entry encountered. Will try a direct connection to the Master server.";
  return disableTunnelOptions();
}

bool QXClientCURL::isTunnelAlreadyTried(std::string tunnel) {
  for (const std::string& tried : m_triedTunnels) {
    if (strcasecmp(tried.c_str(), tunnel.c_str()) == 0) {
      QXLOG(QXLOG_PROGRESS, "QXClientCURL::isTunnelAlreadyTried")
          << "Tunnel [" << tunnel << "] has already been tried before.";
      return true;
    }
  }
  return false;
}

int QXClientCURL::getMasterHostUuid(const std::string& master, std::string& uuid) {
  const char* tag = "QXClientCURL::getMasterHostUuid";
  if (master.empty()) {
    QXLOG(QXLOG_ERROR, tag) << "Invalid argument: Master server name is not specified.";
    return QX_ERR_BAD_ARGUMENT;
  }
  uuid.clear();
  certInfo* list = nullptr;
  int rc = getAllCertInfoByType(1, &list);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag)
        << "Failed to read certificate information from certificate mapping file. Error:" << rc;
  } else {
    const certInfo* record = getTargetMasterCert(list, master.c_str());
    if (record == nullptr) {
      QXLOG(QXLOG_ERROR, tag) << "Failed to find a certificate for the target Master server.";
    } else {
      uuid = record->hostUuid;
    }
  }
  freeCertInfoList(&list);
  return rc;
}

bool QXClientCURL::isTunnelConnectedToRightMaster() {
  std::string name, id, uuid;
  getHttpHeaderField("X-Target-Master", name);
  getHttpHeaderField("X-Target-Master-ID", id);
  getMasterHostUuid(m_server, uuid);
  QXLOG(QXLOG_PROGRESS, "QXClientCURL::isTunnelConnectedToRightMaster")
      << "From local certificate, Master Server's UUID = {" << uuid << "}.";
  if (!id.empty() && !uuid.empty()) return strcasecmp(id.c_str(), uuid.c_str()) == 0;
  if (!name.empty() && !m_server.empty()) return strcasecmp(name.c_str(), m_server.c_str()) == 0;
  return false;
}

int QXClientCURL::performThroughTunnels() {
  const char* tag = "QXClientCURL::performOperation";
  QXLOG(QXLOG_PROGRESS, tag) << "Configuration suggests use of tunnel.";
  QXLOG(QXLOG_PROGRESS, tag) << "Looking up tunnels for master server [" << m_server << "].";
  m_tunnelRouter->resetState();
  if (m_connectionTimeout == 0) {
    m_connectionTimeout = m_tunnelRouter->getWebServerConnectTimeout();
    if (m_connectionTimeout == 0) m_connectionTimeout = qxretry::kDefaultWindowSec;
  }
  // What the caller gets when the router offers nothing to try.
  int status = QX_ERR_CONNECT;
  bool done = false;
  for (int pass = 0; !done; ++pass) {
    if (pass == kMaxLookupPasses) {
      QXLOG(QXLOG_ERROR, tag) << "Tunnel lookup did not end after [" << pass
                              << "] lists of tunnels. Exiting...";
      break;
    }
    QXLOG(QXLOG_PROGRESS, tag) << "Querying client router for a list of tunnels.";
    std::list<std::string> candidates = m_tunnelRouter->getWebsvcTunnelServers(m_server);
    QXLOG(QXLOG_PROGRESS, tag) << "Received a list of potential tunnels.";
    if (candidates.empty()) {
      QXLOG(QXLOG_PROGRESS, tag) << "Router returned 0 suggestions for tunnel. Exiting...";
      break;
    }
    for (const std::string& candidate : candidates) {
      if (!m_retrying) m_connection_start_time = T_time();
      const bool tunnelled = !candidate.empty();
      if (tunnelled && isTunnelAlreadyTried(candidate)) continue;
      // An option that cannot be set is logged; the attempt goes ahead.
      setorResetTunnelOptions(candidate);
      if (tunnelled) m_triedTunnels.push_back(candidate);
      m_tunnelUsed = candidate;

      bool nextCandidate = false;
      while (!nextCandidate && !done) {
        status = performCurlOperation();
        if (status == 0) {
          std::string tunnel = candidate;
          if (tunnelled) {
            m_tunnelRouter->updateWebsvcTunnelServersCache(m_server, tunnel);
          } else {
            m_tunnelRouter->resetWebsvcTunnelServersCache(m_server);
          }
          done = true;
          break;
        }
        switch (decideNextConnectRetryAction(status, tunnelled)) {
          case NEXT_TUNNEL:
            QXLOG(QXLOG_PROGRESS, tag) << "NEXT action: Trying the next tunnel.";
            nextCandidate = true;
            break;
          case NEXT_SILENT:
            nextCandidate = true;
            break;
          case RETRY_DIRECT:
            QXLOG(QXLOG_PROGRESS, tag) << "NEXT action: Retrying the connection.";
            if (!retryUnderWindow()) done = true;
            break;
          case RETRY_TUNNEL:
            if (!retryUnderWindow()) done = true;
            break;
          default:
            done = true;
            break;
        }
      }
      if (done) break;
    }
  }
  disableTunnelOptions();
  return status;
}
