// The one fixture duty no library test would notice failing: the install root
// sets ARVION_ROOT for its lifetime only, and removing it never reaches
// through the link into the shared PKI.
#include <stdlib.h>
#include <sys/stat.h>

#include "testing/fixture/qx_test_env.h"

namespace {

TEST(QXTestRootLife, RootIsLaidOutAndEnvironmentRestored) {
  for (const char* previous : {"/somewhere/else", static_cast<const char*>(nullptr)}) {
    SCOPED_TRACE(previous ? previous : "(unset)");
    previous ? setenv("ARVION_ROOT", previous, 1) : unsetenv("ARVION_ROOT");
    std::string dir, pkiCa;
    {
      QXTestRoot root;
      ASSERT_TRUE(root.ok()) << root.error();
      dir = root.dir();
      pkiCa = root.pki("qxca/ca.pem");
      EXPECT_STREQ(dir.c_str(), getenv("ARVION_ROOT"));
      const std::string ca = qxReadFile(pkiCa);
      ASSERT_FALSE(ca.empty());
      EXPECT_EQ(ca, qxReadFile(root.path("var/webtruststore/cacert.pem")));
      EXPECT_EQ(ca, qxReadFile(root.path("var/global/webtruststore/cacert.pem")));
    }
    const char* now = getenv("ARVION_ROOT");
    EXPECT_EQ(previous ? std::string(previous) : "(unset)", now ? std::string(now) : "(unset)");
    struct stat st;
    EXPECT_NE(0, stat(dir.c_str(), &st));
    EXPECT_EQ(0, stat(pkiCa.c_str(), &st));
  }
  unsetenv("ARVION_ROOT");
}

}  // namespace
