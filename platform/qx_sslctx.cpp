#include "platform/qx_sslctx.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/qx_certmap.h"
#include "platform/qx_config.h"
#include "platform/qx_log.h"
#include "qxcurl/qx_status.h"

namespace {

void report(cert_util_logger_t logger, const char* tag, const std::string& text) {
  if (logger != nullptr) {
    logger(tag, text.c_str());
  } else {
    QXLOG(QXLOG_ERROR, tag) << text;
  }
}

std::string opensslError() {
  unsigned long e = ERR_get_error();
  ERR_clear_error();
  if (e == 0) return "no detail";
  char buf[256];
  ERR_error_string_n(e, buf, sizeof buf);
  return buf;
}

// Reads the file through our own reader so that a missing file is told
// apart from unusable contents.
int loadFile(const std::string& path, cert_util_logger_t logger, const char* tag,
             std::string& data) {
  int rc = readDataFromFile(path, data);
  if (rc != 0) report(logger, tag, "Cannot read [" + path + "], status " + std::to_string(rc));
  return rc == QX_ERR_BAD_ARGUMENT ? QX_ERR_CLIENT_CERT : rc;
}

// The common start of the three loaders: a context to load into and the
// file's contents.
int loadInput(const std::string& path, SSL_CTX** ctx, cert_util_logger_t logger, const char* tag,
              std::string& data) {
  if (ctx == nullptr || *ctx == nullptr || path.empty()) {
    report(logger, tag, "Invalid argument: empty path or no SSL context");
    return QX_ERR_BAD_ARGUMENT;
  }
  return loadFile(path, logger, tag, data);
}

struct Passphrase {
  const std::string* text;
  bool asked;
};

// Supplies the known passphrase; never prompts. Too long a passphrase fails
// rather than being cut short.
int passphraseCallback(char* buf, int size, int /*rwflag*/, void* u) {
  auto* p = static_cast<Passphrase*>(u);
  p->asked = true;
  if (p->text == nullptr || p->text->empty()) return 0;
  if (p->text->size() > static_cast<size_t>(size)) return 0;
  // OpenSSL takes the length returned, not a terminated string.
  // NOLINTNEXTLINE(bugprone-not-null-terminated-result)
  std::memcpy(buf, p->text->data(), p->text->size());
  return static_cast<int>(p->text->size());
}

bool fipsModeFromConfig() {
  if (QX_read_master_config() != 0) return false;
  bool on = false;
  return bpconfGetKeyValPairAsBool(get_master_config_ptr(), "FIPS_MODE", &on) == 0 && on;
}

}  // namespace

bool SSLCTXHelper::isFipsCapableKey(EVP_PKEY* key) {
  if (key == nullptr) return false;
  if (EVP_PKEY_is_a(key, "RSA")) return EVP_PKEY_get_bits(key) >= 2048;
  if (EVP_PKEY_is_a(key, "EC")) {
    char group[80] = {0};
    size_t len = 0;
    if (EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, group, sizeof group,
                                       &len) != 1)
      return false;
    return std::strcmp(group, "prime256v1") == 0 || std::strcmp(group, "P-256") == 0 ||
           std::strcmp(group, "secp384r1") == 0 || std::strcmp(group, "P-384") == 0 ||
           std::strcmp(group, "secp521r1") == 0 || std::strcmp(group, "P-521") == 0;
  }
  return false;
}

int SSLCTXHelper::set_ca_cert_in_ssl_context(const std::string& path, cert_util_logger_t logger,
                                             SSL_CTX** ctx) {
  static const char tag[] = "SSLCTXHelper::set_ca_cert_in_ssl_context";
  std::string data;
  int rc = loadInput(path, ctx, logger, tag, data);
  if (rc != 0) return rc;
  X509_STORE* store = SSL_CTX_get_cert_store(*ctx);
  BIO* bio = BIO_new_mem_buf(data.data(), static_cast<int>(data.size()));
  int added = 0;
  while (X509* x = bio ? PEM_read_bio_X509(bio, nullptr, nullptr, nullptr) : nullptr) {
    // A certificate already present is not an error.
    if (X509_STORE_add_cert(store, x) == 1) ++added;
    X509_free(x);
  }
  ERR_clear_error();
  BIO_free(bio);
  if (added == 0) {
    report(logger, tag, "No CA certificate could be loaded from [" + path + "]");
    return QX_ERR_TRUST_STORE;
  }
  return 0;
}

