#include "platform/qx_root.h"

#include <cstdlib>
#include <cstring>

#include "qxcurl/qx_status.h"

namespace {
const char kProductRoot[] = "/usr/tarvo";
}

const std::string& qxInstallRootRef() {
  // Worked out again only when the variable changes; no allocation per call.
  thread_local bool known = false;
  thread_local std::string env, root;
  const char* now = std::getenv("ARVION_ROOT");
  if (now == nullptr) now = "";
  if (known && env == now) return root;
  env = now;
  known = true;
  if (env.empty()) {
    root = kProductRoot;
    return root;
  }
  root = env;
  // "/x/" and "/x" name the same root; keep "/" itself intact.
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  return root;
}

std::string qxInstallRoot() { return qxInstallRootRef(); }

std::string qxRootPath(const std::string& productPath) {
  const size_t n = sizeof(kProductRoot) - 1;
  if (productPath.compare(0, n, kProductRoot) != 0) return productPath;
  if (productPath.size() > n && productPath[n] != '/') return productPath;  // "/usr/tarvox"
  const std::string& root = qxInstallRootRef();
  if (root == "/") return productPath.size() > n ? productPath.substr(n) : "/";
  return root + productPath.substr(n);
}

int getQXInstallDir(char* buf, size_t size) {
  if (buf == nullptr) return QX_ERR_BAD_ARGUMENT;
  std::string dir = qxInstallRoot();
  if (dir.back() != '/') dir += '/';
  if (dir.size() + 1 > size) {
    if (size > 0) buf[0] = '\0';
    return QX_ERR_BAD_ARGUMENT;
  }
  std::memcpy(buf, dir.c_str(), dir.size() + 1);
  return 0;
}
