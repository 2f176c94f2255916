// QXWebsvcTunnelRouter: whether HTTP tunnels are used to reach a master and
// which tunnel servers to try, one batch of candidates per call; the tunnels
// that worked are remembered in memory and in the host's shared cache file.
// Each client owns one; statuses are 0 or the failing step's status (142 no
// install directory, 158 lock not taken, 13 file not trusted, 14 not written).
//
//   QXWebsvcTunnelRouter r;
//   std::string master = "master1";
//   std::list<std::string> batch = r.getWebsvcTunnelServers(master);
//   r.updateWebsvcTunnelServersCache(master, batch.front());  // it worked
#ifndef QXCURL_WEBSVC_TUNNEL_ROUTER_H
#define QXCURL_WEBSVC_TUNNEL_ROUTER_H
#include <list>
#include <string>

#include "qxcurl/qxcurl_export.h"

// Decides whether HTTP tunnels are used to reach a master server's web
// service, and which tunnel servers to try, one batch per call. An empty
// name in a batch means a direct connection.
//
// Sources, in order: the tunnel that last worked (memory), the
// administrator's overrides, the host's tunnel cache file, the direct
// connection, the SERVER and media server lists; a caller's additional
// servers replace the configuration sources. The cache file
// "websvctunnels.cache" (lock "websvctunnels.lck") is shared by every process
// of the host: one "master = tunnel" entry per line.
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
  // True when something that a cache reader would open is at path (a
  // symbolic link counts, so that the reader refuses it and says why).
  static bool fileExists(std::string& path);

  // Test seam: the fallback directory used instead of "/tmp" (null restores it).
  static void T_setFallbackDir(const char* dir);

  int m_tunnelUse = 0;
  int m_lookupState = 0;
  std::list<std::string> m_additionalServers;
  bool m_hasAdditionalServers = false;
  std::string m_lastTunnel;
  // useHttpTunnel's answer for one configuration version (0: none kept).
  unsigned long long m_decidedConfig = 0;
  int m_decidedUse = 0;
  bool m_decidedServer = false;
};

// One line of the cache file: false for an empty or malformed line.
QX_API bool parse_cache_line(std::string line, std::string& key, std::string& value);
// Path of the cache file (or of its lock file). allowTmp lets a missing or
// read-only install directory fall back to "/tmp"; without it that is 142.
QX_API int getCacheFilePath(std::string& path, bool lockFile, bool allowTmp);
QX_API int get_cache_file_names(std::string& cacheFile, std::string& lockFile, bool allowTmp);
#endif  // QXCURL_WEBSVC_TUNNEL_ROUTER_H
