#ifndef WEBSVC_TUNNEL_ROUTER_H
#define WEBSVC_TUNNEL_ROUTER_H
#include <list>
#include <string>

#include "qxcurl_export.h"

// Decides whether HTTP tunnels are used to reach a master server's web
// service, and which tunnel servers to try, one batch per call. An empty
// name in a batch means a direct connection.
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions): a value type
class QX_API QXWebsvcTunnelRouter {
 public:
  QXWebsvcTunnelRouter();
  ~QXWebsvcTunnelRouter();

  int setAdditionalTunnelServers(const std::list<std::string>& servers);
  int readConfig();
  void resetState();
  bool useHttpTunnel();
  int getWebServerConnectTimeout();
  std::list<std::string> getWebsvcTunnelServers(std::string& master);
  int getTunnelsFromCache(std::string& master, std::list<std::string>& tunnels);
  bool isTunnelServerCached(std::string& master, std::string& tunnel);
  int addTunnelServerToCache(std::string& master, std::string& tunnel);
  void updateWebsvcTunnelServersCache(std::string& master, std::string& tunnel);
  int resetWebsvcTunnelServersCache(const std::string& master);
  static bool fileExists(std::string& path);

  int m_tunnelUse = 0;
  int m_lookupState = 0;
  std::list<std::string> m_additionalServers;
  bool m_hasAdditionalServers = false;
  std::string m_lastTunnel;
};
#endif
