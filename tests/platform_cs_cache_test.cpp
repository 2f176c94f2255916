#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <functional>
#include <string>

#include "qx_cs_cache.h"
#include "qx_status.h"
#include "qx_test_env.h"

namespace {

const int kKind = QX_CS_CACHE_KIND_WEBSVC;
time_t g_now = 1700000000;
time_t fakeClock(time_t* out) {
  if (out) *out = g_now;
  return g_now;
}
unsigned g_slept = 0;
void fakeSleep(unsigned ms) { g_slept += ms; }

class CSCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_root.ok()) << m_root.error();
    g_now = 1700000000;
    g_slept = 0;
    T_setCSCacheClock(fakeClock);
  }
  void TearDown() override {
    T_setCSCacheClock(nullptr);
    T_setCSCacheSleeper(nullptr);
  }
  // fetch's result; *text gets the value's JSON when live. A fill taken is
  // given back, so each call starts from the same state.
  int fetch(const std::string& key, std::string* text = nullptr, const std::string& h = "") {
    json_t* v = nullptr;
    int rc = fetch_cs_cache_info_or_lock_with_retry(h.empty() ? m_h : h, kKind, key, &v);
    if (rc == QX_CS_CACHE_FILL) release_cs_cache_lock(h.empty() ? m_h : h, kKind, key);
    if (text) {
      char* dump = v ? json_dumps(v, JSON_COMPACT | JSON_ENCODE_ANY) : nullptr;
      *text = dump ? dump : "";
      free(dump);
    }
    json_decref(v);
    return rc;
  }
  int store(const std::string& key, const char* json, int ttl, const std::string& h = "") {
    json_t* v = json_loads(json, JSON_DECODE_ANY, nullptr);
    int rc = update_cs_cache_info(h.empty() ? m_h : h, kKind, key, v, ttl);
    json_decref(v);
    return rc;
  }
  QXCSCacheEntry entry(const std::string& key) {
    std::vector<QXCSCacheEntry> all;
    EXPECT_EQ(0, qxCSCacheList(m_h, all));
    for (const auto& e : all) {
      if (e.key == key) return e;
    }
    return QXCSCacheEntry();
  }

  QXTestRoot m_root;
  std::string m_h = qxCSCacheHandle("Master1", 1556);
};

