// Verbose wire trace through the product log, with secrets masked.
#include "client/qxclnt_curl_trace.h"

#include <dlfcn.h>
#include <link.h>

#include <cctype>
#include <cstdio>

#include "platform/qx_log.h"
#include "qxcurl/qxclnt_curl.h"

namespace {
const char* const kTraceTag = "curl_debug_logger()";
const char* const kAceModule = "libqxcurl-ace.so";
constexpr size_t kDumpWidth = 64;

bool isNameChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '-'; }

// "GET /a HTTP/1.1", "CONNECT host:1556 HTTP/1.1": a method in capitals, a
// blank, and an HTTP version at the end.
bool isRequestLine(const std::string& line) {
  size_t n = 0;
  while (n < line.size() && line[n] >= 'A' && line[n] <= 'Z') ++n;
  if (n == 0 || n >= line.size() || line[n] != ' ') return false;
  size_t end = line.find_last_not_of("\r\n");
  size_t last = line.rfind(' ', end);
  return end != std::string::npos && last != std::string::npos &&
         line.compare(last + 1, 5, "HTTP/") == 0;
}

std::string lineEnd(const std::string& line) {
  size_t end = line.find_first_of("\r\n");
  return end == std::string::npos ? std::string() : line.substr(end);
}

std::string maskHeaderLine(const std::string& line) {
  // A folded continuation belongs to the header above it: never shown.
  if (!line.empty() && (line[0] == ' ' || line[0] == '\t')) return " ***" + lineEnd(line);
  size_t colon = line.find(':');
  if (colon == std::string::npos) return line;  // status line, blank line
  size_t start = colon;
  while (start > 0 && isNameChar(line[start - 1])) --start;
  if (start > 0) {
    // Anything else odd before the colon counts as a header that is not allowed.
    if (isRequestLine(line)) return line;
  } else if (!qxMaskedHeaders().isMasked(line.substr(0, colon))) {
    return line;
  }
  // Keep the line end so that the dump still breaks lines where the wire did.
  return line.substr(0, colon + 1) + " ***" + lineEnd(line);
}

// True when addr lies in the program itself rather than in a shared object
// (the first object dl_iterate_phdr reports is the program).
bool inProgram(const void* addr) {
  struct Probe {
    uintptr_t addr;
    bool found;
  } probe{reinterpret_cast<uintptr_t>(addr), false};
  dl_iterate_phdr(
      [](dl_phdr_info* info, size_t, void* data) {
        auto* p = static_cast<Probe*>(data);
        for (int i = 0; i < info->dlpi_phnum; ++i) {
          const ElfW(Phdr)& ph = info->dlpi_phdr[i];
          uintptr_t start = info->dlpi_addr + ph.p_vaddr;
          if (ph.p_type == PT_LOAD && p->addr >= start && p->addr - start < ph.p_memsz)
            p->found = true;
        }
        return 1;
      },
      &probe);
  return probe.found;
}
}  // namespace

const MaskedHttpHeaders& qxMaskedHeaders() {
  static const MaskedHttpHeaders* table = [] {
    // The module sits next to the shared library. A program with the
    // library linked in may carry a C++ runtime of its own, which the
    // module's would duplicate: it keeps the library's own table.
    Dl_info self{};
    std::string dir;
    const void* here = reinterpret_cast<void*>(&qxMaskedHeaders);
    if (!inProgram(here) && dladdr(here, &self) != 0 && self.dli_fname) {
      dir = self.dli_fname;
      size_t slash = dir.rfind('/');
      // An absolute directory only: a program's name may be relative.
      dir = slash == std::string::npos || dir[0] != '/' ? std::string() : dir.substr(0, slash + 1);
    }
    const MaskedHttpHeaders* found = nullptr;
    // Only from there: never through a search path (a run path may name the
    // working directory).
    void* module =
        dir.empty() ? nullptr : dlopen((dir + kAceModule).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module != nullptr) {
      auto get =
          reinterpret_cast<const MaskedHttpHeaders* (*)()>(dlsym(module, "qxcurl_masked_headers"));
      found = get != nullptr ? get() : nullptr;
    }
    if (found == nullptr) {
      QXLOG(QXLOG_DETAIL, "qxMaskedHeaders")
          << "ACE module [" << kAceModule << "] not loaded; using the library's own table";
      static const MaskedHttpHeaders own;
      found = &own;
    }
    return found;
  }();
  return *table;
}

