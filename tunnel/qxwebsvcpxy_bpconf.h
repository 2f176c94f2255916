// Readers of the web-service settings of the master configuration: the
// server and media server lists, tunnel use, tunnel switch, web server
// connection time-out and the administrator's tunnel overrides.
#ifndef QXCURL_TUNNEL_QXWEBSVCPXY_BPCONF_H
#define QXCURL_TUNNEL_QXWEBSVCPXY_BPCONF_H
#include <list>
#include <ostream>
#include <string>

// Each returns 0, or the configuration service's status (outputs untouched).
int getServersListFromConfig(std::list<std::string>& servers, bool media);
int getTunnelUse(int& tunnelUse);
int getWebServerConnectionTimeout(int& seconds);
int getTunnelEnabled(int& enabled);
// Appends the override tunnels of master (host compared ignoring case).
int getTunnelOverrides(std::string& master, std::list<std::string>& tunnels);

// Appends the media servers not yet in servers (ignoring case); an empty
// server list becomes a copy of the media list.
void addMediaServersToServers(std::list<std::string>& servers,
                              std::list<std::string>& mediaServers);

// "a, b, " for log messages.
std::ostream& operator<<(std::ostream& os, const std::list<std::string>& names);
#endif  // QXCURL_TUNNEL_QXWEBSVCPXY_BPCONF_H
