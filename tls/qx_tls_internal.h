#ifndef QXCURL_TLS_QX_TLS_INTERNAL_H
#define QXCURL_TLS_QX_TLS_INTERNAL_H
// Pieces shared by the TLS sources and their tests; not installed.
#include <curl/curl.h>
#include <openssl/ssl.h>

#include <list>
#include <string>

class QXClientCURL;

// libcurl's SSL-context callback (CURLOPT_SSL_CTX_FUNCTION); client is the
// QXClientCURL. Returns CURLE_OK or CURLE_ABORTED_BY_CALLBACK.
CURLcode set_ssl_context(CURL* curl, SSL_CTX* ctx, void* client);
int register_verify_callback(SSL_CTX* ctx, void* client);
int libqxcurl_verify_callback(int preverify_ok, X509_STORE_CTX* store);
void cert_util_logger(const char* tag, const char* message);
// Ex-data index under which an SSL_CTX carries its client; -1 until the
// first registration (allocated once per process, never freed).
extern int qxclientcurl_sslctx_index;

// SSL-context callback that only puts the client's server-name marker on
// the connection (own CA: no revocation check to install).
CURLcode qxcurl_sni_context(CURL* curl, SSL_CTX* ctx, void* client);

// Makes every handshake of connections built from ctx send marker as the
// TLS server name (empty: the URL host, as libcurl sets it). 0, or -1 when
// the marker cannot be attached.
int qxInstallSniMarker(SSL_CTX* ctx, const std::string& marker);

// TLS sessions shared across the process's clients (qxclnt_tls_share.cpp).
// A session is resumed under a revocation check for at most this long.
constexpr long kQXTlsSessionLifetime = 60;
// Puts the client's handle on the share of clients with the same trust and
// revocation settings (or on none); cheap when nothing changed.
void qxTlsShareAttach(QXClientCURL& client);
// At handshake start: drops the session offered for resumption when
// resuming it would skip a revocation check whose answer may have changed.
void qxTlsGateSession(SSL* ssl, const QXClientCURL* client);

// Names a server certificate carries, from libcurl's certificate-info text
// lines ("Subject:...", "X509v3 Subject Alternative Name:..."): every DNS
// alternative name, or the common name alone when there is none.
void qxCertInfoNames(const struct curl_slist* entries, std::list<std::string>& names,
                     std::string* commonName = nullptr);
#endif  // QXCURL_TLS_QX_TLS_INTERNAL_H
