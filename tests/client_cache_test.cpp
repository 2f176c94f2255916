// The cached GET against the emulated master server: which decision asks the
// server, what the cache and the secure store hold afterwards, the time to
// live chosen, and one request for many processes missing one key.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <string>
#include <thread>

#include "platform/qx_cs_cache.h"
#include "platform/qx_log.h"
#include "platform/qx_session_store.h"
#include "qxcurl/qxclnt_curl.h"
#include "testing/fixture/qx_test_env.h"
#include "testing/fixture/qx_test_process.h"
#include "tests/test_support.h"

namespace {

using Arvion::Ostrel::TokenMgmt::SessionTokenMgmt;

const char* const kPath = "arvion/security/cacert";  // JSON, no token needed
const char* const kFresh = "caCertificates";         // in every fresh answer
unsigned g_slept = 0;
void fakeSleep(unsigned ms) { g_slept += ms; }

class ClientCacheTest : public QXEmulatorTest {
 protected:
  void SetUp() override {
    QXEmulatorTest::SetUp();
    g_slept = 0;
    T_setCSCacheSleeper(fakeSleep);
  }
  void TearDown() override {
    T_setCSCacheSleeper(nullptr);
    QXEmulatorTest::TearDown();
  }
  std::unique_ptr<QXClientCURL> client() {
    std::unique_ptr<QXClientCURL> c(new QXClientCURL("localhost", emulator().port(), CERT_TYPE_HOST,
                                                     QXCURL_INSECURE, nullptr, "", true, false,
                                                     false, "QXCA"));
    EXPECT_EQ(0, c->setCustomCAPath(root().pki("qxca/ca.pem"), "QXCA"));
    c->setConnectRetryTimeout(0);
    return c;
  }
  std::string handle() { return qxCSCacheHandle("localhost", emulator().port()); }
  std::string url(const std::string& path) {
    return "https://localhost:" + std::to_string(emulator().port()) + "/" + path;
  }
  size_t gets(const std::string& path) { return emulator().requestCount(path, "GET"); }
  // The stored entry of path, "" when there is none.
  QXCSCacheEntry stored(const std::string& path, std::string* value = nullptr) {
    QXCSCacheEntry info;
    std::string text = qxReadFile(qxCSCacheEntryPath(handle(), QX_CS_CACHE_KIND_WEBSVC, path));
    std::string v;
    if (qxCSCacheParseEntry(text, handle(), QX_CS_CACHE_KIND_WEBSVC, &path, time(nullptr), &v,
                            &info) != 0) {
      info = QXCSCacheEntry();
    }
    if (value != nullptr) {  // compact, whatever the stored spacing
      json_t* j = json_loads(v.c_str(), 0, nullptr);
      char* dump = j ? json_dumps(j, JSON_COMPACT) : nullptr;
      *value = dump ? dump : "";
      free(dump);
      json_decref(j);
    }
    return info;
  }
};

// Another thread of this process fills the key and does not finish meanwhile.
class BusyFiller {
 public:
  explicit BusyFiller(const std::string& handle) {
    std::future<int> got = m_taken.get_future();
    m_thread = std::thread([this, handle] {
      json_t* v = nullptr;
      m_taken.set_value(
          fetch_cs_cache_info_or_lock_with_retry(handle, QX_CS_CACHE_KIND_WEBSVC, kPath, &v));
      m_done.get_future().wait();
      release_cs_cache_lock(handle, QX_CS_CACHE_KIND_WEBSVC, kPath);
    });
    EXPECT_EQ(QX_CS_CACHE_FILL, got.get());
  }
  ~BusyFiller() {
    m_done.set_value();
    m_thread.join();
  }

