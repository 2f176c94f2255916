// The tunnel router: order of its sources, the shared cache file (exact
// bytes, damage, untrusted files, concurrent writers), its location, the
// configuration readers and the iterator over its batches.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <list>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "qx_lock.h"
#include "qx_lock_file.h"
#include "qx_log.h"
#include "qx_status.h"
#include "qx_test_env.h"
#include "qx_test_process.h"
#include "tunnel/qxwebsvcpxy_bpconf.h"
#include "websvc_tunnel_iterator.h"
#include "websvc_tunnel_router.h"

namespace {

using Names = std::list<std::string>;

const char kFullConfig[] =
    "SERVER = LocalHost\nSERVER = s2\nMEDIA_SERVER = m1\nMEDIA_SERVER = S2\n"
    "WEB_SERVER_TUNNEL = localhost o1\nWEB_SERVER_TUNNEL = other o2\n";
const char kCache[] = "\r\nLOCALHOST = c1\r\nother = x1";

std::vector<int> g_lockSleeps;

class TunnelRouterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_root.ok()) << m_root.error();
    g_lockSleeps.clear();
    QXLockFile::T_setSleeper([](int s) { g_lockSleeps.push_back(s); });
    QXWebsvcTunnelRouter::T_setFallbackDir(fallbackDir().c_str());
    mkdir(fallbackDir().c_str(), 0700);
  }
  void TearDown() override {
    QXLockFile::T_setSleeper(nullptr);
    QXWebsvcTunnelRouter::T_setFallbackDir(nullptr);
  }
  std::string fallbackDir() const { return m_root.path("fallback"); }
  std::string cachePath() const { return m_root.path("arvion/websvctunnels.cache"); }
  std::string cacheBytes() const { return qxReadFile(cachePath()); }

  QXTestRoot m_root;
  QXLogCapture m_log;
};

