#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>

#include "platform/qx_session_store.h"
#include "qxcurl/qx_status.h"
#include "testing/fixture/qx_test_env.h"

namespace {

using Arvion::Ostrel::TokenMgmt::SessionTokenMgmt;

class SessionStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("HOME", m_root.path("home").c_str(), 1);
    unsetenv("ARVION_OSTREL_USER_TOKEN_MGMT");
  }
  QXTestRoot m_root;
  long inAnHour() const { return static_cast<long>(std::time(nullptr)) + 3600; }
};

TEST_F(SessionStoreTest, RoundTripInPrivateFile) {
  SessionTokenMgmt store("ARVION_OSTREL_USER_TOKEN_MGMT");
  EXPECT_EQ("", store.readSessionToken());
  const std::string json = "{\"token\":\"abc\",\n\"user\":\"\\u0000x\"}";
  ASSERT_EQ(0, store.writeSessionToken(json, inAnHour()));
  EXPECT_EQ(json, store.readSessionToken());
  EXPECT_EQ(json, SessionTokenMgmt("ARVION_OSTREL_USER_TOKEN_MGMT").readSessionToken());

  std::string path = store.T_entryPath();
  EXPECT_EQ(0u, path.find(m_root.path("home/.arvion/sessions/")));
  struct stat st;
  ASSERT_EQ(0, stat(path.c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);
  ASSERT_EQ(0, stat(m_root.path("home/.arvion/sessions").c_str(), &st));
  EXPECT_EQ(0700u, st.st_mode & 0777);

  ASSERT_EQ(0, store.writeSessionToken("second", inAnHour()));  // replaced whole
  EXPECT_EQ("second", store.readSessionToken());
  EXPECT_EQ(0, store.deleteSessionToken());
  EXPECT_EQ("", store.readSessionToken());
  EXPECT_EQ(0, store.deleteSessionToken());
}

TEST_F(SessionStoreTest, NamesTargetsAndEnvironmentSelectSeparateEntries) {
  SessionTokenMgmt a("https://master:1556/arvion/ping");
  SessionTokenMgmt b("../../../../etc/passwd");
  ASSERT_EQ(0, a.writeSessionToken("A", inAnHour()));
  ASSERT_EQ(0, b.writeSessionToken("B", inAnHour()));
  EXPECT_EQ("A", a.readSessionToken());
  EXPECT_EQ("B", b.readSessionToken());
  std::string dir = m_root.path("home/.arvion/sessions/");
  EXPECT_EQ(0u, b.T_entryPath().find(dir));
  EXPECT_EQ(std::string::npos, b.T_entryPath().find("..", dir.size()));

  // (A target of its own, as an appliance user has, is token_user_test's.)
  SessionTokenMgmt user("ARVION_OSTREL_USER_TOKEN_MGMT");
  ASSERT_EQ(0, user.writeSessionToken("default", inAnHour()));
  setenv("ARVION_OSTREL_USER_TOKEN_MGMT", "shell-2", 1);  // another shell's session
  EXPECT_EQ("", user.readSessionToken());
}

TEST_F(SessionStoreTest, ExpiryIsHonoured) {
  SessionTokenMgmt store("expiring");
  EXPECT_EQ(QX_ERR_BAD_ARGUMENT,
            store.writeSessionToken("x", static_cast<long>(std::time(nullptr)) - 1));
  EXPECT_EQ(QX_ERR_BAD_ARGUMENT, store.writeSessionToken("x", -5));
  // Small values count from now; two seconds so that a second boundary
  // between the write and the read cannot expire it.
  ASSERT_EQ(0, store.writeSessionToken("relative", 2));
  EXPECT_EQ("relative", store.readSessionToken());
  std::this_thread::sleep_for(std::chrono::milliseconds(3100));
  EXPECT_EQ("", store.readSessionToken());
  EXPECT_NE(0, access(store.T_entryPath().c_str(), F_OK));  // expired entries are removed
}

TEST_F(SessionStoreTest, DamagedOrUnsafeFilesAreMisses) {
  SessionTokenMgmt store("damaged");
  ASSERT_EQ(0, store.writeSessionToken("payload", inAnHour()));
  std::string path = store.T_entryPath();
  std::string good;
  {
    std::ifstream in(path, std::ios::binary);
    good.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  const std::string damaged[] = {
      "", good.substr(0, good.size() - 1),  // torn
      std::string(good).replace(0, 6, "XXXXXX"),
      "ARVION-SESSION 1\n9999999999999999999\n1\nx",  // expiry beyond any integer
  };
  for (const std::string& text : damaged) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    chmod(path.c_str(), 0600);
    EXPECT_EQ("", store.readSessionToken()) << text.size();
  }
  std::ofstream(path, std::ios::binary | std::ios::trunc) << good;
  chmod(path.c_str(), 0620);
  EXPECT_EQ("", store.readSessionToken());  // others could have written it
  chmod(path.c_str(), 0600);
  EXPECT_EQ("payload", store.readSessionToken());

  unlink(path.c_str());
  ASSERT_EQ(0, symlink(m_root.path("elsewhere").c_str(), path.c_str()));
  std::ofstream(m_root.path("elsewhere")) << good;
  EXPECT_EQ("", store.readSessionToken());  // never follows a link
}

TEST_F(SessionStoreTest, ConfiguredDirectoryIsUnderTheRootAndPerUser) {
  m_root.writeConfig("SESSION_TOKEN_DIR = var/sessions\n");
  SessionTokenMgmt store("configured");
  ASSERT_EQ(0, store.writeSessionToken("v", inAnHour()));
  EXPECT_EQ(
      0u, store.T_entryPath().find(m_root.path("var/sessions/" + std::to_string(geteuid()) + "/")));
  EXPECT_EQ("v", store.readSessionToken());

  chmod(m_root.path("var/sessions/" + std::to_string(geteuid())).c_str(), 0777);
  EXPECT_EQ(QX_ERR_FILE_NOT_FOUND,
            store.writeSessionToken("w", inAnHour()));  // a directory others can write
}

}  // namespace
