#include "prefnet/qxclnt_prefnet.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/qx_log.h"

namespace {

long long nowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int returning(const char* tag, int status) {
  QXLOG(status == WN_STATUS_SUCCESS ? QXLOG_PROGRESS : QXLOG_DETAIL, tag)
      << "Returning " << wnet_status_name(status);
  return status;
}

// Address text for messages; "NONE" when it cannot be made.
std::string addrText(const struct addrinfo* a) {
  char buf[INET6_ADDRSTRLEN] = "";
  if (a == nullptr ||
      wnet_sockAddrNtoPWithLength(a->ai_addr, a->ai_addrlen, buf, sizeof buf) != 0) {
    QXLOG(QXLOG_DETAIL, "qxclnt_curl_prefnet") << "Failed to convert sockaddr to IP text.";
    return "NONE";
  }
  return buf;
}

bool isV6Literal(const std::string& host) { return host.find(':') != std::string::npos; }

std::string bareHost(const std::string& host) {
  if (host.size() > 2 && host.front() == '[' && host.back() == ']')
    return host.substr(1, host.size() - 2);
  return host;
}

}  // namespace

qxclnt_curl_prefnet::qxclnt_curl_prefnet(const std::string& host, unsigned int port,
                                         long timeoutSeconds)
    : m_host(host), m_port(port), m_timeout(timeoutSeconds < 0 ? DEFAULT_TIMEOUT : timeoutSeconds) {
  if (host.empty()) {
    QXLOG(QXLOG_OPTION, "qxclnt_curl_prefnet::qxclnt_curl_prefnet")
        << "Invalid hostname; throwing WN_STATUS_BAD_PARAM.";
    throw static_cast<int>(WN_STATUS_BAD_PARAM);
  }
}

qxclnt_curl_prefnet::qxclnt_curl_prefnet(const qxclnt_curl_prefnet& other)
    : m_host(other.m_host), m_port(other.m_port), m_timeout(other.m_timeout) {}

qxclnt_curl_prefnet& qxclnt_curl_prefnet::operator=(const qxclnt_curl_prefnet& other) {
  if (this == &other) return *this;
  reset(m_state == STATE_CONNECTING || m_state == STATE_TIMED_OUT);
  m_host = other.m_host;
  m_port = other.m_port;
  m_timeout = other.m_timeout;
  return *this;
}

qxclnt_curl_prefnet::~qxclnt_curl_prefnet() {
  if ((m_state == STATE_CONNECTING || m_state == STATE_TIMED_OUT) && m_fd >= 0) ::close(m_fd);
  free_lists();
}

void qxclnt_curl_prefnet::logsyserr(int level, const char* tag, const char* text, int err) {
  logmsgf(level, QXLOG_CATEGORY, tag, "%s errno=[%d]=[%s]", text, err, std::strerror(err));
}

void qxclnt_curl_prefnet::free_lists() {
  wnet_freeaddrinfo(m_remoteList);
  wnet_freeaddrinfo(m_localList);
  m_remoteList = m_localList = nullptr;
  m_currRemote = m_currLocal = nullptr;
}

int qxclnt_curl_prefnet::update_connect_param(const std::string& host) {
  if (host.empty() || m_state != STATE_INITIAL)
    return returning("qxclnt_curl_prefnet::update_connect_param", WN_STATUS_BAD_PARAM);
  m_host = host;
  return WN_STATUS_SUCCESS;
}

int qxclnt_curl_prefnet::update_connect_port(unsigned int port) {
  if (m_state != STATE_INITIAL)
    return returning("qxclnt_curl_prefnet::update_connect_port", WN_STATUS_BAD_PARAM);
  m_port = port;
  return WN_STATUS_SUCCESS;
}

bool qxclnt_curl_prefnet::update_connect_param(long seconds) {
  m_timeout = seconds < 1 ? DEFAULT_TIMEOUT : seconds;
  return false;
}

