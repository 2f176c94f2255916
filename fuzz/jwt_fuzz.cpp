// Token masking, version comparison and status texts over arbitrary text.
#include <cstdint>
#include <cstring>
#include <string>

#include "platform/qx_util.h"
#include "qxcurl/qx_status.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  mask_jwt(text);
  const size_t cut = text.find('\n');
  const std::string a = text.substr(0, cut);
  const std::string b = cut == std::string::npos ? std::string() : text.substr(cut + 1);
  compare_api_version(a.c_str(), b.c_str());  // C strings: stops at a NUL
  int status = 0;
  std::memcpy(&status, text.data(), size < sizeof status ? size : sizeof status);
  getECmsg(status);
  trim(text);
  return 0;
}