std::string qxMaskTraceHeaders(const char* data, size_t size) {
  std::string text(data, size), out;
  size_t from = 0;
  while (from < text.size()) {
    size_t nl = text.find('\n', from);
    size_t end = nl == std::string::npos ? text.size() : nl + 1;
    out += maskHeaderLine(text.substr(from, end - from));
    from = end;
  }
  return out;
}

namespace {
// Members whose values are credentials, compared without letter case; any
// member whose name ends in "token" counts too (token, accessToken,
// sessionToken, refreshToken...).
bool isSecretMember(std::string name) {
  for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  static const char* const kSecrets[] = {"password", "passphrase",   "apikey",       "api_key",
                                         "secret",   "clientsecret", "authorization"};
  for (const char* k : kSecrets) {
    if (name == k) return true;
  }
  return name.size() >= 5 && name.compare(name.size() - 5, 5, "token") == 0;
}

// End of the JSON string whose opening quote is at open: the index of its
// closing quote, or text.size() when it is unterminated.
size_t stringEnd(const std::string& text, size_t open) {
  size_t i = open + 1;
  while (i < text.size() && text[i] != '"') i += text[i] == '\\' ? 2 : 1;
  return i < text.size() ? i : text.size();
}
}  // namespace

std::string qxMaskTraceSecrets(const char* data, size_t size, bool* inSecret) {
  std::string text(data, size), out;
  size_t from = 0;  // text[from...] not yet copied
  if (inSecret != nullptr && *inSecret) {
    // The previous chunk ended inside a credential's value: mask its rest.
    size_t i = 0;
    while (i < text.size() && text[i] != '"') i += text[i] == '\\' ? 2 : 1;
    out = "***";
    if (i >= text.size()) return out;
    from = i;
    *inSecret = false;
  }
  if (inSecret != nullptr) *inSecret = false;
  size_t i = text.find('"', from);
  while (i != std::string::npos) {
    size_t close = stringEnd(text, i);
    if (close >= text.size()) break;
    size_t colon = text.find_first_not_of(" \t\r\n", close + 1);
    bool key = colon != std::string::npos && text[colon] == ':';
    if (!key || !isSecretMember(text.substr(i + 1, close - i - 1))) {
      i = text.find('"', close + 1);
      continue;
    }
    size_t value = text.find_first_not_of(" \t\r\n", colon + 1);
    if (value == std::string::npos) break;
    if (text[value] == '"') {
      size_t valueEnd = stringEnd(text, value);
      out += text.substr(from, value + 1 - from) + "***";
      // An unterminated value is masked to the end, and so is its rest in
      // the next chunk: better too much than a leak.
      if (valueEnd >= text.size()) {
        if (inSecret != nullptr) *inSecret = true;
        return out;
      }
      from = valueEnd;
      i = text.find('"', valueEnd + 1);
    } else if (text[value] == '{' || text[value] == '[') {
      i = text.find('"', value);  // members inside are judged on their own
    } else {
      // A number or a word: masked up to the end of the value.
      size_t valueEnd = text.find_first_of(",}] \t\r\n", value);
      out += text.substr(from, value - from) + "***";
      if (valueEnd == std::string::npos) return out;
      from = valueEnd;
      i = text.find('"', valueEnd);
    }
  }
  out += text.substr(from);
  return out;
}