int qxclnt_curl_prefnet::connect(qxclnt_cmode_t mode, int* action, fd_set* readSet,
                                 fd_set* writeSet, fd_set* exceptSet, int* fd, long* timeout) {
  const char* tag = "qxclnt_curl_prefnet::connect";
  if (mode == QXCLNT_CMODE_BLOCKING) return bio_connect();
  if (mode == QXCLNT_CMODE_NONBLOCKING && action != nullptr && fd != nullptr &&
      timeout != nullptr) {
    return nbio_connect(action, readSet, writeSet, exceptSet, fd, timeout);
  }
  return returning(tag, WN_STATUS_BAD_PARAM);
}

int qxclnt_curl_prefnet::reset() { return reset(false); }

int qxclnt_curl_prefnet::reset(bool closeSocket) {
  if (closeSocket && m_fd >= 0 && ::close(m_fd) != 0) {
    logsyserr(QXLOG_DETAIL, "qxclnt_curl_prefnet::reset", "socket close failed ", errno);
  }
  m_fd = -1;
  free_lists();
  m_state = STATE_INITIAL;
  return returning("qxclnt_curl_prefnet::reset", WN_STATUS_SUCCESS);
}

qxclnt_curl_prefnet::operator int() {
  const char* tag = "qxclnt_curl_prefnet::operator int";
  if (m_state != STATE_CONNECTED) QXLOG(QXLOG_PROGRESS, tag) << "we are not connected.";
  QXLOG(QXLOG_PROGRESS, tag) << "Returning this->m_fd";
  return m_fd;
}

qxclnt_curl_prefnet::operator std::string() {
  const char* tag = "qxclnt_curl_prefnet::operator std::string";
  if (m_state != STATE_CONNECTED || m_currRemote == nullptr) return std::string();
  char buf[INET6_ADDRSTRLEN] = "";  // 46
  std::string address;
  if (wnet_sockAddrNtoP(m_currRemote->ai_addr, buf, sizeof buf) != 0) {
    QXLOG(QXLOG_DETAIL, tag) << "wnet_sockAddrNtoPWithLength returned err.";
    QXLOG(QXLOG_DETAIL, tag) << "Failed to convert sockaddr to IP text.";
    address = "NONE";
  } else {
    address = buf;
  }
  QXLOG(QXLOG_PROGRESS, tag) << "resolved hostname => IP [" << address << "].";
  // libcurl reads an IPv6 host or address only in brackets.
  std::string host = bareHost(m_host);
  if (isV6Literal(host)) host = "[" + host + "]";
  if (isV6Literal(address)) address = "[" + address + "]";
  return host + ":" + std::to_string(m_port) + ":" + address;
}

// ---- resolution and rules ----

int qxclnt_curl_prefnet::resolv_host_service(const std::string& host, struct addrinfo** list,
                                             int* gaiErr) {
  const char* tag = "qxclnt_curl_prefnet::resolv_host_service";
  char service[16];
  (void)std::snprintf(service, sizeof service, "%u", m_port);
  struct addrinfo hints = wnet_get_default_hints(wnet_adjusted_family(0));
  int rc = wnet_cached_getaddrinfo(bareHost(host).c_str(), service, &hints, list, gaiErr);
  if (rc != WN_STATUS_SUCCESS) {
    QXLOG(QXLOG_DETAIL, tag) << "wnet_cached_getaddrinfo() FAILED with return code [" << rc << "].";
    QXLOG(QXLOG_DETAIL, tag) << "GAI_ERRNO = " << (gaiErr != nullptr ? *gaiErr : 0);
    return rc;
  }
  wnet_sortaddrs(list);
  return WN_STATUS_SUCCESS;
}

