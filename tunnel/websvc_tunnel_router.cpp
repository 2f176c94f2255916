#include "websvc_tunnel_router.h"

#include <cstdio>

#include "qx_config.h"
#include "qx_log.h"
#include "qx_wnet.h"

namespace {
constexpr int LOOKUP_EXHAUSTED = 7;
const char* const ADDITIONAL_SERVERS_MSG =
    "Additional servers specified by caller. Hence treating this as a special case and skipping "
    "reading QXU configuration.";

// Reads one member of the web-service configuration record.
int readWebsvcConfig(int qxconf_info::*member, int& value) {
  qxconf_info* info = nullptr;
  int rc = qxconf_get_info(&info);
  if (rc != 0) return rc;
  value = info->*member;
  qxconf_free_info(&info);
  return 0;
}
}  // namespace

QXWebsvcTunnelRouter::QXWebsvcTunnelRouter() = default;

QXWebsvcTunnelRouter::~QXWebsvcTunnelRouter() {
  m_additionalServers.clear();
  m_lastTunnel.clear();
}

int QXWebsvcTunnelRouter::setAdditionalTunnelServers(const std::list<std::string>& servers) {
  if (servers.empty()) return 0;
  m_additionalServers = servers;
  m_hasAdditionalServers = true;
  return 0;
}

int QXWebsvcTunnelRouter::readConfig() {
  int use = 0;
  int rc = readWebsvcConfig(&qxconf_info::tunnel_use, use);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, "QXWebsvcTunnelRouter::readConfig")
        << "Master config read failed with error: " << rc;
    return 0;
  }
  if (use != m_tunnelUse) {
    m_tunnelUse = use;
    m_lookupState = 0;
  }
  return 0;
}

void QXWebsvcTunnelRouter::resetState() {
  QXLOG(QXLOG_PROGRESS, "QXWebsvcTunnelRouter::resetState")
      << "Tunnel Router's current state = [" << m_lookupState << "].";
  m_lookupState = 0;
  QXLOG(QXLOG_PROGRESS, "QXWebsvcTunnelRouter::resetState")
      << "Tunnel Router's state reset to [" << m_lookupState << "].";
}

bool QXWebsvcTunnelRouter::useHttpTunnel() {
  if (wnet_is_server("localhost")) return false;
  if (m_hasAdditionalServers) {
    QXLOG(QXLOG_PROGRESS, "QXWebsvcTunnelRouter::useHttpTunnel") << ADDITIONAL_SERVERS_MSG;
    return true;
  }
  int use = 0;
  int rc = readWebsvcConfig(&qxconf_info::tunnel_use, use);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, "QXWebsvcTunnelRouter::useHttpTunnel")
        << "Master config read failed with error: " << rc;
    return false;
  }
  m_tunnelUse = use;
  return use == 0 || use == 1;
}

int QXWebsvcTunnelRouter::getWebServerConnectTimeout() {
  if (wnet_is_server("localhost")) return 0;
  if (m_hasAdditionalServers) {
    QXLOG(QXLOG_PROGRESS, "QXWebsvcTunnelRouter::getWebServerConnectTimeout")
        << ADDITIONAL_SERVERS_MSG;
    return 0;
  }
  int seconds = 0;
  int rc = readWebsvcConfig(&qxconf_info::websvr_connect_timeout, seconds);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, "QXWebsvcTunnelRouter::getWebServerConnectTimeout")
        << "Master config read failed with error: " << rc;
    return 0;
  }
  return seconds;
}

// Direct connection only until the tunnel lookup sources are in place: one
// batch holding the direct entry, then the exhausted state, so that a caller
// asking for the next batch stops instead of trying the same one forever.
std::list<std::string> QXWebsvcTunnelRouter::getWebsvcTunnelServers(std::string& /*master*/) {
  if (m_lookupState == LOOKUP_EXHAUSTED) return std::list<std::string>();
  m_lookupState = LOOKUP_EXHAUSTED;
  QXLOG(QXLOG_PROGRESS, "QXWebsvcTunnelRouter::getWebsvcTunnelServers")
      << "Returning [0] tunnel servers. Will try to directly connect to the Web service.";
  return std::list<std::string>(1, std::string());
}

int QXWebsvcTunnelRouter::getTunnelsFromCache(std::string& /*master*/,
                                              std::list<std::string>& /*tunnels*/) {
  return 0;
}

bool QXWebsvcTunnelRouter::isTunnelServerCached(std::string& /*master*/, std::string& /*tunnel*/) {
  return false;
}

int QXWebsvcTunnelRouter::addTunnelServerToCache(std::string& /*master*/, std::string& /*tunnel*/) {
  return 0;
}

void QXWebsvcTunnelRouter::updateWebsvcTunnelServersCache(std::string& /*master*/,
                                                          std::string& tunnel) {
  m_lastTunnel = tunnel;
}

int QXWebsvcTunnelRouter::resetWebsvcTunnelServersCache(const std::string& /*master*/) { return 0; }

bool QXWebsvcTunnelRouter::fileExists(std::string& path) {
  FILE* f = std::fopen(path.c_str(), "r");
  if (f == nullptr) return false;
  (void)std::fclose(f);  // opened for reading only
  return true;
}
