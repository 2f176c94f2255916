#include "qx_status.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace {

struct StatusText {
  int status;
  const char* text;
};

// Short texts a user can act on; sorted by status.
const StatusText kTexts[] = {
    {0, "success"},
    {2, "invalid parameter"},
    {10, "out of memory"},
    {11, "text could not be encoded or decoded"},
    {12, "file not found"},
    {13, "file could not be opened for reading"},
    {14, "file could not be written"},
    {15, "could not bind to the preferred local address"},
    {18, "could not connect to any address of the server"},
    {20, "invalid argument"},
    {21, "invalid socket"},
    {25, "waiting for the connection failed"},
    {26, "TLS connection could not be established"},
    {29, "command could not be executed"},
    {30, "command ended with a non-zero exit status"},
    {31, "command was ended by a signal"},
    {41, "operation timed out"},
    {42, "error while receiving data"},
    {43, "the server's answer was not understood"},
    {44, "error while sending data"},
    {47, "host name could not be resolved"},
    {103, "HTTP library could not be initialised"},
    {113, "internal error in the HTTP library"},
    {117, "authorization token has expired"},
    {130, "request failed"},
    {142, "installation directory is missing or not writable"},
    {145, "request is already in progress"},
    {158, "lock could not be taken"},
    {227, "header field missing from the server's response"},
    {5433, "the appliance refused the request"},
    {5930, "authorization token could not be obtained or refreshed"},
    {5982, "certificate revocation list could not be obtained"},
    {7610, "unexpected response from the server"},
    {7617, "response could not be read as JSON"},
    {8500, "could not connect to the server"},
    {8501, "remote access denied"},
    {8502, "malformed URL"},
    {8503, "communication with the server failed"},
    {8504, "server certificate issuer is not trusted"},
    {8505, "server certificate is not yet valid"},
    {8506, "server certificate has expired"},
    {8507, "server certificate could not be verified"},
    {8508, "trust store could not be read"},
    {8509, "server name does not match its certificate"},
    {8510, "server certificate information is missing"},
    {8511, "problem with the local client certificate"},
    {8512, "server certificate could not be examined"},
    {8625, "web service is unavailable"},
    {8762, "passphrase is empty"},
    {8787, "private key cannot be used in FIPS mode"},
    {9314, "certificate revocation list has expired"},
    {9318, "server certificate has been revoked"},
    {9321, "certificate revocation check failed"},
    {9328, "revocation list signature could not be decrypted"},
    {9329, "revocation list signature is invalid"},
    {9330, "revocation list is not yet valid"},
    {9331, "revocation list has an invalid last-update time"},
    {9332, "revocation list has an invalid next-update time"},
    {9333, "issuer certificate may not sign certificates"},
    {9334, "issuer certificate may not sign revocation lists"},
    {9335, "revocation list has an unsupported critical extension"},
    {9336, "revocation list scope does not match"},
    {9337, "revocation list path could not be validated"},
};

// Texts for unknown numbers live as long as the process; the set is bounded
// so that a caller looping over garbage cannot grow it without end.
constexpr size_t kMaxUnknown = 1024;
std::mutex g_unknownMutex;
std::map<int, std::unique_ptr<std::string>>* g_unknown = nullptr;

}  // namespace

extern "C" const char* getECmsg(int status) {
  size_t lo = 0, hi = sizeof kTexts / sizeof kTexts[0];
  while (lo < hi) {
    size_t mid = (lo + hi) / 2;
    if (kTexts[mid].status == status) return kTexts[mid].text;
    if (kTexts[mid].status < status)
      lo = mid + 1;
    else
      hi = mid;
  }
  std::lock_guard<std::mutex> guard(g_unknownMutex);
  if (g_unknown == nullptr)
    g_unknown = new std::map<int, std::unique_ptr<std::string>>();  // never freed: pointers handed
                                                                    // out stay valid
  auto it = g_unknown->find(status);
  if (it != g_unknown->end()) return it->second->c_str();
  if (g_unknown->size() >= kMaxUnknown) return "Unknown status";
  auto text = std::make_unique<std::string>("Unknown status " + std::to_string(status));
  const char* p = text->c_str();
  g_unknown->emplace(status, std::move(text));
  return p;
}
