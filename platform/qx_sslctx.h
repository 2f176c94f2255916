#ifndef QXCURL_PLATFORM_QX_SSLCTX_H
#define QXCURL_PLATFORM_QX_SSLCTX_H
#include <openssl/ssl.h>

#include <string>

// Receives the helpers' error messages (tag, text).
typedef void (*cert_util_logger_t)(const char* tag, const char* message);

// Loads PEM trust material, certificate chains and private keys straight
// into an SSL_CTX. Statuses: 0, 20 bad argument, 12 file missing, 8508 no
// usable CA certificate, 8511 certificate or key unusable (wrong passphrase,
// not PEM, key does not match the certificate), 8787 key not FIPS-capable.
// The logger may be null. A key is never prompted for on a terminal.
class SSLCTXHelper {
 public:
  static int set_ca_cert_in_ssl_context(const std::string& path, cert_util_logger_t logger,
                                        SSL_CTX** ctx);
  // Leaf first, then its intermediates.
  static int set_cert_chain_in_ssl_context(const std::string& path, cert_util_logger_t logger,
                                           SSL_CTX** ctx);
  // fipsMode: 1 on, 0 off, -1 (default) from the configuration key
  // "FIPS_MODE". In FIPS mode only RSA of at least 2048 bits and EC keys on
  // P-256, P-384 or P-521 are accepted.
  static int set_private_key_in_ssl_context(const std::string& path, cert_util_logger_t logger,
                                            SSL_CTX** ctx, const std::string& passphrase,
                                            int fipsMode = -1);
  // The FIPS rule alone: true when the key may be used in FIPS mode.
  static bool isFipsCapableKey(EVP_PKEY* key);
};

// PEM text of every certificate of the stack, in order; malloc'ed (release
// with free). Null for a null or empty stack or on failure.
char* getPEMStrFromX509_sk(STACK_OF(X509) * chain);
#endif  // QXCURL_PLATFORM_QX_SSLCTX_H
