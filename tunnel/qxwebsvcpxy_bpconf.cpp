#include "qxwebsvcpxy_bpconf.h"

#include <strings.h>

#include <memory>

#include "qx_config.h"
#include "qx_log.h"

namespace {

// Every reader: fetch the record, copy out what it needs, release it. A
// failed fetch is logged under the reader's tag and leaves the outputs alone.
template <class Copy>
int readWebsvcRecord(const char* tag, Copy copy) {
  qxconf_info* info = nullptr;
  int rc = qxconf_get_info(&info);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Cannot access master configuration."
                            << "\n";
    return rc;
  }
  std::unique_ptr<qxconf_info*, void (*)(qxconf_info**)> release(&info, qxconf_free_info);
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