int qxclnt_curl_prefnet::find_permitted(struct addrinfo* from, struct addrinfo** found,
                                        struct addrinfo** local) {
  const char* tag = "qxclnt_curl_prefnet::usable_prefnet_settings";
  for (struct addrinfo* p = from; p != nullptr; p = p->ai_next) {
    wnet_pref_netconnection answer;
    int rc = wnet_get_pref_netconnection(p->ai_addr, p->ai_addrlen, &answer);
    if (rc != WN_STATUS_SUCCESS) {
      QXLOG(QXLOG_DETAIL, tag) << "wnet_get_pref_netconnection() returned error [" << rc << "].";
      return rc;
    }
    if (answer.prohibited) {
      if (qxLogWanted(QXLOG_DETAIL)) {
        QXLOG(QXLOG_DETAIL, tag) << "Preferred network setting(s) PROHIBITs use of [" << addrText(p)
                                 << "] IP.";
        QXLOG(QXLOG_DETAIL, tag) << " IP is PROHIBITED or is not configured, trying next IP.";
      }
      continue;
    }
    *found = p;
    *local = answer.local;
    return WN_STATUS_SUCCESS;
  }
  return -1;
}

int qxclnt_curl_prefnet::usable_prefnet_settings() {
  const char* tag = "qxclnt_curl_prefnet::usable_prefnet_settings";
  wnet_freeaddrinfo(m_localList);
  m_localList = m_currLocal = nullptr;
  struct addrinfo* found = nullptr;
  struct addrinfo* local = nullptr;
  int rc = find_permitted(m_currRemote, &found, &local);
  if (rc == -1) {
    QXLOG(QXLOG_DETAIL, tag) << "No IP address for host " << m_host
                             << ", hence retrieving preferred network settings failed.";
    m_currRemote = nullptr;
    return returning(tag, WN_STATUS_BAD_PARAM);
  }
  if (rc != WN_STATUS_SUCCESS) return rc;
  m_currRemote = found;
  m_localList = m_currLocal = local;
  return WN_STATUS_SUCCESS;
}

int qxclnt_curl_prefnet::iterate_next_iface() {
  const char* tag = "qxclnt_curl_prefnet::iterate_next_iface";
  struct addrinfo* old = m_currRemote;
  wnet_freeaddrinfo(m_localList);
  m_localList = m_currLocal = nullptr;
  struct addrinfo* found = nullptr;
  struct addrinfo* local = nullptr;
  int rc = old != nullptr ? find_permitted(old->ai_next, &found, &local) : -1;
  if (rc == -1) {
    QXLOG(QXLOG_DETAIL, tag) << "Exhausted all IP addresses and preferred network settings.";
    m_currRemote = nullptr;
    return returning(tag, WN_STATUS_CONNECT_FAILED);
  }
  if (rc != WN_STATUS_SUCCESS) {
    QXLOG(QXLOG_DETAIL, tag) << "For host [" << m_host << "] "
                             << "Failed to get preferred network setting. Return code [" << rc
                             << "].";
    return rc;
  }
  if (qxLogWanted(QXLOG_PROGRESS)) {
    QXLOG(QXLOG_PROGRESS, tag) << "already tried connecting to [" << addrText(old)
                               << "], now trying[" << addrText(found) << "].";
  }
  m_currRemote = found;
  m_localList = m_currLocal = local;
  return WN_STATUS_SUCCESS;
}

// ---- connecting ----

