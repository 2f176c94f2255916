// The client's side of the preferred-network connection: before a transfer
// the connector dials under the administrator's rules, and libcurl's socket
// callbacks make libcurl use that socket instead of dialling by itself.
//
// Keep-alive: libcurl reuses a live connection without asking for a socket,
// so the exchange does not dial when libcurl holds one to the same place. If
// libcurl opens a connection all the same (it found the kept one closed by
// the server, a redirect), the open-socket callback dials the address
// libcurl proposes, under the same rules. A socket the exchange
// connected that libcurl did not take is closed at the next exchange or with
// the client.
#include <strings.h>
#include <sys/socket.h>

#include <cstring>
#include <string_view>

#include "client/qxclnt_curl_option.h"
#include "platform/qx_log.h"
#include "platform/qx_wnet.h"
#include "prefnet/qxclnt_prefnet.h"
#include "qxcurl/qxclnt_curl.h"

namespace {

const char kUnreachable[] = "BAD:ADD::125";
const int kTunnelPort = 1556;

std::string_view bare(std::string_view host) {
  if (host.size() > 2 && host.front() == '[' && host.back() == ']')
    return host.substr(1, host.size() - 2);
  return host;
}

// libcurl reads an IPv6 literal host only in brackets.
std::string resolveHost(std::string_view host) {
  std::string h(host);
  return h.find(':') != std::string::npos ? "[" + h + "]" : h;
}

// Where the exchange dials. Through a tunnel libcurl asks for a socket to the
// proxy, not to the server. A view: nothing is copied per request.
std::string_view exchangeTarget(const QXClientCURL& c, int& port) {
  // Mostly the very same name (no tunnel): strcasecmp only for the rest.
  if (!c.m_tunnelName.empty() && c.m_tunnelName != c.m_server &&
      strcasecmp(c.m_tunnelName.c_str(), c.m_server.c_str()) != 0) {
    port = kTunnelPort;
    return bare(c.m_tunnelName);
  }
  port = c.m_port;
  return bare(c.m_connectHost);
}

// libcurl's last connection when it goes where this exchange would dial:
// libcurl will reuse it and ask for no socket. Whether it is still alive is
// libcurl's own check; if libcurl finds it dead, it asks the open-socket
// callback for a new socket, which dials under the same rules.
curl_socket_t keptConnection(const QXClientCURL& c, std::string_view host, int port) {
  if (port != c.m_pbxPort || host != c.m_pbxHost) return CURL_SOCKET_BAD;
  curl_socket_t s = CURL_SOCKET_BAD;
  if (curl_easy_getinfo(c.m_curlHandle, CURLINFO_ACTIVESOCKET, &s) != CURLE_OK)
    return CURL_SOCKET_BAD;
  return s;
}

// Whether the current rules would have dialled connection s as it is: its peer
// permitted and, when a rule names a source, bound to it.
bool stillPermitted(curl_socket_t s) {
  struct sockaddr_storage peer, local;
  socklen_t plen = sizeof peer, llen = sizeof local;
  if (getpeername(s, reinterpret_cast<struct sockaddr*>(&peer), &plen) != 0) return false;
  wnet_pref_netconnection answer;
  if (wnet_get_pref_netconnection(reinterpret_cast<struct sockaddr*>(&peer), plen, &answer) !=
      WN_STATUS_SUCCESS)
    return false;
  bool ok = !answer.prohibited;
  if (ok && answer.local != nullptr) {
    WnetAddr want, have;
    ok = getsockname(s, reinterpret_cast<struct sockaddr*>(&local), &llen) == 0 &&
         wnet_addr_of(answer.local->ai_addr, answer.local->ai_addrlen, want) &&
         wnet_addr_of(reinterpret_cast<struct sockaddr*>(&local), llen, have) &&
         want.family == have.family && std::memcmp(want.bytes, have.bytes, 16) == 0;
  }
  wnet_freeaddrinfo(answer.local);
  return ok;
}

// Readies the connector to dial host:port under the current rules.
void arm(QXClientCURL& c, const std::string& host, int port) {
  qxclnt_curl_prefnet& conn = *c.m_connector;
  conn.reset();
  c.m_pbxRules = wnet_pref_rules_generation();
  conn.update_connect_param(host);
  conn.update_connect_port(static_cast<unsigned int>(port));
  conn.update_connect_param(c.m_connectorTimeout);
}

// The connector's outcome: its socket waits for libcurl in m_pbxSocket.
void took(QXClientCURL& c, int rc) {
  c.m_pbxFailed = rc != WN_STATUS_SUCCESS;
  c.m_pbxSocket = rc == WN_STATUS_SUCCESS ? static_cast<int>(*c.m_connector) : -1;
}

// The connector dials host:port and blocks until it is done.
int dial(QXClientCURL& c, const std::string& host, int port) {
  arm(c, host, port);
  int rc = c.m_connector->connect(QXCLNT_CMODE_BLOCKING, nullptr, nullptr, nullptr, nullptr,
                                  nullptr, nullptr);
  took(c, rc);
  return rc;
}

// Whether libcurl's kept connection to host:port will carry the next transfer
// under the current rules. A connection the rules no longer allow is shut
// down: libcurl finds it hung up and asks for a new socket.
bool keptUsable(QXClientCURL& c, std::string_view host, int port) {
  const char* tag = "QXClientCURL::connectToPBXExchange";
  curl_socket_t kept = keptConnection(c, host, port);
  if (kept == CURL_SOCKET_BAD) return false;
  // Changed rules take effect on the next request, kept connection or not.
  unsigned long rules = wnet_pref_rules_generation();
  if (rules == c.m_pbxRules || stillPermitted(kept)) {
    c.m_pbxRules = rules;
    QXLOG(QXLOG_PROGRESS, tag) << "Reusing the kept-alive connection to [" << host << "].";
    return true;
  }
  QXLOG(QXLOG_PROGRESS, tag)
      << "Preferred network settings changed; dropping the kept-alive connection to [" << host
      << "].";
  ::shutdown(kept, SHUT_RDWR);
  return false;
}

}  // namespace

