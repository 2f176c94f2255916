// Master configuration parser over arbitrary file contents.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "qx_config.h"
#include "qx_util.h"

namespace {

std::string g_root;

void removeRoot() {
  unlink((g_root + "/arvion/arvion.conf").c_str());
  rmdir((g_root + "/arvion").c_str());
  rmdir(g_root.c_str());
}

const std::string& confPath() {
  if (g_root.empty()) {
    // tmpfs when there is one: rewriting a file in place on a disk
    // file system may flush it on every close.
    char shm[] = "/dev/shm/qxconfig-fuzz-XXXXXX";
    char tmp[] = "/tmp/qxconfig-fuzz-XXXXXX";
    char* tmpl = mkdtemp(shm) != nullptr ? shm : mkdtemp(tmp);
    if (tmpl == nullptr) std::abort();
    g_root = tmpl;
    mkdir((g_root + "/arvion").c_str(), 0700);
    setenv("ARVION_ROOT", g_root.c_str(), 1);
    std::atexit(removeRoot);
  }
  static const std::string path = g_root + "/arvion/arvion.conf";
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string& path = confPath();
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);

  if (QX_read_master_config() != 0) return 0;
  QXConfigHandle cfg = get_master_config_ptr();
  for (const char* key : {"SERVER", "MEDIA_SERVER", "CRL_CHECK_LEVEL", "IS_SERVER", "A", ""}) {
    bool b;
    long n;
    std::string v;
    bpconfGetKeyValPairAsBool(cfg, key, &b);
    bpconfGetKeyValueAsInt(cfg, key, &n);
    bpconfGetKeyValue(cfg, key, v);
    for (const std::string& s : bpconfGetKeyValues(cfg, key)) {
      if (trim(s) != s) std::abort();  // values come back trimmed
    }
  }
  qxconf_info* info = nullptr;
  if (qxconf_get_info(&info) == 0) {
    for (auto* e = info->tunnel_overrides; e != nullptr; e = e->next) {
      if (e->host == nullptr || e->tunnel == nullptr || !*e->host || !*e->tunnel) std::abort();
    }
    qxconf_free_info(&info);
  }
  unsigned level = 0;
  if (getCrlCheckLevelFromConfig(&level) == 0 && level > 2) std::abort();
  IsFeatureEnabled_c(1);
  return 0;
}
