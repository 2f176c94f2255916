#ifndef QXCURL_PREFNET_QXCLNT_PREFNET_H
#define QXCURL_PREFNET_QXCLNT_PREFNET_H
#include <netdb.h>
#include <sys/select.h>

#include <string>

#include "platform/qx_wnet.h"  // WN_STATUS_* and the address lists
#include "qxcurl/qxcurl_export.h"

// Connect modes.
enum qxclnt_cmode_t { QXCLNT_CMODE_BLOCKING = 1, QXCLNT_CMODE_NONBLOCKING = 2 };

// Connects a TCP socket to host:port under the preferred-network rules:
// resolves the host, walks its addresses in the network library's order,
// skips prohibited ones, binds to the local address a rule names and gives
// each address its share of one time budget. The connected socket is handed
// over through operator int() (libcurl takes it, see the client's exchange).
//
// Blocking mode waits with poll(), so any descriptor number works. The
// non-blocking mode is one step per call, driven by the caller's select()
// loop; it refuses (WN_STATUS_FD_SETSIZE) a descriptor that does not fit in
// an fd_set instead of writing past it.
// Copyable by design: a copy carries the parameters, never the socket.
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions)
class QX_API qxclnt_curl_prefnet {
 public:
  enum State {
    STATE_INITIAL = 0,
    STATE_CONNECTING = 1,
    STATE_TIMED_OUT = 2,
    STATE_CONNECTED = 3,
    STATE_FAILED = 4
  };
  // *action of the non-blocking step. In: ACTION_TIMED_OUT when the caller's
  // select() timed out, anything else otherwise.
  enum Action {
    ACTION_CONNECTED = 0,
    ACTION_WATCH_WRITE = -1,
    ACTION_TIMED_OUT = -2,
    ACTION_NONE = -3
  };
  static constexpr long DEFAULT_TIMEOUT = 40;

  // Throws the int WN_STATUS_BAD_PARAM for an empty host; a negative time-out
  // becomes 40 seconds.
  qxclnt_curl_prefnet(const std::string& host, unsigned int port, long timeoutSeconds);
  // A copy connects to the same place with the same budget, from the start:
  // addresses and socket stay with the original.
  qxclnt_curl_prefnet(const qxclnt_curl_prefnet& other);
  qxclnt_curl_prefnet& operator=(const qxclnt_curl_prefnet& other);

  // Refused (WN_STATUS_BAD_PARAM) for an empty host or outside STATE_INITIAL.
  virtual int update_connect_param(const std::string& host);
  // Time-out = seconds, or 40 below 1. Returns false.
  virtual bool update_connect_param(long seconds);
  // Blocking: connect() runs to the end. Non-blocking: one step; when *action
  // comes back ACTION_WATCH_WRITE, wait until *fd is writable for at most
  // *timeout seconds (*fd is also put in writeSet unless it is null), then
  // call again, with ACTION_TIMED_OUT if the wait timed out.
  virtual int connect(qxclnt_cmode_t mode, int* action, fd_set* readSet, fd_set* writeSet,
                      fd_set* exceptSet, int* fd, long* timeout);
  // Forgets the socket without closing it (it may be libcurl's now).
  virtual int reset();
  // The socket (-1 when none); one still connecting is returned too.
  virtual operator int();
  // The libcurl resolve entry "host:port:address" of the connection (IPv6
  // bracketed), empty unless connected.
  virtual operator std::string();
  // Closes a socket that never finished connecting; a connected one belongs to
  // whoever took it.
  virtual ~qxclnt_curl_prefnet();

  // The port to dial; refused like the host outside STATE_INITIAL.
  int update_connect_port(unsigned int port);

  // "<text> errno=[<n>]=[<strerror>]".
  static void logsyserr(int level, const char* tag, const char* text, int err);

  int state() const { return m_state; }
  const std::string& host() const { return m_host; }
  unsigned int port() const { return m_port; }
  long timeout() const { return m_timeout; }

 protected:
  virtual int resolv_host_service(const std::string& host, struct addrinfo** list, int* gaiErr);
  virtual int usable_prefnet_settings();
  virtual int establish_initial_connection();
  virtual int iterate_next_iface();
  virtual int tryeach_iface_connect();
  virtual int bio_connect();
  virtual int nbio_connect(int* action, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet,
                           int* fd, long* timeout);

 public:
  // Closes the socket first when asked; then back to STATE_INITIAL.
  virtual int reset(bool closeSocket);

 protected:
  // One socket to remote, bound to local when given, connect started.
  int helper_connect(const struct addrinfo* remote, const struct addrinfo* local, int& fd,
                     bool& connected);
  // 0 with inProgress, 0 connected, otherwise the socket's error (-1 when the
  // wait itself failed).
  int helper_check_connect_status(int fd, bool& inProgress);

  int m_fd = -1;
  std::string m_host;
  unsigned int m_port;
  long m_timeout;
  struct addrinfo* m_remoteList = nullptr;
  struct addrinfo* m_localList = nullptr;
  long long m_deadline = 0;  // monotonic milliseconds
  struct addrinfo* m_currRemote = nullptr;
  struct addrinfo* m_currLocal = nullptr;
  int m_state = STATE_INITIAL;
  long long m_attemptDeadline = 0;  // end of the current address's share

 private:
  // First permitted address from `from` on: 0 with it, -1 when none is left,
  // else the network library's error.
  int find_permitted(struct addrinfo* from, struct addrinfo** found, struct addrinfo** local);
  int started(int* action, fd_set* writeSet, int* fd, long* timeout);
  int watch(int* action, fd_set* writeSet, int* fd, long* timeout);
  int next_address(int* action, fd_set* writeSet, int* fd, long* timeout);
  long long attempt_ms() const;
  void free_lists();
};
#endif  // QXCURL_PREFNET_QXCLNT_PREFNET_H
