// The cache of web-service results: JSON answers kept in files under the
// install root, shared by every process of one account on the host.
//
//   <root>/var/cache/websvc/                  1777, like /tmp
//     <euid>/                                 0700, the account's own
//       <hash(scope)>/                        one directory per server:port
//         <hash(kind, key)>.entry             0600, header line with expiry, then the JSON
//         <hash(kind, key)>.lck               lock of the entry's filler
//
// A handle names the scope of a client's entries (its server and port), so two
// masters with the same path never share an entry. Keys are hashed: no key
// reaches the file system as a name. Entries are replaced by a temporary file
// renamed into place, so a reader sees the old entry or the new one. Anything
// unreadable, damaged, expired, linked or not the account's own reads as a
// miss.
//
// Single flight: the first caller to miss a key takes the key's lock and gets
// QX_CS_CACHE_FILL; it asks the server and calls update_cs_cache_info (or
// release_cs_cache_lock when it has nothing to store). Others missing the same
// key meanwhile wait, bounded, and read the fresh entry. The lock is a kernel
// record lock, so a filler that crashes releases it.
//
//   json_t* value = nullptr;
//   std::string h = qxCSCacheHandle("master1", 1556);
//   int rc = fetch_cs_cache_info_or_lock_with_retry(h, QX_CS_CACHE_KIND_WEBSVC, path, &value);
//   if (rc == 0) { use(value); json_decref(value); }
//   else if (rc == QX_CS_CACHE_FILL) { ... update_cs_cache_info(h, 2, path, fresh, ttl); }
#ifndef QXCURL_PLATFORM_QX_CS_CACHE_H
#define QXCURL_PLATFORM_QX_CS_CACHE_H
#include <jansson.h>

#include <cstddef>
#include <ctime>
#include <string>
#include <vector>

// The only kind of entry kept: results of web-service GETs.
constexpr int QX_CS_CACHE_KIND_WEBSVC = 2;
// fetch: a miss that this caller is to fill.
constexpr int QX_CS_CACHE_FILL = 1;
// Longest time to live an entry gets, seconds (30 days).
constexpr int QX_CS_CACHE_MAX_TTL = 30 * 24 * 3600;
// Largest entry file written or read.
constexpr size_t QX_CS_CACHE_MAX_ENTRY = 16u << 20;
// How long a caller waits for another process's fill, milliseconds.
constexpr unsigned QX_CS_CACHE_WAIT_MS = 10000;

// The handle of a client's entries: "host:port", host in lower case.
std::string qxCSCacheHandle(const std::string& server, int port);

// 0: a live entry; *json receives a new reference the caller releases.
// QX_CS_CACHE_FILL: a miss this caller is to fill; it holds the key's lock.
// Any other value is a miss the caller must not fill: QX_ERR_LOCK (another
// filler did not finish in time, or the lock cannot be taken),
// QX_ERR_NO_INSTALL_DIR (no usable cache directory), QX_ERR_BAD_ARGUMENT.
int fetch_cs_cache_info_or_lock_with_retry(const std::string& handle, int kind,
                                           const std::string& key, json_t** json);
// The same, giving a live entry's value as JSON text (json_dumps with flags
// 0, as stored): a hit then costs no loading and dumping.
int fetch_cs_cache_info_or_lock_with_retry(const std::string& handle, int kind,
                                           const std::string& key, std::string* text);
// Stores json (not stolen) for ttl seconds (capped at QX_CS_CACHE_MAX_TTL),
// then releases this thread's lock of the key if it holds it. 0;
// QX_ERR_BAD_ARGUMENT for a null json, ttl below 1 or another kind;
// QX_ERR_NO_INSTALL_DIR; QX_ERR_WRITE when the entry cannot be written or is
// larger than QX_CS_CACHE_MAX_ENTRY.
int update_cs_cache_info(const std::string& handle, int kind, const std::string& key, json_t* json,
                         int ttl);
// Gives up this thread's fill of key (nothing to store). No-op when not held.
void release_cs_cache_lock(const std::string& handle, int kind, const std::string& key);

struct QXCSCacheEntry {
  std::string key;
  long long stored = 0;   // seconds since the epoch
  long long expires = 0;  // seconds since the epoch
  size_t size = 0;        // bytes of the entry file
};
// Entries of a handle (expired ones included), sorted by key. 0, or
// QX_ERR_BAD_ARGUMENT. A scope without entries is an empty list.
int qxCSCacheList(const std::string& handle, std::vector<QXCSCacheEntry>& out);
// Removes every entry of a handle; *removed (may be null) counts them. 0, or
// QX_ERR_WRITE when one could not be removed.
int qxCSCacheClear(const std::string& handle, int* removed);

// Reads an entry file's text: a header line, the JSON object {"version",
// "scope", "kind", "key", "stored", "expires", "length"}, then the value's JSON
// text of that length. 0 when it is a well-formed entry of this scope, kind
// and key (a null key accepts any) that is live at now; *value (may be null)
// receives the value's text. QX_ERR_JSON_PARSE for damaged text or an entry
// of another scope or key; QX_ERR_TIMEOUT for an expired one (*info is
// filled in both the live and the expired case).
int qxCSCacheParseEntry(const std::string& text, const std::string& handle, int kind,
                        const std::string* key, long long now, std::string* value,
                        QXCSCacheEntry* info);

// Paths, for diagnostics and tests.
std::string qxCSCacheScopeDir(const std::string& handle);
std::string qxCSCacheEntryPath(const std::string& handle, int kind, const std::string& key);

// Test seams: the clock of expiry decisions and the pause between waits
// (null restores time() and a real sleep).
void T_setCSCacheClock(time_t (*now)(time_t*));
void T_setCSCacheSleeper(void (*sleepMs)(unsigned ms));
#endif  // QXCURL_PLATFORM_QX_CS_CACHE_H