int qxclnt_curl_prefnet::helper_connect(const struct addrinfo* remote, const struct addrinfo* local,
                                        int& fd, bool& connected) {
  const char* tag = "qxclnt_curl_prefnet::helper_connect";
  connected = false;
  // Non-blocking from the start: one system call instead of three.
  fd = ::socket(remote->ai_family, remote->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                remote->ai_protocol);
  if (fd < 0) {
    logsyserr(QXLOG_ERROR, tag, "::socket() call failed.", errno);
    return returning(tag, WN_STATUS_SOCKET_FAILED);
  }
  if (local != nullptr) {
    if (qxLogWanted(QXLOG_PROGRESS))
      QXLOG(QXLOG_PROGRESS, tag) << "Using local IP/interface [" << addrText(local) << "]";
    if (::bind(fd, local->ai_addr, local->ai_addrlen) != 0) {
      logsyserr(QXLOG_DETAIL, tag, "::bind() call failed.", errno);
      ::close(fd);
      fd = -1;
      return returning(tag, WN_STATUS_BIND_FAILED);
    }
  }
  if (qxLogWanted(QXLOG_PROGRESS)) {
    QXLOG(QXLOG_PROGRESS, tag) << "Connecting to [" << addrText(remote) << "]:[" << m_port << "].";
  }
  for (;;) {
    if (::connect(fd, remote->ai_addr, remote->ai_addrlen) == 0) {
      QXLOG(QXLOG_PROGRESS, tag) << "Non-blocking connect passed.New sockfd is [" << fd << "]";
      connected = true;
      return WN_STATUS_SUCCESS;
    }
    int err = errno;
    if (err == EINTR) {
      QXLOG(QXLOG_PROGRESS, tag) << "Got EINTR, re-trying.";
      continue;
    }
    // A connect interrupted and re-issued reports EALREADY: still under way.
    if (err == EINPROGRESS || err == EALREADY) {
      QXLOG(QXLOG_PROGRESS, tag) << "NON-Blocking connect in progress. Watch WRITE.";
      QXLOG(QXLOG_PROGRESS, tag) << "New sockfd is [" << fd << "]";
      return WN_STATUS_SUCCESS;
    }
    ::close(fd);
    fd = -1;
    if (err == ECONNREFUSED) {
      QXLOG(QXLOG_DETAIL, tag) << "Connection refused by remote host.";
      return returning(tag, WN_STATUS_CONNECT_REFUSED);
    }
    logsyserr(QXLOG_DETAIL, tag, "::connect() call failed.", err);
    return returning(tag, WN_STATUS_CONNECT_FAILED);
  }
}

long long qxclnt_curl_prefnet::attempt_ms() const {
  long long left = m_deadline - nowMs();
  if (m_currRemote != nullptr && m_currRemote->ai_next != nullptr) left /= 2;
  return left < 1000 ? 1000 : left;
}

int qxclnt_curl_prefnet::tryeach_iface_connect() {
  const char* tag = "qxclnt_curl_prefnet::tryeach_iface_connect";
  for (;;) {
    if (m_currRemote == nullptr) return returning(tag, WN_STATUS_CONNECT_FAILED);
    int fd = -1;
    bool connected = false;
    int rc = helper_connect(m_currRemote, m_currLocal, fd, connected);
    if (rc == WN_STATUS_SUCCESS) {
      m_fd = fd;
      m_attemptDeadline = nowMs() + attempt_ms();
      if (connected) m_state = STATE_CONNECTED;
      return WN_STATUS_SUCCESS;
    }
    if (rc == WN_STATUS_SOCKET_FAILED) {
      QXLOG(QXLOG_ERROR, tag) << "::socket() call failed. Shall not try any further.";
      return rc;
    }
    QXLOG(QXLOG_DETAIL, tag) << "Trying next IP/preferred net as configured.";
    rc = iterate_next_iface();
    if (rc != WN_STATUS_SUCCESS) return rc;
  }
}

int qxclnt_curl_prefnet::establish_initial_connection() {
  const char* tag = "qxclnt_curl_prefnet::establish_initial_connection";
  free_lists();
  int gaiErr = 0;
  int rc = resolv_host_service(m_host, &m_remoteList, &gaiErr);
  if (rc != WN_STATUS_SUCCESS) {
    QXLOG(QXLOG_ERROR, tag) << "Hostname resolution for [" << m_host << "] host failed with err ["
                            << gaiErr << "]. Return code [" << rc << "].";
    return rc;
  }
  m_deadline = nowMs() + static_cast<long long>(m_timeout) * 1000;
  m_currRemote = m_remoteList;
  rc = usable_prefnet_settings();
  if (rc != WN_STATUS_SUCCESS) {
    QXLOG(QXLOG_ERROR, tag) << "Failed to get usable preferred network settings.Return Code [" << rc
                            << "].";
    return rc;
  }
  rc = tryeach_iface_connect();
  if (rc != WN_STATUS_SUCCESS) {
    QXLOG(QXLOG_ERROR, tag) << "Initial connection establishment failed with return [" << rc
                            << "].";
    return rc;
  }
  return WN_STATUS_SUCCESS;
}

