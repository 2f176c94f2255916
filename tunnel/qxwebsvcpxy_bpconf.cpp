#include "tunnel/qxwebsvcpxy_bpconf.h"

#include <strings.h>

#include <memory>

#include "platform/qx_config.h"
#include "platform/qx_log.h"
#include "qxcurl/qx_status.h"

namespace {

// Every reader: take the record of the current configuration (built once
// per configuration change), copy out what it needs. A failed fetch is
// logged under the reader's tag and leaves the outputs alone.
template <class Copy>
int readWebsvcRecord(const char* tag, Copy copy) {
  int rc = 0;
  std::shared_ptr<const qxconf_info> info = qxconf_current_info(&rc);
  if (!info) {
    QXLOG(QXLOG_ERROR, tag) << "Cannot access master configuration."
                            << "\n";
    return rc != 0 ? rc : QX_ERR_NO_MEMORY;
  }
  copy(*info);
  return 0;
}

}  // namespace

int getServersListFromConfig(std::list<std::string>& servers, bool media) {
  return readWebsvcRecord("getServersListFromConfig()", [&](const qxconf_info& info) {
    for (const qxconf_server_entry* e = media ? info.media_server_list : info.server_list;
         e != nullptr; e = e->next) {
      if (e->name != nullptr) servers.push_back(e->name);
    }
  });
}

int getTunnelUse(int& tunnelUse) {
  return readWebsvcRecord("getTunnelUse()",
                          [&](const qxconf_info& info) { tunnelUse = info.tunnel_use; });
}

int getWebServerConnectionTimeout(int& seconds) {
  return readWebsvcRecord("getWebServerConnectionTimeout()",
                          [&](const qxconf_info& info) { seconds = info.websvr_connect_timeout; });
}

int getTunnelEnabled(int& enabled) {
  return readWebsvcRecord("getTunnelEnabled()",
                          [&](const qxconf_info& info) { enabled = info.tunnel_enabled; });
}

int getTunnelOverrides(std::string& master, std::list<std::string>& tunnels) {
  return readWebsvcRecord("getTunnelOverrides()", [&](const qxconf_info& info) {
    for (const qxconf_tunnel_entry* e = info.tunnel_overrides; e != nullptr; e = e->next) {
      if (e->host == nullptr || e->tunnel == nullptr) continue;
      if (strcasecmp(e->host, master.c_str()) == 0) tunnels.push_back(e->tunnel);
    }
  });
}

void addMediaServersToServers(std::list<std::string>& servers,
                              std::list<std::string>& mediaServers) {
  if (mediaServers.empty()) return;
  if (servers.empty()) {
    servers = mediaServers;
    return;
  }
  for (const std::string& media : mediaServers) {
    bool present = false;
    for (const std::string& s : servers) {
      if (strcasecmp(s.c_str(), media.c_str()) == 0) {
        present = true;
        break;
      }
    }
    if (present) continue;
    servers.push_back(media);
    QXLOG(QXLOG_PROGRESS, "addMediaServersToServers")
        << "Added Media server [" << media << "] to the tunnels' list.";
  }
}

std::ostream& operator<<(std::ostream& os, const std::list<std::string>& names) {
  for (const std::string& n : names) os << n << ", ";
  return os;
}
