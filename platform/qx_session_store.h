#ifndef QXCURL_PLATFORM_QX_SESSION_STORE_H
#define QXCURL_PLATFORM_QX_SESSION_STORE_H
#include <string>

namespace Arvion {
namespace Ostrel {
namespace TokenMgmt {

// Per-user store of one secret text per name (a session token, a cached
// answer) with an expiry. Entries are files of mode 0600 in the user's
// session directory: SESSION_TOKEN_DIR of the master configuration (relative
// to the install root) or "~/.arvion/sessions". The file name is a hash of
// the name, the target and the value of the environment variable called
// `name` when it is set, so one name gives one entry per target.
// Writes go to a temporary file renamed into place, so a crash never leaves
// a torn entry. Anything unreadable, expired, foreign-owned or writable by
// others reads as a miss.
class SessionTokenMgmt {
 public:
  explicit SessionTokenMgmt(const char* name);
  ~SessionTokenMgmt() = default;

  // The stored text, or "" on a miss (absent, expired, unreadable, corrupt).
  std::string readSessionToken();
  // Stores text until expiry. expiry is seconds since the epoch; a value
  // below 1,000,000,000 counts as seconds from now. 0 on success; 20 for an
  // expiry not in the future; 12 when the directory cannot be made;
  // 14 when the entry cannot be written.
  int writeSessionToken(const std::string& text, long expiry);
  // Selects another entry for the same name (an appliance user's target).
  // null or "" returns to the default. 0 always.
  int setTarget(const char* target);
  // Removes the entry. 0 also when there was none; 14 when it cannot be
  // removed.
  int deleteSessionToken();

  // The entry's file path (for tests and diagnostics).
  std::string T_entryPath() const;

 private:
  std::string m_name;
  std::string m_target;
};

}  // namespace TokenMgmt
}  // namespace Ostrel
}  // namespace Arvion
#endif  // QXCURL_PLATFORM_QX_SESSION_STORE_H
