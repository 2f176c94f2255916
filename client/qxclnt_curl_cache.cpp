// The cached GET: answers from the cache of web-service results, with a time
// to live the server chooses per response, and for credentials the body in
// the account's secure session store.
#include <jansson.h>

#include <memory>

#include "platform/qx_cs_cache.h"
#include "platform/qx_log.h"
#include "platform/qx_session_store.h"
#include "qxcurl/qxclnt_curl.h"

using Arvion::Ostrel::TokenMgmt::SessionTokenMgmt;

namespace {

// What the cache keeps for a body that lives in the secure store.
const char* const kSecurePlaceholder = "{ \"dummy_json\":[]}";
// "-1" from the server: do not cache, but absorb a burst of identical calls.
constexpr int kThrottleTtl = 2;
// The secure copy outlives its cache entry a little, so a live entry always
// finds its body.
constexpr int kSecureExtraTtl = 10;

// Gives up this caller's fill of a key on every path that does not store it,
// so that processes waiting for the entry go to the server at once.
struct FillGuard {
  const std::string& handle;
  const std::string& key;
  bool armed = false;
  FillGuard(const FillGuard&) = delete;
  FillGuard& operator=(const FillGuard&) = delete;
  ~FillGuard() {
    if (armed) release_cs_cache_lock(handle, QX_CS_CACHE_KIND_WEBSVC, key);
  }
};

// The header counts minutes; 0 means the caller's default and -1 a short
// throttle. Other negative values are malformed and count as 0; values past
// the cache's limit are capped.
int chooseTtl(int header, int defaultTtl) {
  const char* tag = "QXClientCURL::GetWithCache";
  if (header < -1) {
    QXLOG(QXLOG_DETAIL, tag) << "Ignoring invalid TTL value [" << header
                             << "] from the API response header";
    header = 0;
  }
  if (header == 0) {
    QXLOG(QXLOG_PROGRESS, tag) << "API response header does not have TTL (or 0 is passed as "
                                  "TTL). Using default TTL as:"
                               << defaultTtl;
    return defaultTtl;
  }
  if (header == -1) {
    QXLOG(QXLOG_PROGRESS, tag)
        << "TTL value is set to -1(DONT-USE-CACHE), hence using TTL value of:" << kThrottleTtl
        << ", Only for throttling purpose.";
    return kThrottleTtl;
  }
  long long ttl = header * 60LL;
  if (ttl > QX_CS_CACHE_MAX_TTL) {
    QXLOG(QXLOG_DETAIL, tag) << "TTL value [" << ttl << "] s is over the limit; using ["
                             << QX_CS_CACHE_MAX_TTL << "] s";
    ttl = QX_CS_CACHE_MAX_TTL;
  }
  QXLOG(QXLOG_PROGRESS, tag) << "API response header have TTL value set, hence using TTL value in "
                                "sec:"
                             << ttl;
  return static_cast<int>(ttl);
}

}  // namespace

