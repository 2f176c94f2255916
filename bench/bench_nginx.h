#ifndef QXCURL_BENCH_BENCH_NGINX_H
#define QXCURL_BENCH_BENCH_NGINX_H
// nginx as the HTTPS server of the benchmarks: its own cost per request is
// small, so the client side dominates what is measured. Started from a
// configuration of its own in a directory of its own, on a free loopback
// port, and stopped by its pid.
#include <sys/types.h>

#include <string>

class QXBenchNginx {
 public:
  QXBenchNginx() = default;
  ~QXBenchNginx() { stop(); }
  QXBenchNginx(const QXBenchNginx&) = delete;
  QXBenchNginx& operator=(const QXBenchNginx&) = delete;

  // Serves "/arvion/ping" ("pong") and "/arvion/security/cacert" (a JSON
  // answer of about 2 KiB) over HTTPS with keep-alive and TLS session
  // resumption (tickets and a session cache). dir must exist and be writable.
  // 0 once it accepts connections; otherwise non-zero with *error.
  int start(const std::string& dir, const std::string& certPem, const std::string& keyPem,
            std::string* error);
  void stop();
  int port() const { return m_port; }

 private:
  pid_t m_pid = -1;
  int m_port = 0;
};

// True when the nginx binary is on PATH.
bool qxBenchHaveNginx();
#endif  // QXCURL_BENCH_BENCH_NGINX_H