std::string qxFormatTraceDump(const char* label, const std::string& data) {
  char buf[128];
  std::string out;
  (void)std::snprintf(buf, sizeof(buf), "%s, %10.10ld bytes (0x%8.8lx) ", label,
                      static_cast<long>(data.size()), static_cast<unsigned long>(data.size()));
  out += buf;
  const size_t size = data.size();
  auto crlfAt = [&](size_t k) { return k + 1 < size && data[k] == '\r' && data[k + 1] == '\n'; };
  size_t i = 0;
  while (i < size) {
    (void)std::snprintf(buf, sizeof(buf), "%4.4lx: ", static_cast<unsigned long>(i));
    out += "\n";
    out += buf;
    size_t next = i + kDumpWidth;
    for (size_t c = 0; c < kDumpWidth && i + c < size; ++c) {
      // A CR LF pair ends the dump line early; both bytes are consumed.
      if (crlfAt(i + c)) {
        next = i + c + 2;
        break;
      }
      unsigned char ch = static_cast<unsigned char>(data[i + c]);
      out += (ch >= 0x20 && ch < 0x7f) ? static_cast<char>(ch) : '.';
      if (crlfAt(i + c + 1)) {
        next = i + c + 3;
        break;
      }
    }
    i = next;
  }
  return out;
}

int QXClientCURL::curl_debug_logger(CURL* /*handle*/, curl_infotype type, char* data, size_t size,
                                    void* userp) {
  const char* label = nullptr;
  switch (type) {
    case CURLINFO_TEXT: {
      std::string text(data, size);
      while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
      QXLOG(QXLOG_PROGRESS, kTraceTag) << "== Info: " << text;
      return 0;
    }
    case CURLINFO_HEADER_IN:
      label = "<= Recv header";
      break;
    case CURLINFO_HEADER_OUT:
      label = "=> Send header";
      break;
    case CURLINFO_DATA_IN:
      label = "<=  Recv  data";
      break;
    case CURLINFO_DATA_OUT:
      label = "=>  Send  data";
      break;
    default:
      return 0;
  }
  // A body arrives in chunks; a credential's value may run on into the next.
  // Headers come before a body: a new body starts outside any value.
  auto* client = static_cast<QXClientCURL*>(userp);
  if (client != nullptr && type == CURLINFO_HEADER_IN) client->m_traceInSecret[0] = false;
  if (client != nullptr && type == CURLINFO_HEADER_OUT) client->m_traceInSecret[1] = false;
  if (!qxLogWanted(QXLOG_PROGRESS)) return 0;
  bool* open =
      client == nullptr ? nullptr : &client->m_traceInSecret[type == CURLINFO_DATA_IN ? 0 : 1];
  std::string text = (type == CURLINFO_HEADER_IN || type == CURLINFO_HEADER_OUT)
                         ? qxMaskTraceHeaders(data, size)
                         : qxMaskTraceSecrets(data, size, open);
  std::string dump = qxFormatTraceDump(label, text);
  size_t from = 0;
  while (from <= dump.size()) {
    size_t nl = dump.find('\n', from);
    QXLOG(QXLOG_PROGRESS, kTraceTag)
        << dump.substr(from, nl == std::string::npos ? std::string::npos : nl - from);
    if (nl == std::string::npos) break;
    from = nl + 1;
  }
  return 0;
}

int QXClientCURL::setCurlVerbose() {
  int rc = setCurlOptionLogged(CURLOPT_VERBOSE, 1L, "CURLOPT_VERBOSE");
  if (rc != 0) return rc;
  rc = setCurlOptionLogged(CURLOPT_DEBUGFUNCTION, reinterpret_cast<void*>(&curl_debug_logger),
                           "CURLOPT_DEBUGFUNCTION");
  if (rc != 0) return rc;
  return setCurlOptionLogged(CURLOPT_DEBUGDATA, static_cast<void*>(this), "CURLOPT_DEBUGDATA");
}
