// PREFERRED_NETWORK rule parser and matcher over arbitrary rule lines.
#include <cstdint>
#include <string>
#include <vector>

#include "platform/qx_wnet.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> lines;
  for (size_t pos = 0; pos <= text.size();) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(pos, end - pos));
    pos = end + 1;
  }
  auto set = wnet_parse_pref_rules(lines);
  static const std::vector<WnetIface> ifaces = [] {
    std::vector<WnetIface> v(2);
    wnet_parse_addr("10.0.0.7", v[0].addr);
    v[0].prefix = 24;
    wnet_parse_addr("fd00::7", v[1].addr);
    v[1].prefix = 64;
    return v;
  }();
  // The lines themselves as remote addresses, and a few fixed ones.
  std::vector<std::string> remotes = {"10.0.0.1", "127.0.0.1", "::1", "fd00::1"};
  for (const std::string& l : lines) remotes.push_back(l.substr(0, l.find(' ')));
  for (const std::string& r : remotes) {
    WnetAddr a;
    if (wnet_parse_addr(r, a)) wnet_decide(*set, a, ifaces);
  }
  return 0;
}
