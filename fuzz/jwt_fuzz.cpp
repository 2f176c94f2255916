// Token masking, version comparison and status texts over arbitrary text.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/qx_util.h"
#include "qxcurl/qx_status.h"

namespace {
int sign(int v) { return (v > 0) - (v < 0); }
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);

  std::string masked = mask_jwt(text);
  if (masked.size() > text.size()) std::abort();
  if (mask_jwt(masked) != masked) std::abort();  // nothing token-like survives

  size_t cut = text.find('\n');
  std::string a = text.substr(0, cut);
  std::string b = cut == std::string::npos ? std::string() : text.substr(cut + 1);
  a = a.c_str();  // the comparison takes C strings
  b = b.c_str();
  int ab = compare_api_version(a.c_str(), b.c_str());
  if (sign(ab) != -sign(compare_api_version(b.c_str(), a.c_str()))) std::abort();
  if (compare_api_version(a.c_str(), a.c_str()) != 0) std::abort();

  int status = 0;
  std::memcpy(&status, text.data(), size < sizeof status ? size : sizeof status);
  if (getECmsg(status) == nullptr) std::abort();
  std::string t = trim(text);
  if (trim(t) != t) std::abort();
  return 0;
}