int QXClientCURL::GetWithCache(cache_usage_decision decision, const std::string& path,
                               WebSvcResponseType type, int defaultTtl) {
  const char* tag = "QXClientCURL::GetWithCache";
  m_servedFromCache = false;
  if (decision < CACHE_USAGE_NONE || decision > CACHE_USAGE_SECURE_UPDATE ||
      (type != WEBSVC_RESPONSE_JSON && type != WEBSVC_RESPONSE_STRING)) {
    QXLOG(QXLOG_ERROR, tag) << "Invalid cache decision [" << decision << "] or response type ["
                            << type << "]";
    return QX_ERR_BAD_ARGUMENT;
  }
  const bool useCache = decision != CACHE_USAGE_NONE;
  const bool secure = decision == CACHE_USAGE_SECURE_READ || decision == CACHE_USAGE_SECURE_UPDATE;
  const bool lookup = decision == CACHE_USAGE_READ_UPDATE || decision == CACHE_USAGE_SECURE_READ;
  if (useCache && m_cacheHandle.empty()) m_cacheHandle = qxCSCacheHandle(m_server, m_port);
  std::unique_ptr<SessionTokenMgmt> store;
  if (secure) store = std::make_unique<SessionTokenMgmt>((m_server_url + path).c_str());
  if (useCache) {
    QXLOG(QXLOG_PROGRESS, tag) << "Checking cache before/after web-api for path:" << path;
  }

  bool updateAllowed = useCache;
  FillGuard fill{m_cacheHandle, path};
  if (lookup) {
    // The stored text is the entry's JSON as json_dumps with flags 0 gives it.
    std::string cached;
    int rc = fetch_cs_cache_info_or_lock_with_retry(m_cacheHandle, QX_CS_CACHE_KIND_WEBSVC, path,
                                                    &cached);
    if (rc == 0 && !secure) {
      m_responseBody.swap(cached);
      m_httpCode = 200;
    } else if (rc == 0) {
      std::string text = store->readSessionToken();
      if (!text.empty()) {
        QXLOG(QXLOG_PROGRESS, "fetchCacheValue") << "Response fetch from Secure Cache";
        m_responseBody = text;
        m_httpCode = 200;
      } else {
        QXLOG(QXLOG_ERROR, tag) << "Failed to readSessionToken(), returned empty response, hence "
                                   "marking cred cache-read(secure cache) failure.";
        rc = CACHE_USAGE_SECURE_READ;  // a miss that must not fill
      }
    }
    if (rc == 0) {
      logmsgf(QXLOG_PROGRESS, QXLOG_CATEGORY, "fetchCacheValue",
              "request served from cache for url:%s", path.c_str());
      if (type == WEBSVC_RESPONSE_JSON || makeStringResponseFromJson() == 0) {
        QXLOG(QXLOG_PROGRESS, tag) << "Request served from cache";
        m_responseHeaders.clear();
        m_servedFromCache = true;
        return 0;
      }
    }
    updateAllowed = rc == QX_CS_CACHE_FILL;
    fill.armed = updateAllowed;
  }

  QXLOG(QXLOG_PROGRESS, tag) << "Request not served from cache hence invoking URL: " << m_server_url
                             << path;
  // A handle left as an earlier verb configured it goes back to GET; one
  // that already is a GET is left alone.
  if (m_methodChanged || m_customRequest) {
    setCurlOptionLogged(CURLOPT_HTTPGET, 1L, "CURLOPT_HTTPGET");
    if (m_customRequest) setCurlOptionLogged(CURLOPT_CUSTOMREQUEST, "GET", "CURLOPT_CUSTOMREQUEST");
    m_methodChanged = false;
  }
  int rc = setUrlForPath(path, "Failed to set url, err = ");
  if (rc != 0) return rc;
  const int status = performOperation();
  if (!useCache) return status;
  if (status != 0 || (m_httpCode != 200 && m_httpCode != 201)) {
    QXLOG(QXLOG_ERROR, tag) << "Failed to perform API operation, not caching the response";
    return status;
  }

  const int ttl = chooseTtl(getCacheTTLFromAPIHeader(), defaultTtl);
  // What the cache keeps: the body, or for plain text the body wrapped in JSON.
  std::string text = m_responseBody;
  if (type == WEBSVC_RESPONSE_STRING && makeJsonResponseFromString(text) != 0) {
    QXLOG(QXLOG_ERROR, tag)
        << "Failed to convert into json from string, so not updating the cache.";
    return status;
  }
  if (!updateAllowed) return status;
  json_error_t error;
  json_t* value = secure ? json_loads(kSecurePlaceholder, 0, &error)
                         : json_loadb(text.data(), text.size(), 0, &error);
  if (value == nullptr) {
    QXLOG(QXLOG_ERROR, tag) << "Response is not JSON [" << error.text
                            << "], so not updating the cache.";
    return status;
  }
  int urc = update_cs_cache_info(m_cacheHandle, QX_CS_CACHE_KIND_WEBSVC, path, value, ttl);
  fill.armed = false;  // the update let go of the fill
  json_decref(value);
  if (urc != 0) {
    logmsgf(QXLOG_ERROR, QXLOG_CATEGORY, "updateCacheValue",
            "Error caching information; Status = %d", urc);
  } else if (secure && store->writeSessionToken(text, ttl + kSecureExtraTtl) != 0) {
    QXLOG(QXLOG_PROGRESS, tag) << "Failed update Secure cache value.";
  }
  return status;
}

void QXClientCURL::mockCacheTTL(int ttl) {
  QXLOG(QXLOG_PROGRESS, "QXClientCURL::mockCacheTTL") << "Mocking TTL value to: " << ttl;
  m_mockTTL = true;
  m_mockTTLValue = ttl;
}

int QXClientCURL::listCachedResults(std::vector<QXCachedResult>& entries) {
  entries.clear();
  std::vector<QXCSCacheEntry> found;
  int rc = qxCSCacheList(qxCSCacheHandle(m_server, m_port), found);
  for (const QXCSCacheEntry& e : found) entries.push_back({e.key, e.stored, e.expires, e.size});
  return rc;
}

int QXClientCURL::clearCachedResults(int* removed) {
  return qxCSCacheClear(qxCSCacheHandle(m_server, m_port), removed);
}
