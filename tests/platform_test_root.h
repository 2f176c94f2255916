#ifndef PLATFORM_TEST_ROOT_H
#define PLATFORM_TEST_ROOT_H
// A throw-away install root for platform tests: ARVION_ROOT points at it for
// the life of the object.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

class PlatformTestRoot {
 public:
  PlatformTestRoot() {
    char tmpl[] = "/tmp/qxplatform-XXXXXX";
    m_dir = mkdtemp(tmpl);
    mkdir((m_dir + "/arvion").c_str(), 0755);
    setenv("ARVION_ROOT", m_dir.c_str(), 1);
  }
  ~PlatformTestRoot() {
    std::string cmd = "rm -rf '" + m_dir + "'";
    if (std::system(cmd.c_str()) != 0) {
    }
    unsetenv("ARVION_ROOT");
  }
  const std::string& dir() const { return m_dir; }
  std::string path(const std::string& rel) const { return m_dir + "/" + rel; }
  void writeFile(const std::string& rel, const std::string& text) const {
    std::ofstream(path(rel), std::ios::binary | std::ios::trunc) << text;
  }
  void writeConfig(const std::string& text) const { writeFile("arvion/arvion.conf", text); }

 private:
  std::string m_dir;
};
#endif