curl_socket_t QXClientCURL::qxcurl_opensocket_cb(void* client, curlsocktype purpose,
                                                 struct curl_sockaddr* address) {
  const char* tag = "QXClientCURL::qxcurl_opensocket_cb";
  if (client == nullptr) {
    QXLOG(QXLOG_OPTION, tag) << "Base context to CuRL callback is NULL.";
    return CURL_SOCKET_BAD;
  }
  QXClientCURL& c = *static_cast<QXClientCURL*>(client);
  if (purpose != CURLSOCKTYPE_IPCXN || c.m_connector == nullptr) {
    QXLOG(QXLOG_OPTION, tag) << "Unknown/Unhandled purpose.";
    return CURL_SOCKET_BAD;
  }
  if (c.m_pbxSocket >= 0) {
    c.m_pbxSocket = -1;  // libcurl's now: it closes it
    return static_cast<int>(*c.m_connector);
  }
  // The exchange found no permitted way: libcurl proposes the unreachable
  // address and must fail.
  if (c.m_pbxFailed || address == nullptr) return CURL_SOCKET_BAD;

  // A connection the exchange did not foresee: dial the address libcurl
  // resolved, under the same rules.
  WnetAddr a;
  if (!wnet_addr_of(&address->addr, address->addrlen, a)) return CURL_SOCKET_BAD;
  WnetAddr unreachable;
  wnet_parse_addr(kUnreachable, unreachable);
  if (std::memcmp(a.bytes, unreachable.bytes, sizeof a.bytes) == 0) return CURL_SOCKET_BAD;
  int port = 0;
  if (address->addr.sa_family == AF_INET)
    port = ntohs(reinterpret_cast<const struct sockaddr_in*>(&address->addr)->sin_port);
  else
    port = ntohs(reinterpret_cast<const struct sockaddr_in6*>(&address->addr)->sin6_port);
  std::string host = wnet_addr_text(a);
  QXLOG(QXLOG_PROGRESS, tag) << "libcurl opens a new connection; connecting to [" << host << "]:["
                             << port << "].";
  int rc = dial(c, host, port);
  if (rc != WN_STATUS_SUCCESS) {
    QXLOG(QXLOG_OPTION, tag) << "Failed to connect to [" << host << "]. WNET erro = " << rc << ".";
    return CURL_SOCKET_BAD;
  }
  c.m_pbxSocket = -1;
  return static_cast<int>(*c.m_connector);
}