int qxclnt_curl_prefnet::helper_check_connect_status(int fd, bool& inProgress) {
  const char* tag = "qxclnt_curl_prefnet::helper_check_connect_status";
  inProgress = false;
  // poll, not select: any descriptor number can be asked about.
  struct pollfd p = {fd, POLLOUT, 0};
  int n;
  do {
    n = ::poll(&p, 1, 0);
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    QXLOG(QXLOG_DETAIL, tag) << "socket is not writable/multiplexer failed with return [" << n
                             << "].";
    return -1;
  }
  if (n == 0) {
    inProgress = true;
    return 0;
  }
  int err = 0;
  socklen_t len = sizeof err;
  if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
  if (err != 0) {
    logsyserr(QXLOG_DETAIL, tag, "Non-blocking connect attempt failed.", err);
    return err;
  }
  wnet_logconnections(fd, "qxcurl");
  return 0;
}

int qxclnt_curl_prefnet::watch(int* action, fd_set* writeSet, int* fd, long* timeout) {
  const char* tag = "qxclnt_curl_prefnet::nbio_connect";
  if (writeSet != nullptr) {
    // glibc's fd_set holds FD_SETSIZE descriptors; FD_SET beyond that writes
    // past the caller's set.
    if (m_fd < 0 || m_fd >= FD_SETSIZE) {
      QXLOG(QXLOG_ERROR, tag) << "Socket descriptor [" << m_fd
                              << "] does not fit in a select() set of [" << FD_SETSIZE
                              << "]; refusing it.";
      *action = ACTION_NONE;
      reset(true);
      return returning(tag, WN_STATUS_FD_SETSIZE);
    }
    FD_SET(m_fd, writeSet);
  }
  m_state = STATE_CONNECTING;
  long long left = m_attemptDeadline - nowMs();
  *action = ACTION_WATCH_WRITE;
  *fd = m_fd;
  *timeout = left <= 1000 ? 1 : static_cast<long>((left + 999) / 1000);
  return WN_STATUS_SUCCESS;
}

int qxclnt_curl_prefnet::started(int* action, fd_set* writeSet, int* fd, long* timeout) {
  if (m_state == STATE_CONNECTED) {
    *action = ACTION_CONNECTED;
    *timeout = 0;
    return WN_STATUS_SUCCESS;
  }
  return watch(action, writeSet, fd, timeout);
}

int qxclnt_curl_prefnet::next_address(int* action, fd_set* writeSet, int* fd, long* timeout) {
  const char* tag = "qxclnt_curl_prefnet::nbio_connect";
  if (m_fd >= 0 && ::close(m_fd) != 0) logsyserr(QXLOG_DETAIL, tag, "socket close failed ", errno);
  m_fd = -1;
  if (nowMs() >= m_deadline) {
    *action = ACTION_TIMED_OUT;
    *timeout = -1;
    reset();
    return returning(tag, WN_STATUS_CONNECT_FAILED);
  }
  m_state = STATE_FAILED;
  if (iterate_next_iface() != WN_STATUS_SUCCESS || tryeach_iface_connect() != WN_STATUS_SUCCESS)
    return returning(tag, WN_STATUS_CONNECT_FAILED);
  return started(action, writeSet, fd, timeout);
}

