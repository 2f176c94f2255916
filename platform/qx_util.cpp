#include "platform/qx_util.h"

#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "qxcurl/qx_status.h"

namespace {
// Value of the dotted part at s, advancing past it and its dot. Leading
// digits count ("6a" is 6); a part without them is 0. Saturates.
unsigned long nextVersionPart(const char*& s) {
  unsigned long v = 0;
  bool digits = true;
  for (; *s != '\0' && *s != '.'; ++s) {
    if (digits && std::isdigit(static_cast<unsigned char>(*s))) {
      v = v < ULONG_MAX / 10 ? v * 10 + static_cast<unsigned long>(*s - '0') : ULONG_MAX;
    } else {
      digits = false;
    }
  }
  if (*s == '.') ++s;
  return v;
}
}  // namespace

int compare_api_version(const char* a, const char* b) {
  const char* p = a != nullptr ? a : "";
  const char* q = b != nullptr ? b : "";
  // A missing part counts as 0, so "6" == "6.0".
  while (*p != '\0' || *q != '\0') {
    unsigned long x = nextVersionPart(p);
    unsigned long y = nextVersionPart(q);
    if (x != y) return x < y ? -1 : 1;
  }
  return 0;
}

namespace {
bool isB64Url(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_';
}
// Length of a run of base64url characters at s[i...].
size_t runAt(const std::string& s, size_t i) {
  size_t j = i;
  while (j < s.size() && isB64Url(s[j])) ++j;
  return j - i;
}
}  // namespace

std::string mask_jwt(const std::string& text) {
  std::string out;
  size_t copied = 0;
  size_t i = text.find("eyJ");
  while (i != std::string::npos) {
    bool boundary = i == 0 || !isB64Url(text[i - 1]);
    size_t header = runAt(text, i);
    size_t end = i + header;
    bool ok = boundary && end < text.size() && text[end] == '.';
    if (ok) {
      size_t payload = runAt(text, end + 1);
      end += 1 + payload;
      ok = payload > 0 && end < text.size() && text[end] == '.';
      if (ok) end += 1 + runAt(text, end + 1);  // the signature may be empty
    }
    if (!ok) {
      i = text.find("eyJ", i + 1);
      continue;
    }
    out.append(text, copied, i - copied);
    out.append(text, i, 2);
    out += "...";
    out += text[end - 1];
    copied = end;
    i = text.find("eyJ", end);
  }
  if (copied == 0) return text;
  out.append(text, copied, std::string::npos);
  return out;
}

namespace {
std::string readExeBasename() {
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return "unknown";
  std::string path(buf, static_cast<size_t>(n));
  const std::string deleted = " (deleted)";
  if (path.size() > deleted.size() &&
      path.compare(path.size() - deleted.size(), deleted.size(), deleted) == 0) {
    path.resize(path.size() - deleted.size());
  }
  size_t slash = path.rfind('/');
  std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  return base.empty() ? "unknown" : base;
}
}  // namespace

// A process keeps its executable: read once.
std::string get_exe_basename() {
  static const std::string base = readExeBasename();
  return base;
}

namespace {
std::string localeFor(const char* category) {
  for (const char* name : {"LC_ALL", category, "LANG"}) {
    const char* v = std::getenv(name);
    if (v != nullptr && *v != '\0') return v;
  }
  return "C";
}
void copyOut(char* dst, size_t size, const std::string& s) {
  if (dst == nullptr || size == 0) return;
  size_t n = s.size() < size - 1 ? s.size() : size - 1;
  std::memcpy(dst, s.data(), n);
  dst[n] = '\0';
}
}  // namespace

int ovgetlocaleEx(char* messages, char* ctype, char* time, char* collate, char* numeric,
                  size_t size) {
  if (size == 0 && (messages || ctype || time || collate || numeric)) return QX_ERR_BAD_ARGUMENT;
  copyOut(messages, size, localeFor("LC_MESSAGES"));
  copyOut(ctype, size, localeFor("LC_CTYPE"));
  copyOut(time, size, localeFor("LC_TIME"));
  copyOut(collate, size, localeFor("LC_COLLATE"));
  copyOut(numeric, size, localeFor("LC_NUMERIC"));
  return 0;
}

std::string trim(const std::string& s) {
  const char* blanks = " \t\v\f\r\n";
  size_t b = s.find_first_not_of(blanks);
  if (b == std::string::npos) return std::string();
  size_t e = s.find_last_not_of(blanks);
  return s.substr(b, e - b + 1);
}