 private:
  std::promise<int> m_taken;
  std::promise<void> m_done;
  std::thread m_thread;
};

enum State { LIVE, MISS, DENIED };

TEST_F(ClientCacheTest, DecisionTable) {
  const char* const kOld = "{\"old\":1}";
  const char* const kSecure = "{\"secure\":1}";
  const char* const kPlaceholder = "{\"dummy_json\":[]}";
  // entry / secure afterwards: "" none, "old", "fresh", kPlaceholder, kSecure.
  const struct {
    int decision;
    State state;
    bool secureFilled;
    size_t requests;
    const char* entry;
    const char* secure;
  } rows[] = {
      {0, LIVE, false, 1, "old", ""},
      {0, MISS, false, 1, "", ""},
      {1, LIVE, false, 0, "old", ""},
      {1, MISS, false, 1, "fresh", ""},
      {1, DENIED, false, 1, "", ""},
      {2, LIVE, false, 1, "fresh", ""},
      {2, DENIED, false, 1, "fresh", ""},
      {3, LIVE, true, 0, "old", kSecure},
      {3, LIVE, false, 1, "old", ""},
      {3, MISS, false, 1, kPlaceholder, "fresh"},
      {3, DENIED, false, 1, "", ""},
      {4, LIVE, true, 1, kPlaceholder, "fresh"},
      {4, DENIED, false, 1, kPlaceholder, "fresh"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE("decision " + std::to_string(r.decision) + " state " + std::to_string(r.state) +
                 (r.secureFilled ? " secure" : ""));
    ASSERT_EQ(0, qxCSCacheClear(handle(), nullptr));
    SessionTokenMgmt store(url(kPath).c_str());
    ASSERT_EQ(0, store.deleteSessionToken());
    ASSERT_EQ(0, emulator().reset());
    json_t* old = json_loads(kOld, 0, nullptr);
    if (r.state == LIVE) update_cs_cache_info(handle(), QX_CS_CACHE_KIND_WEBSVC, kPath, old, 600);
    json_decref(old);
    if (r.secureFilled) {
      ASSERT_EQ(0, store.writeSessionToken(kSecure, 600));
    }
    std::unique_ptr<BusyFiller> busy(r.state == DENIED ? new BusyFiller(handle()) : nullptr);

    QXLogCapture log;
    auto c = client();
    ASSERT_EQ(0, c->GetWithCache(static_cast<cache_usage_decision>(r.decision), kPath,
                                 WEBSVC_RESPONSE_JSON, 3600));
    busy.reset();
    EXPECT_EQ(200, c->getHttpCode());
    EXPECT_EQ(r.requests, gets(kPath));
    EXPECT_EQ(r.requests == 0, c->isServedFromCache());
    if (r.requests == 0) {
      EXPECT_EQ(r.decision == 3 ? kSecure : "{\"old\": 1}", c->getResponseBody());
    } else {
      EXPECT_NE(std::string::npos, c->getResponseBody().find(kFresh));
    }
    EXPECT_EQ(r.decision != 0, log.contains("Checking cache before/after web-api for path:"));

    std::string value, want = r.entry == std::string("old") ? kOld : r.entry;
    stored(kPath, &value);
    EXPECT_TRUE(want == "fresh" ? value.find(kFresh) != std::string::npos : value == want) << value;
    std::string secure = r.secure == std::string("fresh") ? c->getResponseBody() : r.secure;
    EXPECT_EQ(secure, store.readSessionToken());
  }
}

TEST_F(ClientCacheTest, TimeToLiveFromTheServer) {
  const struct {
    const char* header;  // null: no header
    bool mock;
    long long ttl;
  } rows[] = {
      {"5", false, 300},    {"-1", false, 2},
      {"-7", false, 1234},  {"99999999", false, QX_CS_CACHE_MAX_TTL},
      {nullptr, true, 300},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.header ? r.header : r.mock ? "mock" : "none");
    std::string cfg =
        r.header ? std::string("{\"cacheValidity\":{\"") + kPath + "\":\"" + r.header + "\"}}"
                 : std::string("{\"cacheValidity\":{\"") + kPath + "\":null}}";
    ASSERT_EQ(0, emulator().setConfig(cfg));
    auto c = client();
    if (r.mock) c->mockCacheTTL(5);
    ASSERT_EQ(0, c->GetWithCache(CACHE_USAGE_UPDATE_ONLY, kPath, WEBSVC_RESPONSE_JSON, 1234));
    QXCSCacheEntry e = stored(kPath);
    EXPECT_EQ(r.ttl, e.expires - e.stored);
  }
}

TEST_F(ClientCacheTest, TextAnswersAndAnswersNotCached) {
  // Plain text is wrapped into the cache and out of it.
  for (int i = 0; i < 2; ++i) {
    auto c = client();
    ASSERT_EQ(0,
              c->GetWithCache(CACHE_USAGE_READ_UPDATE, "arvion/ping", WEBSVC_RESPONSE_STRING, 60));
    EXPECT_EQ("pong\n", c->getResponseBody());
    EXPECT_EQ(i == 1, c->isServedFromCache());
  }
  EXPECT_EQ(1u, gets("arvion/ping"));
  // Text asked for as JSON, an error status: never cached, and the fill is
  // given back at once.
  ASSERT_EQ(0, emulator().addFault(kPath, "notjson"));
  for (const char* path : {kPath, "arvion/nothing"}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(0, client()->GetWithCache(CACHE_USAGE_READ_UPDATE, path, WEBSVC_RESPONSE_JSON, 60));
    EXPECT_EQ(0, stored(path).expires);
    std::thread other([&] {
      json_t* v = nullptr;
      EXPECT_EQ(QX_CS_CACHE_FILL, fetch_cs_cache_info_or_lock_with_retry(
                                      handle(), QX_CS_CACHE_KIND_WEBSVC, path, &v));
      release_cs_cache_lock(handle(), QX_CS_CACHE_KIND_WEBSVC, path);
    });
    other.join();
    EXPECT_EQ(0u, g_slept);
  }
}

TEST_F(ClientCacheTest, ManyProcessesMissingOneKeyMakeOneRequest) {
  T_setCSCacheSleeper(nullptr);
  const int kProcesses = 16;
  int gate[2];
  ASSERT_EQ(0, pipe(gate));
  auto body = [&](int) {
    close(gate[1]);
    char c;
    if (read(gate[0], &c, 1) != 0) return 2;  // all start when the gate closes
    try {
      auto cl = client();
      return cl->GetWithCache(CACHE_USAGE_READ_UPDATE, kPath, WEBSVC_RESPONSE_JSON, 600) == 0 &&
                     cl->getResponseBody().find(kFresh) != std::string::npos
                 ? 0
                 : 1;
    } catch (...) {
      return 1;
    }
  };
  EXPECT_EQ(0, qxRunChildren(kProcesses, body, [&] {
              close(gate[0]);
              close(gate[1]);
            }));
  EXPECT_EQ(1u, gets(kPath));
}

}  // namespace
