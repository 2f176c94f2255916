#include "qxcurl/qx_status.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace {

const char* knownText(int status) {
  switch (status) {
#define QX_STATUS_CASE(name, value, text) \
  case name:                              \
    return text;
    QX_STATUS_LIST(QX_STATUS_CASE)
#undef QX_STATUS_CASE
  }
  return nullptr;
}

// Texts for unknown numbers live as long as the process; the set is bounded
// so that a caller looping over garbage cannot grow it without end.
constexpr size_t kMaxUnknown = 1024;
std::mutex g_unknownMutex;
std::map<int, std::unique_ptr<std::string>>* g_unknown = nullptr;

}  // namespace

extern "C" const char* getECmsg(int status) {
  if (const char* text = knownText(status)) return text;
  std::lock_guard<std::mutex> guard(g_unknownMutex);
  // Never freed: pointers handed out stay valid.
  if (g_unknown == nullptr) g_unknown = new std::map<int, std::unique_ptr<std::string>>();
  auto it = g_unknown->find(status);
  if (it != g_unknown->end()) return it->second->c_str();
  if (g_unknown->size() >= kMaxUnknown) return "Unknown status";
  auto text = std::make_unique<std::string>("Unknown status " + std::to_string(status));
  const char* p = text->c_str();
  g_unknown->emplace(status, std::move(text));
  return p;
}
