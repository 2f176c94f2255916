#include "platform/qx_root.h"

#include <cstdlib>
#include <cstring>

#include "qxcurl/qx_status.h"

namespace {
const char kProductRoot[] = "/usr/tarvo";

struct RootState {
  uint64_t version = 0;  // this thread's count of changes seen; 0: none yet
  std::string env, root;
};

// Worked out again only when the variable changes; no allocation per call.
const RootState& current() {
  thread_local RootState st;
  const char* now = std::getenv("ARVION_ROOT");
  if (now == nullptr) now = "";
  if (st.version != 0 && st.env == now) return st;
  ++st.version;
  st.env = now;
  if (st.env.empty()) {
    st.root = kProductRoot;
    return st;
  }
  st.root = st.env;
  // "/x/" and "/x" name the same root; keep "/" itself intact.
  while (st.root.size() > 1 && st.root.back() == '/') st.root.pop_back();
  return st;
}
}  // namespace

const std::string& qxInstallRootRef() { return current().root; }

uint64_t qxInstallRootVersion() { return current().version; }

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
