#ifndef QXCURL_PLATFORM_QX_CONFIG_H
#define QXCURL_PLATFORM_QX_CONFIG_H
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// The master configuration: <root>/arvion/arvion.conf, "KEY = VALUE" lines,
// '#' comments, repeated keys form ordered lists. Malformed lines are logged
// with file and line number and skipped. A missing file is an empty
// configuration ("not configured"), not an error.
struct QXMasterConfig;
typedef const QXMasterConfig* QXConfigHandle;

// Freshness: the file is looked at (one stat) at most once a second per
// process; a read within a second of the last look gets what that look
// found. A changed file is therefore seen within a second, and at once by a
// process that calls qxConfigChanged() after writing it.
//
// Reads the file (cheaply: unchanged files are not parsed again) and
// makes it this thread's current configuration. 0 on success; 12 when the file
// exists but cannot be read or is larger than 1 MiB (the current
// configuration is then empty).
int QX_read_master_config();
// This thread's configuration as of its last QX_read_master_config; never null
// (an empty configuration before the first read).
QXConfigHandle get_master_config_ptr();

// Yes/no keys accept YES/NO/TRUE/FALSE/ON/OFF/1/0 in any case; the last value
// of a repeated key wins. 0 when the key is present and valid; 1 when absent;
// 2 when its value is not a yes/no word (logged). *value is set only on 0.
int bpconfGetKeyValPairAsBool(QXConfigHandle cfg, const char* key, bool* value);
// Last value of a key: 0, or 1 when absent.
int bpconfGetKeyValue(QXConfigHandle cfg, const char* key, std::string& value);
// Every value of a key in file order (empty when absent).
std::vector<std::string> bpconfGetKeyValues(QXConfigHandle cfg, const char* key);
// Integer value: 0, 1 when absent, 2 when not a decimal integer (logged).
int bpconfGetKeyValueAsInt(QXConfigHandle cfg, const char* key, long* value);

// "CRL_CHECK_LEVEL" (0 off, 1 leaf, 2 whole chain; default 1). 0 on success,
// non-zero when the configuration cannot be read or the value is not 0..2.
int getCrlCheckLevelFromConfig(unsigned int* level);

// The web-service record. Lists are in configuration order.
struct qxconf_server_entry {
  char* name;
  qxconf_server_entry* next;
};
struct qxconf_tunnel_entry {
  char* host;
  char* tunnel;
  qxconf_tunnel_entry* next;
};
struct qxconf_info {
  qxconf_server_entry* server_list;        // SERVER (first = this host's master)
  int websvr_connect_timeout;              // WEB_SERVER_CONNECT_TIMEOUT, seconds; 0 = not set
  int tunnel_use;                          // WEB_SERVER_TUNNEL_USE; default 2 (never tunnel)
  int tunnel_enabled;                      // WEB_SERVER_TUNNEL_ENABLE (yes/no as 1/0); default 0
  qxconf_tunnel_entry* tunnel_overrides;   // WEB_SERVER_TUNNEL = <master> <tunnel>
  qxconf_server_entry* media_server_list;  // MEDIA_SERVER
};
// Fills *info with a new record (released with qxconf_free_info). 0 on
// success; the status of QX_read_master_config on failure (*info untouched).
int qxconf_get_info(qxconf_info** info);
void qxconf_free_info(qxconf_info** info);
// The record of the current configuration, built once per configuration
// change and shared (read-only); null with *status on failure.
std::shared_ptr<const qxconf_info> qxconf_current_info(int* status);

// The next read looks at the file again, whatever the last look found.
void qxConfigChanged();
// Test seam: the monotonic clock (nanoseconds) of the freshness rule; null
// restores the system's.
void qxConfigT_setClock(int64_t (*nowNs)());

// One configuration for one request: while a snapshot lives, every read of
// the configuration on this thread (qxLoadMasterConfig and everything built
// on it) returns the configuration the outermost snapshot took, so that the
// decisions of one request agree and the file is looked at once at most.
class QXConfigSnapshot {
 public:
  QXConfigSnapshot();
  ~QXConfigSnapshot();
  QXConfigSnapshot(const QXConfigSnapshot&) = delete;
  QXConfigSnapshot& operator=(const QXConfigSnapshot&) = delete;
};

// The path of the master configuration under the current install root.
std::string qxMasterConfigPath();
// The current file's configuration (from the shared cache) without changing
// this thread's current one; never null (empty on failure). *status as for
// QX_read_master_config when status is not null.
std::shared_ptr<const QXMasterConfig> qxLoadMasterConfig(int* status);
// A number of the current configuration (the one qxLoadMasterConfig gives):
// it changes whenever that configuration does, so a decision drawn from the
// configuration can be kept until then. *status as for qxLoadMasterConfig.
uint64_t qxConfigVersion(int* status);
// Parses configuration text; origin names it in messages about bad lines.
std::shared_ptr<const QXMasterConfig> qxParseMasterConfig(const std::string& text,
                                                          const std::string& origin);
// Yes/no word to bool: 0, or 2 when text is not one of the words.
int qxParseYesNo(const std::string& text, bool* value);

// Feature switches: "FEATURE_<n>" yes/no keys of the master configuration
// (switch 1: API keys and in-memory external-CA material). 1 on, 0 off.
int IsFeatureEnabled_c(int feature);

// Non-zero when the calling user is the configured service administrator:
// the configuration key SERVICE_USER names a user whose uid equals the
// effective uid. The argument is reserved and ignored.
int is_current_user_configured_service_admin(int reserved);

#endif  // QXCURL_PLATFORM_QX_CONFIG_H
