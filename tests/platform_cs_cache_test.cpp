#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "platform/qx_cs_cache.h"
#include "qxcurl/qx_status.h"
#include "testing/fixture/qx_test_env.h"

namespace {

const int kKind = QX_CS_CACHE_KIND_WEBSVC;
time_t g_now = 1700000000;
time_t fakeClock(time_t*) { return g_now; }
unsigned g_slept = 0;
void fakeSleep(unsigned ms) { g_slept += ms; }

class CSCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_root.ok()) << m_root.error();
    T_setCSCacheClock(fakeClock);
  }
  void TearDown() override {
    T_setCSCacheClock(nullptr);
    T_setCSCacheSleeper(nullptr);
  }
  // fetch's result and the value's text; a fill taken is given back.
  int fetch(const std::string& key, std::string* text = nullptr, const std::string& h = "") {
    std::string t;
    int rc = fetch_cs_cache_info_or_lock_with_retry(h.empty() ? m_h : h, kKind, key, &t);
    if (rc == QX_CS_CACHE_FILL) release_cs_cache_lock(h.empty() ? m_h : h, kKind, key);
    if (text) *text = t;
    return rc;
  }
  int store(const std::string& key, const char* json, int ttl, const std::string& h = "") {
    json_t* v = json_loads(json, JSON_DECODE_ANY, nullptr);
    int rc = update_cs_cache_info(h.empty() ? m_h : h, kKind, key, v, ttl);
    json_decref(v);
    return rc;
  }

  QXTestRoot m_root;
  std::string m_h = qxCSCacheHandle("Master1", 1556);
};

TEST_F(CSCacheTest, StoresPrivatelyAndExpiresByTtl) {
  EXPECT_EQ(QX_CS_CACHE_FILL, fetch("arvion/a"));
  ASSERT_EQ(0, store("arvion/a", "{\"x\":[1,2]}", 300));
  std::string text;
  EXPECT_EQ(0, fetch("arvion/a", &text));
  EXPECT_EQ("{\"x\": [1, 2]}", text);  // as json_dumps with flags 0 gives it
  json_t* v = nullptr;
  EXPECT_EQ(0, fetch_cs_cache_info_or_lock_with_retry(m_h, kKind, "arvion/a", &v));
  EXPECT_EQ(2u, json_array_size(json_object_get(v, "x")));
  json_decref(v);

  struct stat st;
  for (const auto& [path, mode] : {std::make_pair(qxCSCacheEntryPath(m_h, kKind, "arvion/a"), 0600),
                                   std::make_pair(qxCSCacheScopeDir(m_h), 0700),
                                   std::make_pair(m_root.path("var/cache/websvc"), 01777)}) {
    ASSERT_EQ(0, stat(path.c_str(), &st)) << path;
    EXPECT_EQ(static_cast<mode_t>(mode), st.st_mode & 07777) << path;
  }
  // Another server or port never sees the entry.
  EXPECT_EQ(QX_CS_CACHE_FILL, fetch("arvion/a", nullptr, qxCSCacheHandle("master1", 443)));
  EXPECT_EQ(QX_CS_CACHE_FILL, fetch("arvion/a", nullptr, qxCSCacheHandle("master2", 1556)));

  g_now += 299;
  EXPECT_EQ(0, fetch("arvion/a"));
  g_now += 1;
  EXPECT_EQ(QX_CS_CACHE_FILL, fetch("arvion/a"));
  ASSERT_EQ(0, store("arvion/a", "[]", 300));
  g_now -= 3600;  // clock set back: an entry stored "in the future" is not trusted
  EXPECT_EQ(QX_CS_CACHE_FILL, fetch("arvion/a"));
  EXPECT_EQ(QX_ERR_BAD_ARGUMENT, store("arvion/a", "[]", 0));
}

TEST_F(CSCacheTest, DamagedForeignOrLinkedEntriesAreMisses) {
  ASSERT_EQ(0, store("good", "{\"secret\":\"mine\"}", 600));
  const std::string good = qxCSCacheEntryPath(m_h, kKind, "good");
  const std::string text = qxReadFile(good);
  const std::string victim = qxCSCacheEntryPath(m_h, kKind, "victim");
  std::string otherScope = qxCSCacheHandle("master2", 1556);
  ASSERT_EQ(0, store("victim", "{}", 600, otherScope));
  const struct {
    const char* name;
    std::function<bool()> plant;
  } cases[] = {
      {"truncated", [&] { return qxWriteFile(victim, text.substr(0, text.size() - 3)); }},
      {"garbage", [&] { return qxWriteFile(victim, std::string("\x00\xff{[\"\n", 6)); }},
      {"another key's entry", [&] { return qxWriteFile(victim, text); }},
      {"another scope's entry",
       [&] {
         return qxWriteFile(victim, qxReadFile(qxCSCacheEntryPath(otherScope, kKind, "victim")));
       }},
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
}

TEST_F(CSCacheTest, KeysNeverBecomePaths) {
  const std::string dir = qxCSCacheScopeDir(m_h) + "/";
  for (const std::string& key : {std::string("../../etc/passwd"), std::string(5000, 'k'),
                                 std::string("a\0b", 3), std::string()}) {
    std::string path = qxCSCacheEntryPath(m_h, kKind, key);
    ASSERT_EQ(0u, path.find(dir));
    EXPECT_EQ(std::string::npos, path.find('/', dir.size()));
    ASSERT_EQ(0, store(key, "[]", 60));
    EXPECT_EQ(0, fetch(key));
  }
  EXPECT_NE(0, access(m_root.path("etc").c_str(), F_OK));
  std::vector<QXCSCacheEntry> all;
  ASSERT_EQ(0, qxCSCacheList(m_h, all));
  ASSERT_EQ(4u, all.size());
  EXPECT_EQ("../../etc/passwd", all[1].key);  // sorted; "" first
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
    std::string t;
    char c = fetch_cs_cache_info_or_lock_with_retry(m_h, kKind, "k", &t) == QX_CS_CACHE_FILL;
    if (write(fromChild[1], &c, 1) != 1 || read(toChild[0], &c, 1) < 0) _exit(1);
    _exit(0);  // ends holding the fill, as a crash would
  }
  char c = 0;
  ASSERT_EQ(1, read(fromChild[0], &c, 1));
  ASSERT_EQ(1, c);
  EXPECT_EQ(QX_ERR_LOCK, fetch("k"));
  EXPECT_GE(g_slept, QX_CS_CACHE_WAIT_MS);
  EXPECT_LT(g_slept, QX_CS_CACHE_WAIT_MS + 200);
  ASSERT_EQ(1, write(toChild[1], &c, 1));
  ASSERT_EQ(pid, waitpid(pid, nullptr, 0));
  EXPECT_EQ(QX_CS_CACHE_FILL, fetch("k"));
  for (int fd : {toChild[0], toChild[1], fromChild[0], fromChild[1]}) close(fd);
}

}  // namespace