int qxclnt_curl_prefnet::nbio_connect(int* action, fd_set* /*readSet*/, fd_set* writeSet,
                                      fd_set* /*exceptSet*/, int* fd, long* timeout) {
  const char* tag = "qxclnt_curl_prefnet::nbio_connect";
  *fd = 0;
  *timeout = -1;
  if (*action == ACTION_TIMED_OUT) {
    if (m_state != STATE_CONNECTING) {
      *action = ACTION_NONE;
      reset(true);
      return returning(tag, WN_STATUS_CONNECT_TIMEOUT);
    }
    m_state = STATE_TIMED_OUT;
  }
  *action = ACTION_NONE;
  switch (m_state) {
    case STATE_INITIAL: {
      m_state = STATE_FAILED;
      int rc = establish_initial_connection();
      if (rc != WN_STATUS_SUCCESS) return rc;
      return started(action, writeSet, fd, timeout);
    }
    case STATE_CONNECTING: {
      bool inProgress = false;
      int err = helper_check_connect_status(m_fd, inProgress);
      if (err == 0 && !inProgress) {
        m_state = STATE_CONNECTED;
        *action = ACTION_CONNECTED;
        return WN_STATUS_SUCCESS;
      }
      if (err == 0) {
        if (nowMs() < m_attemptDeadline) return watch(action, writeSet, fd, timeout);
        QXLOG(QXLOG_DETAIL, tag) << "We have timedout. Lets try next IP if we have it.";
      }
      return next_address(action, writeSet, fd, timeout);
    }
    case STATE_TIMED_OUT:
      return next_address(action, writeSet, fd, timeout);
    case STATE_CONNECTED:
      QXLOG(QXLOG_PROGRESS, tag) << "Socket is already connected.";
      *action = ACTION_CONNECTED;
      return WN_STATUS_SUCCESS;
    case STATE_FAILED:
      return returning(tag, WN_STATUS_CONNECT_FAILED);
    default:
      QXLOG(QXLOG_ERROR, tag) << "Invalid state encountered.";
      return returning(tag, WN_STATUS_CONNECT_FAILED);
  }
}

int qxclnt_curl_prefnet::bio_connect() {
  const char* tag = "qxclnt_curl_prefnet::bio_connect";
  int action = ACTION_NONE;
  for (;;) {
    int fd = 0;
    long timeout = -1;
    // No fd_sets: this loop waits with poll(), which has no descriptor limit.
    int rc = nbio_connect(&action, nullptr, nullptr, nullptr, &fd, &timeout);
    QXLOG(QXLOG_PROGRESS, tag) << "RC [" << rc << "] STAT [" << action << "] MAXFD [" << fd
                               << "] TIMEOUT [" << timeout << "]";
    if (rc != WN_STATUS_SUCCESS) {
      QXLOG(QXLOG_DETAIL, tag) << "Connect FAILED with return code [" << rc << "] and status ["
                               << action << "].";
      reset(true);
      return rc;
    }
    if (action == ACTION_CONNECTED) return WN_STATUS_SUCCESS;
    if (action == ACTION_WATCH_WRITE) {
      struct pollfd p = {m_fd, POLLOUT, 0};
      int n;
      do {
        long long left = m_attemptDeadline - nowMs();
        n = ::poll(&p, 1, left < 0 ? 0 : static_cast<int>(left));
      } while (n < 0 && errno == EINTR);
      if (n < 0 || n > 1) {
        logsyserr(QXLOG_ERROR, tag, "select failed ", errno);
        reset(true);
        return returning(tag, WN_STATUS_SELECT_FAILED);
      }
      action = n == 1 ? ACTION_WATCH_WRITE : ACTION_TIMED_OUT;
      continue;
    }
    if (action == ACTION_TIMED_OUT) {
      QXLOG(QXLOG_DETAIL, tag) << "Connect timed out.";
      reset(true);
      return returning(tag, WN_STATUS_CONNECT_TIMEOUT);
    }
    QXLOG(QXLOG_ERROR, tag) << "Unknown error condition encountered while connect(). [" << action
                            << "]";
    reset(true);
    return returning(tag, WN_STATUS_CONNECT_FAILED);
  }
}
