#include "qxcurl/websvc_tunnel_iterator.h"

#include <list>
#include <utility>

#include "platform/qx_log.h"
#include "qxcurl/websvc_tunnel_router.h"

QXWebsvcTunnelIterator::QXWebsvcTunnelIterator(QXWebsvcTunnelRouter& router, std::string master)
    : m_position(-1), m_router(router), m_master(std::move(master)) {
  init();
}

void QXWebsvcTunnelIterator::init() {
  const char* tag = "QXWebsvcTunnelIterator::init";
  m_position = -1;
  m_router.resetState();
  if (!m_router.useHttpTunnel()) {
    QXLOG(QXLOG_PROGRESS, tag) << "useTunnel is set to false";
    return;
  }
  QXLOG(QXLOG_PROGRESS, tag) << "useTunnel is set to true";
  fetchTunnels();
}

void QXWebsvcTunnelIterator::reset() { init(); }

void QXWebsvcTunnelIterator::setMasterServer(std::string master) {
  QXLOG(QXLOG_PROGRESS, "QXWebsvcTunnelIterator::setMasterServer") << "server is set to " << master;
  m_master = std::move(master);
}

void QXWebsvcTunnelIterator::fetchTunnels() {
  m_tunnels.clear();
  if (m_master.empty()) return;
  QXLOG(QXLOG_PROGRESS, "QXWebsvcTunnelIterator::fetchTunnels")
      << "Querying client router for a list of tunnels";
  std::list<std::string> batch = m_router.getWebsvcTunnelServers(m_master);
  m_tunnels.assign(batch.begin(), batch.end());
  m_position = 0;
}

bool QXWebsvcTunnelIterator::hasNext() {
  if (m_position == -1 || m_tunnels.empty()) {
    QXLOG(QXLOG_PROGRESS, "QXWebsvcTunnelIterator::hasNext")
        << "Tunnel not initialized or list empty";
    return false;
  }
  return m_position < static_cast<int>(m_tunnels.size());
}

std::string QXWebsvcTunnelIterator::next() {
  const std::string& candidate = m_tunnels[static_cast<size_t>(m_position)];
  QXLOG(QXLOG_PROGRESS, "QXWebsvcTunnelIterator::next") << "Next tunnel is [" << candidate << "]";
  ++m_position;
  return candidate;
}
