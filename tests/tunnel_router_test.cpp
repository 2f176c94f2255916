// The tunnel router: order of its sources, the shared cache file (exact
// bytes, damage, untrusted files, location, concurrent writers), the
// configuration readers and the iterator over its batches.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <list>
#include <string>
#include <vector>

#include "platform/qx_config.h"
#include "qxcurl/qx_lock_file.h"
#include "qxcurl/qx_status.h"
#include "qxcurl/websvc_tunnel_iterator.h"
#include "qxcurl/websvc_tunnel_router.h"
#include "testing/fixture/qx_test_env.h"
#include "testing/fixture/qx_test_process.h"
#include "tests/test_support.h"
#include "tunnel/qxwebsvcpxy_bpconf.h"

namespace {

using Names = std::list<std::string>;

const char kServers[] =
    "SERVER = LocalHost\nSERVER = s2\nMEDIA_SERVER = m1\nMEDIA_SERVER = S2\n"
    "WEB_SERVER_TUNNEL = LOCALHOST o1\nWEB_SERVER_TUNNEL = other o2\n";

class TunnelRouterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_root.ok()) << m_root.error();
    QXLockFile::T_setSleeper([](int) { qxSleepMs(5 + std::rand() % 20); });
    QXWebsvcTunnelRouter::T_setFallbackDir(fallbackDir().c_str());
    mkdir(fallbackDir().c_str(), 0700);
  }
  void TearDown() override {
    QXLockFile::T_setSleeper(nullptr);
    QXWebsvcTunnelRouter::T_setFallbackDir(nullptr);
  }
  std::string fallbackDir() const { return m_root.path("fallback"); }
  std::string cachePath() const { return m_root.path("arvion/websvctunnels.cache"); }
  void removeInstallDir() { ASSERT_EQ(0, system(("rm -rf " + m_root.path("arvion")).c_str())); }

  QXTestRoot m_root;
  QXLogCapture m_log;
};