TEST_F(CSCacheTest, StoresPrivatelyAndExpiresByTtl) {
  EXPECT_EQ("master1:1556", m_h);
  EXPECT_EQ(QX_CS_CACHE_FILL, fetch("arvion/a"));
  ASSERT_EQ(0, store("arvion/a", "{\"x\":[1,2]}", 300));
  std::string text;
  EXPECT_EQ(0, fetch("arvion/a", &text));
  EXPECT_EQ("{\"x\":[1,2]}", text);

  struct stat st;
  std::string path = qxCSCacheEntryPath(m_h, kKind, "arvion/a");
  ASSERT_EQ(0, stat(path.c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);
  ASSERT_EQ(0, stat(qxCSCacheScopeDir(m_h).c_str(), &st));
  EXPECT_EQ(0700u, st.st_mode & 0777);
  ASSERT_EQ(0, stat(m_root.path("var/cache/websvc").c_str(), &st));
  EXPECT_EQ(01777u, st.st_mode & 07777);

  // Another server or port never sees the entry.
  EXPECT_EQ(QX_CS_CACHE_FILL, fetch("arvion/a", nullptr, qxCSCacheHandle("master1", 443)));
  EXPECT_EQ(QX_CS_CACHE_FILL, fetch("arvion/a", nullptr, qxCSCacheHandle("master2", 1556)));

  g_now += 299;
  EXPECT_EQ(0, fetch("arvion/a"));
  g_now += 1;
  EXPECT_EQ(QX_CS_CACHE_FILL, fetch("arvion/a"));
  g_now -= 3600;  // clock set back: stored "in the future" is not trusted
  EXPECT_EQ(QX_CS_CACHE_FILL, fetch("arvion/a"));
}

TEST_F(CSCacheTest, TtlIsCappedAndMustBePositive) {
  const struct {
    int ttl;
    int rc;
    long long life;
  } cases[] = {{1, 0, 1},
               {86400, 0, 86400},
               {INT_MAX, 0, QX_CS_CACHE_MAX_TTL},
               {0, QX_ERR_BAD_ARGUMENT, 0},
               {-1, QX_ERR_BAD_ARGUMENT, 0},
               {INT_MIN, QX_ERR_BAD_ARGUMENT, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.ttl);
    std::string key = "k" + std::to_string(c.ttl);
    EXPECT_EQ(c.rc, store(key, "{}", c.ttl));
    QXCSCacheEntry e = entry(key);
    EXPECT_EQ(c.life, e.expires - e.stored);
    if (c.rc == 0) {
      EXPECT_EQ(g_now, e.stored);
    }
  }
  EXPECT_EQ(QX_ERR_BAD_ARGUMENT, update_cs_cache_info(m_h, kKind, "k", nullptr, 5));
  json_t* obj = json_object();
  EXPECT_EQ(QX_ERR_BAD_ARGUMENT, update_cs_cache_info(m_h, 1, "k", obj, 5));
  json_decref(obj);
  json_t* v = nullptr;
  EXPECT_EQ(QX_ERR_BAD_ARGUMENT, fetch_cs_cache_info_or_lock_with_retry("", kKind, "k", &v));
}

TEST_F(CSCacheTest, DamagedForeignOrLinkedEntriesAreMisses) {
  ASSERT_EQ(0, store("good", "{\"secret\":\"mine\"}", 600));
  const std::string good = qxCSCacheEntryPath(m_h, kKind, "good");
  const std::string text = qxReadFile(good);
  const std::string victim = qxCSCacheEntryPath(m_h, kKind, "victim");
  const struct {
    const char* name;
    std::function<bool()> plant;
  } cases[] = {
      {"truncated", [&] { return qxWriteFile(victim, text.substr(0, text.size() / 2)); }},
      {"garbage", [&] { return qxWriteFile(victim, std::string("\x00\xff{[\"", 5)); }},
      {"empty", [&] { return qxWriteFile(victim, ""); }},
      {"another key's entry", [&] { return qxWriteFile(victim, text); }},
      {"symbolic link", [&] { return symlink(good.c_str(), victim.c_str()) == 0; }},
      {"group-writable",
       [&] { return qxWriteFile(victim, text) && chmod(victim.c_str(), 0620) == 0; }},
      {"another owner",
       [&] {
         return geteuid() == 0 && qxWriteFile(victim, text) &&
                chown(victim.c_str(), 65534, 65534) == 0;
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    unlink(victim.c_str());
    if (!c.plant()) {
      ASSERT_EQ(std::string("another owner"), c.name) << "cannot plant";
      continue;  // not root: no other owner to give the file to
    }
    std::string got = "unset";
    EXPECT_EQ(QX_CS_CACHE_FILL, fetch("victim", &got));
    EXPECT_EQ("", got);
  }
  // Another scope's entry copied over ours is refused too.
  std::string other = qxCSCacheHandle("master2", 1556);
  ASSERT_EQ(0, store("good", "{}", 600, other));
  ASSERT_TRUE(qxWriteFile(good, qxReadFile(qxCSCacheEntryPath(other, kKind, "good"))));
  EXPECT_EQ(QX_CS_CACHE_FILL, fetch("good"));
}

TEST_F(CSCacheTest, KeysNeverBecomePaths) {
  for (std::string key : {std::string("../../etc/passwd"), std::string("/etc/passwd"),
                          std::string(5000, 'k'), std::string("a\0b", 3), std::string("")}) {
    SCOPED_TRACE(key.substr(0, 40));
    std::string path = qxCSCacheEntryPath(m_h, kKind, key);
    std::string dir = qxCSCacheScopeDir(m_h) + "/";
    ASSERT_EQ(0u, path.find(dir));
    EXPECT_EQ(std::string::npos, path.find('/', dir.size()));
    ASSERT_EQ(0, store(key, "[]", 60));
    EXPECT_EQ(0, fetch(key));
  }
  EXPECT_NE(0, access(m_root.path("etc").c_str(), F_OK));
  std::vector<QXCSCacheEntry> all;
  ASSERT_EQ(0, qxCSCacheList(m_h, all));
  EXPECT_EQ(5u, all.size());
  EXPECT_EQ("", all.front().key);
  int removed = 0;
  EXPECT_EQ(0, qxCSCacheClear(m_h, &removed));
  EXPECT_EQ(5, removed);
  EXPECT_EQ(0, qxCSCacheList(m_h, all));
  EXPECT_TRUE(all.empty());
}

// Another process holds the fill: a waiter gives up after the bound, and takes
// over at once when that process ends without storing.
TEST_F(CSCacheTest, WaitIsBoundedAndACrashedFillerLetsGo) {
  T_setCSCacheSleeper(fakeSleep);
  int toChild[2], fromChild[2];
  ASSERT_EQ(0, pipe(toChild));
  ASSERT_EQ(0, pipe(fromChild));
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    json_t* v = nullptr;
    char c = fetch_cs_cache_info_or_lock_with_retry(m_h, kKind, "k", &v) == QX_CS_CACHE_FILL;
    if (write(fromChild[1], &c, 1) != 1) _exit(1);
    if (read(toChild[0], &c, 1) < 0) _exit(1);
    _exit(0);  // ends holding the fill, as a crash would
  }
  char c = 0;
  ASSERT_EQ(1, read(fromChild[0], &c, 1));
  ASSERT_EQ(1, c);
  EXPECT_EQ(QX_ERR_LOCK, fetch("k"));
  EXPECT_GE(g_slept, QX_CS_CACHE_WAIT_MS);
  EXPECT_LT(g_slept, QX_CS_CACHE_WAIT_MS + 200);
  ASSERT_EQ(1, write(toChild[1], &c, 1));
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_EQ(QX_CS_CACHE_FILL, fetch("k"));
  for (int fd : {toChild[0], toChild[1], fromChild[0], fromChild[1]}) close(fd);
}

}  // namespace
