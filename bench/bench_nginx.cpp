#include "bench/bench_nginx.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>

#include "testing/fixture/qx_test_env.h"
#include "testing/fixture/qx_test_process.h"

namespace {

// Debian installs nginx in /usr/sbin, which a user's PATH may leave out.
std::string nginxPath() {
  std::string path = std::getenv("PATH") ? std::getenv("PATH") : "";
  path += ":/usr/sbin:/sbin";
  std::istringstream in(path);
  std::string dir;
  while (std::getline(in, dir, ':')) {
    if (dir.empty()) continue;
    std::string p = dir + "/nginx";
    if (access(p.c_str(), X_OK) == 0) return p;
  }
  return "";
}

// A port nothing listens on right now (the kernel's choice for port 0).
int freePort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return 0;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
    port = ntohs(a.sin_port);
  close(fd);
  return port;
}

bool haveIPv6Loopback() {
  int fd = socket(AF_INET6, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in6 a{};
  a.sin6_family = AF_INET6;
  a.sin6_addr = in6addr_loopback;
  bool ok = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  close(fd);
  return ok;
}

bool accepts(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(static_cast<uint16_t>(port));
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  close(fd);
  return ok;
}

std::string jsonAnswer() {
  std::string pem(1800, 'A');
  return R"({"caCertificates": [{"caType": "QXCA", "pem": ")" + pem + R"("}]})";
}

}  // namespace

bool qxBenchHaveNginx() { return !nginxPath().empty(); }

int QXBenchNginx::start(const std::string& dir, const std::string& certPem,
                        const std::string& keyPem, std::string* error) {
  std::string binary = nginxPath();
  if (binary.empty()) {
    if (error) *error = "nginx not found (Debian package nginx; scripts/setup installs it)";
    return 1;
  }
  const bool v6 = haveIPv6Loopback();
  for (int attempt = 0; attempt < 5; ++attempt) {
    int port = freePort();
    if (port == 0) continue;
    std::string p = std::to_string(port);
    std::ostringstream conf;
    // Foreground master with one worker: its pid is ours to stop.
    conf << "daemon off;\nmaster_process on;\nworker_processes 1;\n"
         << "pid " << dir << "/nginx.pid;\nerror_log " << dir << "/error.log warn;\n"
         << "events { worker_connections 512; }\nhttp {\n  access_log off;\n";
    for (const char* t : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
      conf << "  " << t << "_temp_path " << dir << "/tmp;\n";
    conf << "  keepalive_requests 10000000;\n  keepalive_timeout 300s;\n"
         << "  ssl_session_cache shared:QXBENCH:4m;\n  ssl_session_tickets on;\n"
         << "  server {\n    listen 127.0.0.1:" << p << " ssl;\n";
    if (v6) conf << "    listen [::1]:" << p << " ssl;\n";
    conf << "    ssl_certificate " << certPem << ";\n    ssl_certificate_key " << keyPem << ";\n"
         << "    location = /arvion/ping { default_type text/plain; return 200 \"pong\"; }\n"
         << "    location = /arvion/security/cacert { default_type application/json; "
         << "return 200 '" << jsonAnswer() << "'; }\n  }\n}\n";
    std::string confPath = dir + "/nginx.conf";
    mkdir((dir + "/tmp").c_str(), 0700);
    if (!qxWriteFile(confPath, conf.str())) {
      if (error) *error = "cannot write " + confPath;
      return 1;
    }
    std::string err;
    m_pid = qxSpawn({binary, "-c", confPath, "-p", dir, "-e", dir + "/error.log"},
                    dir + "/stdout.log", dir + "/stderr.log", &err);
    if (m_pid < 0) {
      if (error) *error = err;
      return 1;
    }
    for (int i = 0; i < 500; ++i) {
      int status = 0;
      if (!qxChildRunning(m_pid, &status)) {
        m_pid = -1;
        break;  // port taken in between, most likely: try another
      }
      if (accepts(port)) {
        m_port = port;
        return 0;
      }
      qxSleepMs(10);
    }
    stop();
  }
  if (error) *error = "nginx did not start: " + qxReadFile(dir + "/error.log");
  return 1;
}

void QXBenchNginx::stop() {
  if (m_pid > 0) qxStopChild(m_pid, 3000);
  m_pid = -1;
  m_port = 0;
}