TEST_F(TunnelRouterTest, SourcesComeInOrderBatchByBatch) {
  struct Case {
    const char* name;
    std::string config;
    std::string cache;  // empty: no file
    std::string memory;
    Names additional;
    std::vector<Names> batches;  // the walk; an empty batch ends it
  } cases[] = {
      {"use 0, nothing known",
       "WEB_SERVER_TUNNEL_USE = 0\nSERVER = localhost\nSERVER = s2\nMEDIA_SERVER = m1\n"
       "MEDIA_SERVER = S2\n",
       "",
       "",
       {},
       {{""}, {"s2", "m1"}, {}}},
      {"use 0",
       std::string("WEB_SERVER_TUNNEL_USE = 0\n") + kFullConfig,
       kCache,
       "t0",
       {},
       {{"t0"}, {"o1"}, {"c1"}, {""}, {"s2", "m1"}, {}}},
      {"use 1: never direct",
       std::string("WEB_SERVER_TUNNEL_USE = 1\n") + kFullConfig,
       kCache,
       "t0",
       {},
       {{"t0"}, {"o1"}, {"c1"}, {"s2", "m1"}, {}}},
      {"use 2: direct only, every time",
       std::string("WEB_SERVER_TUNNEL_USE = 2\n") + kFullConfig,
       kCache,
       "t0",
       {},
       {{""}, {""}, {""}}},
      {"additional servers: configuration not read",
       std::string("WEB_SERVER_TUNNEL_USE = 2\n") + kFullConfig,
       kCache,
       "t0",
       {"a1", "a2"},
       {{"t0"}, {"c1"}, {""}, {"a1", "a2"}, {}}},
      {"additional servers alone", "", "", "", {"a1"}, {{""}, {"a1"}, {}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(m_root.writeConfig(c.config));
    unlink(cachePath().c_str());
    if (!c.cache.empty()) {
      ASSERT_TRUE(qxWriteFile(cachePath(), c.cache));
    }
    QXWebsvcTunnelRouter router;
    router.setAdditionalTunnelServers(c.additional);
    router.m_lastTunnel = c.memory;
    std::string master = "localhost";
    for (size_t i = 0; i < c.batches.size(); ++i) {
      EXPECT_EQ(c.batches[i], router.getWebsvcTunnelServers(master)) << "batch " << i;
    }
    if (c.batches.back().empty()) {
      EXPECT_EQ(Names(), router.getWebsvcTunnelServers(master));
    }
    // resetState starts the walk again.
    router.resetState();
    EXPECT_EQ(c.batches.front(), router.getWebsvcTunnelServers(master));
  }
}

TEST_F(TunnelRouterTest, ChangedTunnelUseRestartsAndUnknownStateEnds) {
  ASSERT_TRUE(m_root.writeConfig("WEB_SERVER_TUNNEL_USE = 1\nSERVER = localhost\n"));
  QXWebsvcTunnelRouter router;
  std::string master = "localhost";
  EXPECT_EQ(Names(), router.getWebsvcTunnelServers(master));  // SERVER list: only the master
  ASSERT_TRUE(m_root.writeConfig("WEB_SERVER_TUNNEL_USE = 0\nSERVER = localhost\n"));
  EXPECT_EQ(Names{""}, router.getWebsvcTunnelServers(master));

  router.m_lookupState = 42;
  EXPECT_EQ(Names(), router.getWebsvcTunnelServers(master));
  EXPECT_TRUE(m_log.contains(
      QXLOG_ERROR, "Fatal error: Unknown Router lookup state encountrered. state = [42]."));
}

// An unreadable configuration keeps the lookup at the overrides until it
// can be read again; they are not skipped.
TEST_F(TunnelRouterTest, UnreadableConfigurationHoldsTheOverridesState) {
  ASSERT_TRUE(m_root.writeConfig(std::string("WEB_SERVER_TUNNEL_USE = 0\n") + kFullConfig));
  QXWebsvcTunnelRouter router;
  router.m_lastTunnel = "t0";
  std::string master = "localhost";
  ASSERT_EQ(Names{"t0"}, router.getWebsvcTunnelServers(master));
  const std::string conf = m_root.path("arvion/arvion.conf");
  ASSERT_TRUE(qxWriteFile(conf, std::string((1 << 20) + 1, '#')));
  std::thread repair([&] {
    qxSleepMs(100);
    qxWriteFile(conf + ".new", std::string("WEB_SERVER_TUNNEL_USE = 0\n") + kFullConfig);
    rename((conf + ".new").c_str(), conf.c_str());
  });
  EXPECT_EQ(Names{"o1"}, router.getWebsvcTunnelServers(master));
  repair.join();
  EXPECT_TRUE(m_log.contains(QXLOG_ERROR, "Master config read failed with error: " +
                                              std::to_string(QX_ERR_FILE_NOT_FOUND)));
}

TEST_F(TunnelRouterTest, CacheFileBytesAfterAddAndReset) {
  QXWebsvcTunnelRouter router;
  struct Step {
    const char* op;  // "add" or "reset"
    std::string master, tunnel;
    int status;
    std::string bytes;
  } steps[] = {
      {"add", "m", "t1", 0, "\r\nm = t1"},
      {"add", "M", "T1", 0, "\r\nm = t1"},  // already there, in any letter case
      {"add", "m", "t2", 0, "\r\nm = t1\r\nm = t2"},
      {"add", "o", "t3", 0, "\r\nm = t1\r\nm = t2\r\no = t3"},
      {"add", "p", "t4", 0, "\r\nm = t1\r\nm = t2\r\no = t3\r\np = t4"},
      {"reset", "M", "", 0, "o = t3\np = t4\n"},
      {"add", "m", "t5", 0, "o = t3\np = t4\n\r\nm = t5"},
      {"reset", "x", "", 0, "o = t3\np = t4\nm = t5\n"},
      // Names that would not read back as written are refused.
      {"add", "m", "two words", QX_ERR_BAD_ARGUMENT, "o = t3\np = t4\nm = t5\n"},
      {"add", "m", "a=b", QX_ERR_BAD_ARGUMENT, "o = t3\np = t4\nm = t5\n"},
      {"add", "m\r\nevil", "t", QX_ERR_BAD_ARGUMENT, "o = t3\np = t4\nm = t5\n"},
  };
  for (Step& s : steps) {
    SCOPED_TRACE(std::string(s.op) + " " + s.master + " " + s.tunnel);
    int rc = std::string(s.op) == "add" ? router.addTunnelServerToCache(s.master, s.tunnel)
                                        : router.resetWebsvcTunnelServersCache(s.master);
    EXPECT_EQ(s.status, rc);
    EXPECT_EQ(s.bytes, cacheBytes());
  }
  struct stat st;
  ASSERT_EQ(0, stat(cachePath().c_str(), &st));
  EXPECT_EQ(0644u, st.st_mode & 07777);

  // Success remembers the tunnel in memory too; resetting the file keeps it.
  ASSERT_TRUE(m_root.writeConfig("WEB_SERVER_TUNNEL_USE = 0\n"));
  std::string m = "m", t = "t9";
  router.updateWebsvcTunnelServersCache(m, t);
  EXPECT_EQ("t9", router.m_lastTunnel);
  EXPECT_EQ(0, router.resetWebsvcTunnelServersCache("m"));
  router.resetState();
  EXPECT_EQ(Names{"t9"}, router.getWebsvcTunnelServers(m));
}

TEST_F(TunnelRouterTest, DamagedCacheFileYieldsItsGoodEntries) {
  const std::string garbage("\r\n\0\xff\xfe=\x01", 8);
  const std::string nulKey("\r\nm\0x = bad", 12);
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
  EXPECT_EQ(garbage.substr(2) + "\n" + nulKey.substr(2) + "\n", cacheBytes());

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
  EXPECT_EQ(0, getCacheFilePath(path, false, false));
  EXPECT_EQ(cachePath(), path);
  EXPECT_EQ(0, getCacheFilePath(path, true, false));
  EXPECT_EQ(m_root.path("arvion/websvctunnels.lck"), path);

  // No install directory: only a router with the caller's own servers falls
  // back, and the others fail with 142 and never write.
  ASSERT_EQ(0, system(("rm -rf " + m_root.path("arvion")).c_str()));
  EXPECT_EQ(QX_ERR_NO_INSTALL_DIR, getCacheFilePath(path, false, false));
  EXPECT_EQ(0, getCacheFilePath(path, false, true));
  EXPECT_EQ(fallbackDir() + "/websvctunnels.cache", path);
  QXWebsvcTunnelRouter plain, withServers;
  withServers.setAdditionalTunnelServers({"a1"});
  std::string m = "m", t = "t1";
  Names tunnels;
  EXPECT_EQ(QX_ERR_NO_INSTALL_DIR, plain.addTunnelServerToCache(m, t));
  EXPECT_EQ(QX_ERR_NO_INSTALL_DIR, plain.getTunnelsFromCache(m, tunnels));
  EXPECT_EQ(QX_ERR_NO_INSTALL_DIR, plain.resetWebsvcTunnelServersCache(m));
  EXPECT_EQ(0, withServers.addTunnelServerToCache(m, t));
  EXPECT_EQ("\r\nm = t1", qxReadFile(fallbackDir() + "/websvctunnels.cache"));

  // No install root at all: the bare name, in the current directory.
  setenv("ARVION_ROOT", ("/" + std::string(1100, 'x')).c_str(), 1);
  EXPECT_EQ(0, getCacheFilePath(path, false, false));
  EXPECT_EQ("websvctunnels.cache", path);
  EXPECT_EQ(0, getCacheFilePath(path, true, true));
  EXPECT_EQ(fallbackDir() + "/websvctunnels.lck", path);
  setenv("ARVION_ROOT", m_root.dir().c_str(), 1);
}

// In the fallback directory anyone may plant a file or a link at the cache's
// name: it is never read, appended to or written through.
TEST_F(TunnelRouterTest, UntrustedCacheFilesAreIgnoredAndNeverWritten) {
  ASSERT_EQ(0, system(("rm -rf " + m_root.path("arvion")).c_str()));
  const std::string cache = fallbackDir() + "/websvctunnels.cache";
  const std::string victim = m_root.path("victim");
  const std::string planted = "\r\nm = evil";
  enum Plant { LINK, OTHER_OWNER, GROUP_WRITABLE, LOCK_LINK };
  for (Plant plant : {LINK, OTHER_OWNER, GROUP_WRITABLE, LOCK_LINK}) {
    SCOPED_TRACE(plant);
    ASSERT_EQ(0, system(("rm -rf " + fallbackDir() + "/*").c_str()));
    ASSERT_TRUE(qxWriteFile(victim, planted));
    if (plant == LINK) {
      ASSERT_EQ(0, symlink(victim.c_str(), cache.c_str()));
    } else if (plant == LOCK_LINK) {
      ASSERT_EQ(0, symlink(victim.c_str(), (fallbackDir() + "/websvctunnels.lck").c_str()));
    } else {
      ASSERT_TRUE(qxWriteFile(cache, planted));
      if (plant == OTHER_OWNER) {
        ASSERT_EQ(0, chown(cache.c_str(), 65534, 65534));
      } else {
        ASSERT_EQ(0, chmod(cache.c_str(), 0664));
      }
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
      EXPECT_TRUE(m_log.contains(QXLOG_ERROR, "; it is ignored."));
      // A reset replaces what was planted with a file of our own.
      EXPECT_EQ(0, router.resetWebsvcTunnelServersCache(m));
      struct stat st;
      ASSERT_EQ(0, lstat(cache.c_str(), &st));
      EXPECT_TRUE(S_ISREG(st.st_mode));
      EXPECT_EQ(geteuid(), st.st_uid);
      EXPECT_EQ("", qxReadFile(cache));
    }
    EXPECT_EQ(planted, qxReadFile(victim));
  }
}

TEST_F(TunnelRouterTest, ContendedLockGivesAnEmptyContribution) {
  ASSERT_TRUE(qxWriteFile(cachePath(), kCache));
  int err = 0;
  const std::string lock = m_root.path("arvion/websvctunnels.lck");
  int held = ManageLockFile(lock.c_str(), QXLOCK_TAKE, -1, &err);
  ASSERT_NE(-1, held);
  QXWebsvcTunnelRouter router;
  std::string m = "localhost", t = "t1";
  Names tunnels;
  EXPECT_EQ(QX_ERR_LOCK, router.getTunnelsFromCache(m, tunnels));
  EXPECT_EQ(QX_ERR_LOCK, router.addTunnelServerToCache(m, t));
  EXPECT_EQ(Names(), tunnels);
  EXPECT_EQ(std::vector<int>(20, 5), g_lockSleeps);  // ten tries, five seconds apart, each
  EXPECT_EQ(2u, m_log.count("Failed to lock the cache file."));
  ManageLockFile(lock.c_str(), QXLOCK_RELEASE, held, &err);
  EXPECT_EQ(kCache, cacheBytes());
}

TEST_F(TunnelRouterTest, ConcurrentProcessesKeepEachOthersEntries) {
  QXLockFile::T_setSleeper([](int) { qxSleepMs(5 + std::rand() % 20); });
  std::vector<pid_t> children;
  for (int i = 0; i < 8; ++i) {
    pid_t pid = fork();
    ASSERT_NE(-1, pid);
    if (pid == 0) {
      std::srand(static_cast<unsigned>(getpid()));
      QXWebsvcTunnelRouter router;
      std::string m = "master" + std::to_string(i), a = "a", b = "b", c = "c", f = "f";
      int failed = 0;
      for (int k = 0; k < 10; ++k) {
        failed |= router.addTunnelServerToCache(m, a) | router.addTunnelServerToCache(m, b) |
                  router.resetWebsvcTunnelServersCache(m) | router.addTunnelServerToCache(m, c);
      }
      failed |= router.addTunnelServerToCache(m, f);
      _exit(failed != 0);
    }
    children.push_back(pid);
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child " << pid;
  }
  QXWebsvcTunnelRouter router;
  for (int i = 0; i < 8; ++i) {
    std::string m = "master" + std::to_string(i);
    Names tunnels;
    router.getTunnelsFromCache(m, tunnels);
    EXPECT_EQ((Names{"c", "f"}), tunnels) << m;
  }
}

TEST_F(TunnelRouterTest, ConfigurationReaders) {
  struct Merge {
    Names servers, media, expected;
    size_t logged;
  } merges[] = {
      {{"a", "b"}, {"B", "c"}, {"a", "b", "c"}, 1},
      {{}, {"m1", "m1"}, {"m1", "m1"}, 0},  // copied whole
      {{"a"}, {}, {"a"}, 0},
      {{"a"}, {"c", "C"}, {"a", "c"}, 1},
  };
  for (Merge& c : merges) {
    m_log.clear();
    addMediaServersToServers(c.servers, c.media);
    EXPECT_EQ(c.expected, c.servers);
    EXPECT_EQ(c.logged, m_log.count("to the tunnels' list."));
  }
  std::ostringstream os;
  os << Names{"a", "b"};
  EXPECT_EQ("a, b, ", os.str());

  // Unreadable: each reader says so under its own tag and leaves its output.
  ASSERT_TRUE(qxWriteFile(m_root.path("arvion/arvion.conf"), std::string((1 << 20) + 1, '#')));
  int value = -7;
  Names list{"kept"};
  std::string master = "m";
  EXPECT_EQ(QX_ERR_FILE_NOT_FOUND, getTunnelUse(value));
  EXPECT_EQ(QX_ERR_FILE_NOT_FOUND, getWebServerConnectionTimeout(value));
  EXPECT_EQ(QX_ERR_FILE_NOT_FOUND, getTunnelEnabled(value));
  EXPECT_EQ(QX_ERR_FILE_NOT_FOUND, getServersListFromConfig(list, true));
  EXPECT_EQ(QX_ERR_FILE_NOT_FOUND, getTunnelOverrides(master, list));
  EXPECT_EQ(-7, value);
  EXPECT_EQ(Names{"kept"}, list);
  std::vector<std::string> tags;
  for (const QXLogLine& l : m_log.lines())
    if (l.text == "Cannot access master configuration.\n") tags.push_back(l.tag);
  EXPECT_EQ((std::vector<std::string>{"getTunnelUse()", "getWebServerConnectionTimeout()",
                                      "getTunnelEnabled()", "getServersListFromConfig()",
                                      "getTunnelOverrides()"}),
            tags);
  QXWebsvcTunnelRouter router;
  EXPECT_FALSE(router.useHttpTunnel());
  EXPECT_EQ(0, router.getWebServerConnectTimeout());

  ASSERT_TRUE(
      m_root.writeConfig("WEB_SERVER_CONNECT_TIMEOUT = 7\nWEB_SERVER_TUNNEL_ENABLE = yes\n"
                         "WEB_SERVER_TUNNEL = MASTER1 t1\nWEB_SERVER_TUNNEL = other t2\n"
                         "WEB_SERVER_TUNNEL = master1 t3\n"));
  EXPECT_EQ(0, getTunnelEnabled(value));
  EXPECT_EQ(1, value);
  EXPECT_EQ(7, router.getWebServerConnectTimeout());
  EXPECT_FALSE(router.useHttpTunnel());  // default tunnel use: never
  list.clear();
  master = "master1";
  EXPECT_EQ(0, getTunnelOverrides(master, list));
  EXPECT_EQ((Names{"t1", "t3"}), list);
}

TEST_F(TunnelRouterTest, IteratorWalksTheBatches) {
  ASSERT_TRUE(m_root.writeConfig("SERVER = localhost\nMEDIA_SERVER = m1\n"));
  QXWebsvcTunnelRouter router;
  QXWebsvcTunnelIterator off(router, "localhost");  // tunnel use defaults to never
  EXPECT_FALSE(off.hasNext());
  EXPECT_TRUE(m_log.contains("Tunnel not initialized or list empty"));

  ASSERT_TRUE(
      m_root.writeConfig("WEB_SERVER_TUNNEL_USE = 0\nSERVER = localhost\n"
                         "MEDIA_SERVER = m1\n"));
  QXWebsvcTunnelIterator it(router, "localhost");
  std::vector<std::string> walked;
  for (int batch = 0; batch < 4; ++batch, it.fetchTunnels()) {
    while (it.hasNext()) walked.push_back(it.next());
  }
  EXPECT_EQ((std::vector<std::string>{"", "m1"}), walked);
  it.setMasterServer("other");
  it.reset();
  ASSERT_TRUE(it.hasNext());
  EXPECT_EQ("", it.next());
}

}  // namespace