int SSLCTXHelper::set_cert_chain_in_ssl_context(const std::string& path, cert_util_logger_t logger,
                                                SSL_CTX** ctx) {
  static const char tag[] = "SSLCTXHelper::set_cert_chain_in_ssl_context";
  std::string data;
  int rc = loadInput(path, ctx, logger, tag, data);
  if (rc != 0) return rc;
  BIO* bio = BIO_new_mem_buf(data.data(), static_cast<int>(data.size()));
  X509* leaf = bio ? PEM_read_bio_X509(bio, nullptr, nullptr, nullptr) : nullptr;
  if (leaf == nullptr || SSL_CTX_use_certificate(*ctx, leaf) != 1) {
    report(logger, tag, "No usable certificate in [" + path + "]: " + opensslError());
    X509_free(leaf);
    BIO_free(bio);
    return QX_ERR_CLIENT_CERT;
  }
  X509_free(leaf);
  SSL_CTX_clear_chain_certs(*ctx);
  rc = 0;
  while (X509* x = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr)) {
    if (SSL_CTX_add0_chain_cert(*ctx, x) != 1) {  // takes x on success
      X509_free(x);
      report(logger, tag, "Cannot add a chain certificate from [" + path + "]");
      rc = QX_ERR_CLIENT_CERT;
      break;
    }
  }
  ERR_clear_error();
  BIO_free(bio);
  return rc;
}

int SSLCTXHelper::set_private_key_in_ssl_context(const std::string& path, cert_util_logger_t logger,
                                                 SSL_CTX** ctx, const std::string& passphrase,
                                                 int fipsMode) {
  static const char tag[] = "SSLCTXHelper::set_private_key_in_ssl_context";
  std::string data;
  int rc = loadInput(path, ctx, logger, tag, data);
  if (rc != 0) return rc;
  BIO* bio = BIO_new_mem_buf(data.data(), static_cast<int>(data.size()));
  Passphrase pw{&passphrase, false};
  EVP_PKEY* key = bio ? PEM_read_bio_PrivateKey(bio, nullptr, passphraseCallback, &pw) : nullptr;
  BIO_free(bio);
  if (key == nullptr) {
    std::string why = opensslError();
    report(logger, tag,
           "Cannot read the private key from [" + path + "]" +
               (pw.asked ? " (wrong or missing passphrase?): " : ": ") + why);
    return QX_ERR_CLIENT_CERT;
  }
  bool fips = fipsMode < 0 ? fipsModeFromConfig() : fipsMode != 0;
  if (fips && !isFipsCapableKey(key)) {
    report(logger, tag,
           "The private key in [" + path + "] is not FIPS-capable (" +
               std::string(EVP_PKEY_get0_type_name(key) ? EVP_PKEY_get0_type_name(key) : "?") +
               ", " + std::to_string(EVP_PKEY_get_bits(key)) + " bits)");
    EVP_PKEY_free(key);
    return QX_ERR_KEY_NOT_FIPS;
  }
  rc = 0;
  if (SSL_CTX_use_PrivateKey(*ctx, key) != 1) {
    report(logger, tag, "The private key in [" + path + "] was refused: " + opensslError());
    rc = QX_ERR_CLIENT_CERT;
  } else if (SSL_CTX_get0_certificate(*ctx) != nullptr && SSL_CTX_check_private_key(*ctx) != 1) {
    report(logger, tag, "The private key in [" + path + "] does not match the certificate");
    ERR_clear_error();
    rc = QX_ERR_CLIENT_CERT;
  }
  EVP_PKEY_free(key);
  return rc;
}

char* getPEMStrFromX509_sk(STACK_OF(X509) * chain) {
  if (chain == nullptr || sk_X509_num(chain) <= 0) return nullptr;
  BIO* bio = BIO_new(BIO_s_mem());
  if (bio == nullptr) return nullptr;
  for (int i = 0; i < sk_X509_num(chain); ++i) {
    if (PEM_write_bio_X509(bio, sk_X509_value(chain, i)) != 1) {
      BIO_free(bio);
      return nullptr;
    }
  }
  char* p = nullptr;
  long len = BIO_get_mem_data(bio, &p);
  char* out = static_cast<char*>(std::malloc(static_cast<size_t>(len) + 1));
  if (out != nullptr) {
    std::memcpy(out, p, static_cast<size_t>(len));
    out[len] = '\0';
  }
  BIO_free(bio);
  return out;
}