int QXClientCURL::qxcurl_sockoptfunc_cb(void* client, curl_socket_t /*socket*/,
                                        curlsocktype purpose) {
  if (client == nullptr) return CURL_SOCKOPT_ERROR;
  QXClientCURL& c = *static_cast<QXClientCURL*>(client);
  if (c.m_connector == nullptr || purpose != CURLSOCKTYPE_IPCXN) return CURL_SOCKOPT_ERROR;
  return static_cast<int>(*c.m_connector) != -1 ? CURL_SOCKOPT_ALREADY_CONNECTED
                                                : CURL_SOCKOPT_ERROR;
}

int QXClientCURL::setCurlSocketCb() {
  setCurlOptionLogged(CURLOPT_OPENSOCKETFUNCTION, reinterpret_cast<void*>(&qxcurl_opensocket_cb),
                      "CURLOPT_OPENSOCKETFUNCTION");
  setCurlOptionLogged(CURLOPT_OPENSOCKETDATA, static_cast<void*>(this), "CURLOPT_OPENSOCKETDATA");
  setCurlOptionLogged(CURLOPT_SOCKOPTFUNCTION, reinterpret_cast<void*>(&qxcurl_sockoptfunc_cb),
                      "CURLOPT_SOCKOPTFUNCTION");
  return setCurlOptionLogged(CURLOPT_SOCKOPTDATA, static_cast<void*>(this), "CURLOPT_SOCKOPTDATA");
}

int QXClientCURL::resetCurlResolver(const std::string& entry) {
  const char* tag = "QXClientCURL::resetCurlResolver";
  std::string line = entry;
  if (line.empty()) {
    std::string_view host = m_pbxHost.empty() ? bare(m_connectHost) : m_pbxHost;
    int port = m_pbxHost.empty() ? m_port : m_pbxPort;
    line = resolveHost(host) + ":" + std::to_string(port) + ":" + kUnreachable;
    QXLOG(QXLOG_PROGRESS, tag) << "We are not connected, hence setting resolve to [" << kUnreachable
                               << "].";
  }
  curl_slist_free_all(m_resolveList);
  m_resolveList = curl_slist_append(nullptr, line.c_str());
  int rc =
      setCurlOptionLogged(CURLOPT_RESOLVE, static_cast<void*>(m_resolveList), "CURLOPT_RESOLVE");
  if (rc == 0) QXLOG(QXLOG_PROGRESS, tag) << "Hostname resolution set to [" << line << "].";
  return rc;
}

bool QXClientCURL::pbxKeptConnectionUsable() {
  if (m_connector == nullptr) return false;
  int port = 0;
  std::string_view host = exchangeTarget(*this, port);
  return keptUsable(*this, host, port);
}

int QXClientCURL::preparePBXExchange(int kept) {
  const char* tag = "QXClientCURL::connectToPBXExchange";
  // The previous socket is libcurl's once taken; one it never took is ours.
  m_connector->reset(m_pbxSocket >= 0);
  m_pbxSocket = -1;
  m_pbxFailed = false;
  if (!m_socketCallbacksInstalled) {
    setCurlSocketCb();
    m_socketCallbacksInstalled = true;
  }
  int port = 0;
  std::string_view host = exchangeTarget(*this, port);
  if (kept < 0 ? keptUsable(*this, host, port) : kept == 1) return 1;
  m_pbxHost.assign(host.data(), host.size());
  m_pbxPort = port;
  QXLOG(QXLOG_PROGRESS, tag) << "Connecting to [" << m_connectHost << "].";
  arm(*this, m_pbxHost, port);
  return 0;
}

void QXClientCURL::finishPBXExchange(int rc) {
  if (rc != WN_STATUS_SUCCESS) {
    QXLOG(QXLOG_OPTION, "QXClientCURL::connectToPBXExchange")
        << "Failed to connect to [" << m_connectHost << "]. WNET erro = " << rc << ".";
  }
  took(*this, rc);
  resetCurlResolver(static_cast<std::string>(*m_connector));
}

int QXClientCURL::connectToPBXExchange() {
  if (m_connector == nullptr) return 0;
  if (preparePBXExchange(-1) == 1) return 0;
  finishPBXExchange(m_connector->connect(QXCLNT_CMODE_BLOCKING, nullptr, nullptr, nullptr, nullptr,
                                         nullptr, nullptr));
  return 0;
}