TEST_F(TunnelRouterTest, SourcesComeInOrderBatchByBatch) {
  struct Case {
    const char* name;
    std::string use;  // WEB_SERVER_TUNNEL_USE
    bool known;       // a tunnel in memory and one in the cache file
    Names additional;
    std::vector<Names> batches;  // the walk; an empty batch ends it
  } cases[] = {
      {"use 0, nothing remembered", "0", false, {}, {{"o1"}, {""}, {"s2", "m1"}, {}}},
      {"use 0", "0", true, {}, {{"t0"}, {"o1"}, {"c1"}, {""}, {"s2", "m1"}, {}}},
      {"use 1: never direct", "1", true, {}, {{"t0"}, {"o1"}, {"c1"}, {"s2", "m1"}, {}}},
      {"use 2: direct only, every time", "2", true, {}, {{""}, {""}, {""}}},
      {"additional servers", "2", true, {"a1", "a2"}, {{"t0"}, {"c1"}, {""}, {"a1", "a2"}, {}}},
      {"additional servers alone", "2", false, {"a1"}, {{""}, {"a1"}, {}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(m_root.writeConfig("WEB_SERVER_TUNNEL_USE = " + c.use + "\n" + kServers));
    unlink(cachePath().c_str());
    QXWebsvcTunnelRouter router;
    router.setAdditionalTunnelServers(c.additional);
    if (c.known) {
      ASSERT_TRUE(qxWriteFile(cachePath(), "\r\nLOCALHOST = c1\r\nother = x1"));
      router.m_lastTunnel = "t0";
    }
    std::string master = "localhost";
    for (const Names& batch : c.batches) EXPECT_EQ(batch, router.getWebsvcTunnelServers(master));
    EXPECT_EQ(c.batches.back(), router.getWebsvcTunnelServers(master));
    router.resetState();
    EXPECT_EQ(c.batches.front(), router.getWebsvcTunnelServers(master));
  }
}

TEST_F(TunnelRouterTest, CacheFileBytesAfterAddAndReset) {
  QXWebsvcTunnelRouter router;
  struct Step {
    bool add;
    std::string master, tunnel;
    int status;
    std::string bytes;
  } steps[] = {
      {true, "m", "t1", 0, "\r\nm = t1"},
      {true, "M", "T1", 0, "\r\nm = t1"},  // already there, in any letter case
      {true, "m", "t2", 0, "\r\nm = t1\r\nm = t2"},
      {true, "o", "t3", 0, "\r\nm = t1\r\nm = t2\r\no = t3"},
      {true, "p", "t4", 0, "\r\nm = t1\r\nm = t2\r\no = t3\r\np = t4"},
      {false, "M", "", 0, "o = t3\np = t4\n"},
      {true, "m", "t5", 0, "o = t3\np = t4\n\r\nm = t5"},
      {false, "x", "", 0, "o = t3\np = t4\nm = t5\n"},
      // Names that would not read back as written are refused.
      {true, "m", "two words", QX_ERR_BAD_ARGUMENT, "o = t3\np = t4\nm = t5\n"},
      {true, "m\r\nevil", "a=b", QX_ERR_BAD_ARGUMENT, "o = t3\np = t4\nm = t5\n"},
  };
  for (Step& s : steps) {
    SCOPED_TRACE(s.master + " " + s.tunnel);
    EXPECT_EQ(s.status, s.add ? router.addTunnelServerToCache(s.master, s.tunnel)
                              : router.resetWebsvcTunnelServersCache(s.master));
    EXPECT_EQ(s.bytes, qxReadFile(cachePath()));
  }
}

TEST_F(TunnelRouterTest, DamagedCacheFileYieldsItsGoodEntries) {
  const std::string garbage("\r\n\0\xff\xfe=\x01", 8), nulKey("\r\nm\0x = bad", 12);
  ASSERT_TRUE(qxWriteFile(
      cachePath(), "\r\nm = t1\r\nno equals sign\r\nm = a = b" + garbage + nulKey + "\r\nm = t2"));
  QXWebsvcTunnelRouter router;
  std::string m = "m";
  Names tunnels;
  EXPECT_EQ(0, router.getTunnelsFromCache(m, tunnels));
  EXPECT_EQ((Names{"t1", "t2"}), tunnels);
  EXPECT_EQ(1u, m_log.count("Line with invalid formatting encountered. Missing '=' sign."));
  EXPECT_EQ(1u, m_log.count("Line with invalid formatting encountered. Multiple '=' signs."));
  // A rewrite keeps the other lines that parse, whatever bytes they hold.
  EXPECT_EQ(0, router.resetWebsvcTunnelServersCache("m"));
  EXPECT_EQ(garbage.substr(2) + "\n" + nulKey.substr(2) + "\n", qxReadFile(cachePath()));

  // Only the first MiB of a huge file is read, in whole lines.
  std::string huge = "\r\nm = first";
  while (huge.size() < (1u << 20) - 3) huge += "\r\nz = y";
  ASSERT_TRUE(qxWriteFile(cachePath(), huge + "\r\nm = beyond"));
  tunnels.clear();
  EXPECT_EQ(0, router.getTunnelsFromCache(m, tunnels));
  EXPECT_EQ(Names{"first"}, tunnels);
}

TEST_F(TunnelRouterTest, CacheLocation) {
  std::string path;
  EXPECT_EQ(0, getCacheFilePath(path, true, false));
  EXPECT_EQ(m_root.path("arvion/websvctunnels.lck"), path);
  // No install directory: only a router with the caller's own servers falls
  // back; the others fail with 142 and never write.
  removeInstallDir();
  QXWebsvcTunnelRouter plain;
  std::string m = "m", t = "t1";
  Names tunnels;
  EXPECT_EQ(QX_ERR_NO_INSTALL_DIR, plain.addTunnelServerToCache(m, t));
  EXPECT_EQ(QX_ERR_NO_INSTALL_DIR, plain.getTunnelsFromCache(m, tunnels));
  // No install root at all: the bare name, in the current directory.
  setenv("ARVION_ROOT", ("/" + std::string(1100, 'x')).c_str(), 1);
  EXPECT_EQ(0, getCacheFilePath(path, false, false));
  EXPECT_EQ("websvctunnels.cache", path);
  setenv("ARVION_ROOT", m_root.dir().c_str(), 1);
}

// In the fallback directory anyone may plant a file or a link at the cache's
// name: it is never read, appended to or written through.
TEST_F(TunnelRouterTest, UntrustedCacheFilesAreIgnoredAndNeverWritten) {
  removeInstallDir();
  const std::string cache = fallbackDir() + "/websvctunnels.cache", victim = m_root.path("v");
  const std::string planted = "\r\nm = evil";
  enum Plant { LINK, OTHER_OWNER, GROUP_WRITABLE, LOCK_LINK };
  for (Plant plant : {LINK, OTHER_OWNER, GROUP_WRITABLE, LOCK_LINK}) {
    SCOPED_TRACE(plant);
    ASSERT_EQ(0, system(("rm -rf " + fallbackDir() + "/*").c_str()));
    ASSERT_TRUE(qxWriteFile(victim, planted));
    if (plant == LINK || plant == LOCK_LINK) {
      ASSERT_EQ(0, symlink(victim.c_str(), plant == LINK
                                               ? cache.c_str()
                                               : (fallbackDir() + "/websvctunnels.lck").c_str()));
    } else {
      ASSERT_TRUE(qxWriteFile(cache, planted));
      ASSERT_EQ(0, plant == OTHER_OWNER ? chown(cache.c_str(), 65534, 65534)
                                        : chmod(cache.c_str(), 0664));
    }
    QXWebsvcTunnelRouter router;
    router.setAdditionalTunnelServers({"a1"});
    std::string m = "m", t = "t1";
    Names tunnels;
    router.getTunnelsFromCache(m, tunnels);
    EXPECT_EQ(Names(), tunnels);
    if (plant == LOCK_LINK) {
      EXPECT_EQ(0, router.addTunnelServerToCache(m, t));
      EXPECT_EQ("\r\nm = t1", qxReadFile(cache));
    } else {
      EXPECT_EQ(QX_ERR_FILE_OPEN, router.addTunnelServerToCache(m, t));
      EXPECT_TRUE(m_log.contains("; it is ignored."));
      // A reset replaces what was planted with a file of our own.
      EXPECT_EQ(0, router.resetWebsvcTunnelServersCache(m));
      struct stat st;
      ASSERT_EQ(0, lstat(cache.c_str(), &st));
      EXPECT_TRUE(S_ISREG(st.st_mode) && st.st_uid == geteuid() && st.st_size == 0);
    }
    EXPECT_EQ(planted, qxReadFile(victim));
  }
}

TEST_F(TunnelRouterTest, ConcurrentProcessesKeepEachOthersEntries) {
  EXPECT_EQ(0, qxRunChildren(8, [](int i) {
              std::srand(static_cast<unsigned>(getpid()));
              QXWebsvcTunnelRouter router;
              std::string m = "master" + std::to_string(i), a = "a", b = "b", c = "c", f = "f";
              int failed = 0;
              for (int k = 0; k < 10; ++k) {
                failed |=
                    router.addTunnelServerToCache(m, a) | router.addTunnelServerToCache(m, b) |
                    router.resetWebsvcTunnelServersCache(m) | router.addTunnelServerToCache(m, c);
              }
              return failed != 0 || router.addTunnelServerToCache(m, f) != 0 ? 1 : 0;
            }));
  QXWebsvcTunnelRouter router;
  for (int i = 0; i < 8; ++i) {
    std::string m = "master" + std::to_string(i);
    Names tunnels;
    router.getTunnelsFromCache(m, tunnels);
    EXPECT_EQ((Names{"c", "f"}), tunnels) << m;
  }
}

// An unreadable configuration leaves the readers' outputs alone and no
// tunnel to walk. (The iterator's walk is the asynchronous client's
// TunnelDownTakesTheNext.)
TEST_F(TunnelRouterTest, UnreadableConfiguration) {
  QXWebsvcTunnelRouter router;  // its answer from before must not outlive the change
  ASSERT_TRUE(m_root.writeConfig(std::string("WEB_SERVER_TUNNEL_USE = 0\n") + kServers));
  EXPECT_TRUE(router.useHttpTunnel());
  ASSERT_TRUE(qxWriteFile(m_root.path("arvion/arvion.conf"), std::string((1 << 20) + 1, '#')));
  qxConfigChanged();
  int value = -7;
  Names list{"kept"};
  std::string master = "master1";
  EXPECT_EQ(QX_ERR_FILE_NOT_FOUND, getTunnelUse(value));
  EXPECT_EQ(QX_ERR_FILE_NOT_FOUND, getTunnelOverrides(master, list));
  EXPECT_EQ(-7, value);
  EXPECT_EQ(Names{"kept"}, list);
  EXPECT_FALSE(router.useHttpTunnel());
  EXPECT_FALSE(QXWebsvcTunnelIterator(router, "localhost").hasNext());
}

}  // namespace
