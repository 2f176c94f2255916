#ifndef QXCLNT_PREFNET_H
#define QXCLNT_PREFNET_H
#include <string>

#include "qxcurl_export.h"

// Connects a TCP socket under the preferred-network rules and hands it to
// libcurl. For now it only keeps its parameters: libcurl connects by itself.
// Copyable by design: a copy carries the parameters, never the socket.
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions)
class QX_API qxclnt_curl_prefnet {
 public:
  // Throws the int 2 (bad parameter) for an empty host; a negative time-out
  // becomes 40 seconds.
  qxclnt_curl_prefnet(const std::string& host, unsigned int port, long timeoutSeconds);
  virtual ~qxclnt_curl_prefnet();

  virtual int update_connect_param(const std::string& host);
  virtual bool update_connect_param(long seconds);
  virtual int reset();
  virtual operator int();
  virtual operator std::string();

  int m_fd = -1;
  std::string m_host;
  unsigned int m_port;
  long m_timeout;
  int m_state = 0;
};
#endif
