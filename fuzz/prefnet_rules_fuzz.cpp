// PREFERRED_NETWORK rule parser and matcher over arbitrary rule lines.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/qx_wnet.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> lines;
  for (size_t pos = 0; pos <= text.size();) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(pos, end - pos));
    pos = end + 1;
  }
  auto set = wnet_parse_pref_rules(lines);
  for (const WnetRule& r : set->rules) {
    int bits = r.target.family == AF_INET ? 32 : 128;
    if (r.position < 1 || r.position > static_cast<int>(lines.size())) std::abort();
    if (r.prefix < 0 || r.prefix > bits) std::abort();
    if (r.action == WnetRule::ONLY && r.source.family != r.target.family) std::abort();
  }
  static const std::vector<WnetIface> ifaces = [] {
    std::vector<WnetIface> v(2);
    wnet_parse_addr("10.0.0.7", v[0].addr);
    v[0].prefix = 24;
    wnet_parse_addr("fd00::7", v[1].addr);
    v[1].prefix = 64;
    return v;
  }();
  // The lines themselves as remote addresses, and a few fixed ones.
  std::vector<std::string> remotes = {"10.0.0.1", "127.0.0.1", "::1", "fd00::1", "0.0.0.0"};
  for (const std::string& l : lines) remotes.push_back(l.substr(0, l.find(' ')));
  for (const std::string& text : remotes) {
    WnetAddr a;
    if (!wnet_parse_addr(text, a)) continue;
    WnetPrefDecision d = wnet_decide(*set, a, ifaces);
    if (d.prohibited && d.bind) std::abort();
    if (d.bind && d.local.family != a.family) std::abort();
  }
  return 0;
}
