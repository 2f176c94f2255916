#include "platform/qx_crl.h"

#include <curl/curl.h>
#include <dirent.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <vector>

#include "platform/qx_certmap.h"
#include "platform/qx_log.h"
#include "platform/qx_root.h"
#include "platform/qx_safefile.h"
#include "qxcurl/qx_status.h"

namespace {

constexpr size_t kMaxCrlSize = 16u << 20;

struct X509Stack {
  STACK_OF(X509) * sk = sk_X509_new_null();
  X509Stack() = default;
  X509Stack(const X509Stack&) = delete;
  X509Stack& operator=(const X509Stack&) = delete;
  ~X509Stack() { sk_X509_pop_free(sk, X509_free); }
};

struct CrlList {
  std::vector<X509_CRL*> crls;
  CrlList() = default;
  CrlList(const CrlList&) = delete;
  CrlList& operator=(const CrlList&) = delete;
  ~CrlList() {
    for (X509_CRL* c : crls) X509_CRL_free(c);
  }
};

// Appends every PEM certificate of text; returns how many.
int parseCerts(const std::string& text, STACK_OF(X509) * out) {
  BIO* bio = BIO_new_mem_buf(text.data(), static_cast<int>(text.size()));
  int n = 0;
  while (X509* x = bio ? PEM_read_bio_X509(bio, nullptr, nullptr, nullptr) : nullptr) {
    if (sk_X509_push(out, x) <= 0) {
      X509_free(x);
      break;
    }
    ++n;
  }
  ERR_clear_error();
  BIO_free(bio);
  return n;
}

// PEM (any number) or one DER CRL.
void parseCrls(const std::string& data, std::vector<X509_CRL*>& out) {
  size_t before = out.size();
  BIO* bio = BIO_new_mem_buf(data.data(), static_cast<int>(data.size()));
  while (X509_CRL* c = bio ? PEM_read_bio_X509_CRL(bio, nullptr, nullptr, nullptr) : nullptr)
    out.push_back(c);
  BIO_free(bio);
  if (out.size() == before && !data.empty()) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(data.data());
    if (X509_CRL* c = d2i_X509_CRL(nullptr, &p, static_cast<long>(data.size()))) out.push_back(c);
  }
  ERR_clear_error();
}

void loadCrlFile(const std::string& path, std::vector<X509_CRL*>& out) {
  std::string data;
  if (readDataFromFile(path, data) != 0) return;
  size_t before = out.size();
  parseCrls(data, out);
  if (out.size() == before)
    QXLOG(QXLOG_DETAIL, "QXCurlCrlService::loadCrls") << "No CRL in [" << path << "], skipped";
}

bool isFresh(const X509_CRL* crl) {
  const ASN1_TIME* next = X509_CRL_get0_nextUpdate(crl);
  return next == nullptr || X509_cmp_current_time(next) > 0;
}

// 1 fresh CRL of cert's issuer present, 0 only a stale one, -1 none.
int crlStateFor(X509* cert, const std::vector<X509_CRL*>& crls) {
  int state = -1;
  for (X509_CRL* c : crls) {
    if (X509_NAME_cmp(X509_CRL_get_issuer(c), X509_get_issuer_name(cert)) != 0) continue;
    if (isFresh(c)) return 1;
    state = 0;
  }
  return state;
}

std::vector<std::string> distributionPoints(X509* cert) {
  std::vector<std::string> urls;
  auto* points = static_cast<CRL_DIST_POINTS*>(
      X509_get_ext_d2i(cert, NID_crl_distribution_points, nullptr, nullptr));
  for (int i = 0; points != nullptr && i < sk_DIST_POINT_num(points); ++i) {
    DIST_POINT* dp = sk_DIST_POINT_value(points, i);
    if (dp->distpoint == nullptr || dp->distpoint->type != 0) continue;
    GENERAL_NAMES* names = dp->distpoint->name.fullname;
    for (int j = 0; j < sk_GENERAL_NAME_num(names); ++j) {
      GENERAL_NAME* gn = sk_GENERAL_NAME_value(names, j);
      if (gn->type != GEN_URI) continue;
      const ASN1_IA5STRING* uri = gn->d.uniformResourceIdentifier;
      std::string u(reinterpret_cast<const char*>(ASN1_STRING_get0_data(uri)),
                    static_cast<size_t>(ASN1_STRING_length(uri)));
      if (u.compare(0, 7, "http://") == 0 || u.compare(0, 8, "https://") == 0) urls.push_back(u);
    }
  }
  CRL_DIST_POINTS_free(points);
  return urls;
}

int makeDirs(const std::string& dir) {
  for (size_t pos = 1; pos != std::string::npos;) {
    pos = dir.find('/', pos + 1);
    std::string part = dir.substr(0, pos);
    if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return errno;
  }
  return 0;
}

// Keeps a downloaded CRL for later checks: written aside, then renamed, so
// that a reader never sees half a file.
void storeCrl(X509_CRL* crl) {
  std::string dir = qxCrlDirectory();
  if (makeDirs(dir) != 0) return;
  char name[32];
  (void)std::snprintf(name, sizeof name, "%08lx.r0",
                      X509_NAME_hash_ex(X509_CRL_get_issuer(crl), nullptr, nullptr, nullptr));
  std::string path = dir + "/" + name;
  // Through a private temporary (mkstemp) and a rename: never a predictable
  // name, never half a file.
  BIO* mem = BIO_new(BIO_s_mem());
  bool ok = mem != nullptr && PEM_write_bio_X509_CRL(mem, crl) == 1;
  char* data = nullptr;
  long len = ok ? BIO_get_mem_data(mem, &data) : 0;
  ok = ok && len > 0 && qxReplaceFile(path, std::string(data, static_cast<size_t>(len)), 0644) == 0;
  BIO_free(mem);
  if (!ok) return;
  QXLOG(QXLOG_PROGRESS, "QXCurlCrlService::storeCrl") << "Stored CRL in [" << path << "]";
}

// Fetches the CRLs of cert's issuer from its distribution points; adds
// those that match to crls. True when one was found.
bool download(X509* cert, std::vector<X509_CRL*>& crls, std::set<std::string>& tried) {
  bool found = false;
  for (const std::string& url : distributionPoints(cert)) {
    if (!tried.insert(url).second) continue;
    std::string body;
    if (qxCrlDownload(url, body) != 0) continue;
    std::vector<X509_CRL*> got;
    parseCrls(body, got);
    for (X509_CRL* c : got) {
      if (X509_NAME_cmp(X509_CRL_get_issuer(c), X509_get_issuer_name(cert)) == 0) {
        storeCrl(c);
        crls.push_back(c);
        found = true;
      } else {
        X509_CRL_free(c);
      }
    }
    if (found) break;
  }
  return found;
}

int statusForVerifyError(int err) {
  switch (err) {
    case X509_V_ERR_UNABLE_TO_GET_CRL:
      return QX_ERR_CRL_UNAVAILABLE;
    case X509_V_ERR_CRL_HAS_EXPIRED:
      return QX_ERR_CRL_EXPIRED;
    case X509_V_ERR_CERT_REVOKED:
      return QX_ERR_CERT_REVOKED;
    case X509_V_ERR_UNABLE_TO_DECRYPT_CRL_SIGNATURE:
      return QX_ERR_CRL_SIG_DECRYPT;
    case X509_V_ERR_CRL_SIGNATURE_FAILURE:
      return QX_ERR_CRL_SIGNATURE;
    case X509_V_ERR_CRL_NOT_YET_VALID:
      return QX_ERR_CRL_NOT_YET_VALID;
    case X509_V_ERR_ERROR_IN_CRL_LAST_UPDATE_FIELD:
      return QX_ERR_CRL_LAST_UPDATE;
    case X509_V_ERR_ERROR_IN_CRL_NEXT_UPDATE_FIELD:
      return QX_ERR_CRL_NEXT_UPDATE;
    case X509_V_ERR_KEYUSAGE_NO_CERTSIGN:
      return QX_ERR_KEYUSAGE_CERT_SIGN;
    case X509_V_ERR_KEYUSAGE_NO_CRL_SIGN:
      return QX_ERR_KEYUSAGE_CRL_SIGN;
    case X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION:
      return QX_ERR_CRL_CRITICAL_EXT;
    case X509_V_ERR_DIFFERENT_CRL_SCOPE:
      return QX_ERR_CRL_SCOPE;
    case X509_V_ERR_CRL_PATH_VALIDATION_ERROR:
      return QX_ERR_CRL_PATH;
  }
  return QX_ERR_CERT_VERIFY;
}

int acceptStaleCb(int ok, X509_STORE_CTX* ctx) {
  if (!ok && X509_STORE_CTX_get_error(ctx) == X509_V_ERR_CRL_HAS_EXPIRED) return 1;
  return ok;
}

class CrlService : public QXCurlCrlService {
 public:
  CrlService(bool offlineOnly, bool acceptStale, const char* crlFile)
      : m_offlineOnly(offlineOnly), m_acceptStale(acceptStale), m_crlFile(crlFile ? crlFile : "") {}

  int checkRevocation(const std::string& peerChainPem, const std::string& trustedPem,
                      unsigned int level, bool& isRevoked, int& errorCode, std::string& errorStr,
                      bool mayDownload, int /*reserved*/) override {
    static const char tag[] = "QXCurlCrlService::checkRevocation";
    isRevoked = false;
    errorCode = 0;
    errorStr.clear();
    if (level == 0) return 0;

    X509Stack chain, anchors;
    if (parseCerts(peerChainPem, chain.sk) == 0)
      return fail(QX_ERR_BAD_ARGUMENT, "no certificate in the chain", errorCode, errorStr);
    if (parseCerts(trustedPem, anchors.sk) == 0)
      return fail(QX_ERR_BAD_ARGUMENT, "no trusted CA certificate", errorCode, errorStr);

    CrlList crls;
    loadCrls(crls.crls);

    // Which certificates need a CRL: the leaf, or the whole chain. A
    // trust anchor at the top is covered by its own CRL under level 2.
    int last = level >= 2 ? sk_X509_num(chain.sk) - 1 : 0;
    if (mayDownload && !m_offlineOnly) {
      std::set<std::string> tried;
      for (int i = 0; i <= last; ++i) {
        X509* cert = sk_X509_value(chain.sk, i);
        if (crlStateFor(cert, crls.crls) != 1) download(cert, crls.crls, tried);
      }
    }

    X509_STORE* store = X509_STORE_new();
    X509_STORE_CTX* ctx = X509_STORE_CTX_new();
    X509Stack untrusted;
    for (int i = 1; i < sk_X509_num(chain.sk); ++i) {
      X509* x = sk_X509_value(chain.sk, i);
      X509_up_ref(x);
      sk_X509_push(untrusted.sk, x);
    }
    int rc = 0;
    if (store == nullptr || ctx == nullptr) {
      rc = fail(QX_ERR_NO_MEMORY, "out of memory", errorCode, errorStr);
    } else {
      for (int i = 0; i < sk_X509_num(anchors.sk); ++i)
        X509_STORE_add_cert(store, sk_X509_value(anchors.sk, i));
      for (X509_CRL* c : crls.crls) X509_STORE_add_crl(store, c);
      ERR_clear_error();  // duplicates are not errors
      unsigned long flags = X509_V_FLAG_CRL_CHECK;
      if (level >= 2) flags |= X509_V_FLAG_CRL_CHECK_ALL;
      X509_STORE_set_flags(store, flags);
      if (X509_STORE_CTX_init(ctx, store, sk_X509_value(chain.sk, 0), untrusted.sk) != 1) {
        rc = fail(QX_ERR_NO_MEMORY, "cannot initialise the verification", errorCode, errorStr);
      } else {
        if (m_acceptStale) X509_STORE_CTX_set_verify_cb(ctx, acceptStaleCb);
        int ok = X509_verify_cert(ctx);
        int err = X509_STORE_CTX_get_error(ctx);
        if (ok == 1) {
          QXLOG(QXLOG_PROGRESS, tag)
              << "Chain checked against CRLs, level [" << level << "]: not revoked";
        } else if (err == X509_V_ERR_CERT_REVOKED) {
          isRevoked = true;
          errorCode = QX_ERR_CERT_REVOKED;
          errorStr = X509_verify_cert_error_string(err);
          QXLOG(QXLOG_PROGRESS, tag)
              << "Certificate at depth [" << X509_STORE_CTX_get_error_depth(ctx) << "] is revoked";
        } else {
          rc = fail(statusForVerifyError(err), X509_verify_cert_error_string(err), errorCode,
                    errorStr);
        }
      }
      ERR_clear_error();
    }
    X509_STORE_CTX_free(ctx);
    X509_STORE_free(store);
    return rc;
  }

 private:
  int fail(int code, const std::string& why, int& errorCode, std::string& errorStr) {
    errorCode = code;
    errorStr = why;
    QXLOG(QXLOG_DETAIL, "QXCurlCrlService::checkRevocation")
        << "Revocation check not carried out: [" << code << "] " << why;
    return code;
  }

  void loadCrls(std::vector<X509_CRL*>& out) {
    std::string dir = qxCrlDirectory();
    if (DIR* d = opendir(dir.c_str())) {
      std::vector<std::string> names;
      while (dirent* e = readdir(d)) {
        std::string n = e->d_name;
        if (n == "." || n == ".." || n.find(".tmp.") != std::string::npos) continue;
        names.push_back(n);
      }
      closedir(d);
      for (const auto& n : names) {
        std::string p = dir;
        p += '/';
        p += n;
        struct stat st;
        if (stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode)) loadCrlFile(p, out);
      }
    }
    for (const auto& p : getConfiguredCrlFiles()) loadCrlFile(p, out);
    if (!m_crlFile.empty()) loadCrlFile(m_crlFile, out);
  }

  bool m_offlineOnly;
  bool m_acceptStale;
  std::string m_crlFile;
};

size_t collect(char* data, size_t size, size_t n, void* user) {
  auto* out = static_cast<std::string*>(user);
  if (out->size() + size * n > kMaxCrlSize) return 0;  // aborts the transfer
  out->append(data, size * n);
  return size * n;
}

}  // namespace

QXCurlCrlService::~QXCurlCrlService() = default;

QXCurlCrlService* NoQXCurlCrlServiceFactory::createCrlService(cert_type /*certType*/,
                                                              bool offlineOnly, bool acceptStaleCrl,
                                                              const char* crlFile) {
  return new CrlService(offlineOnly, acceptStaleCrl, crlFile);
}

std::string qxCrlDirectory() { return qxInstallRoot() + "/var/crl"; }

namespace {
// A CRL being stored: "<hash>.r0" plus the temporary's ".XXXXXX" (or an
// older ".tmp.<pid>").
bool isTemporaryName(const std::string& n) {
  if (n.find(".tmp.") != std::string::npos) return true;
  size_t r = n.find(".r");
  if (r == std::string::npos) return false;
  size_t end = n.find_first_not_of("0123456789", r + 2);
  return end != std::string::npos && end > r + 2 && n[end] == '.';
}

// The files of the CRL directory, as the check loads them.
std::vector<std::string> crlDirectoryFiles(const std::string& dir) {
  std::vector<std::string> files;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      std::string n = e->d_name;
      if (n == "." || n == ".." || isTemporaryName(n)) continue;
      files.push_back(dir);
      files.back() += '/';
      files.back() += n;
    }
    closedir(d);
  }
  std::sort(files.begin(), files.end());
  return files;
}

void noteStat(const std::string& path, const struct stat& st, QXCrlSourceState& out) {
  char buf[160];
  (void)std::snprintf(buf, sizeof buf, "|%lu:%lld:%lld.%ld:%lld.%ld\n",
                      static_cast<unsigned long>(st.st_ino), static_cast<long long>(st.st_size),
                      static_cast<long long>(st.st_mtim.tv_sec), st.st_mtim.tv_nsec,
                      static_cast<long long>(st.st_ctim.tv_sec), st.st_ctim.tv_nsec);
  out.fingerprint += path;
  out.fingerprint += buf;
  out.changedAt = std::max({out.changedAt, st.st_mtim.tv_sec, st.st_ctim.tv_sec});
}
}  // namespace

QXCrlSourceState qxCrlSourceState(const std::string& crlFile) {
  QXCrlSourceState out;
  std::string dir = qxCrlDirectory();
  struct stat st;
  if (stat(dir.c_str(), &st) == 0) {
    noteStat(dir, st, out);
    for (const std::string& p : crlDirectoryFiles(dir)) {
      if (stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
        noteStat(p, st, out);
        out.files.push_back(p);
      }
    }
  }
  std::vector<std::string> extra = getConfiguredCrlFiles();
  if (!crlFile.empty()) extra.push_back(crlFile);
  for (const std::string& p : extra) {
    if (stat(p.c_str(), &st) == 0) {
      noteStat(p, st, out);
      out.files.push_back(p);
    } else {
      out.fingerprint += p + "|missing\n";
    }
  }
  return out;
}

std::vector<QXCrlSummary> qxCrlSummaries(const std::vector<std::string>& files) {
  std::vector<QXCrlSummary> out;
  CrlList crls;
  for (const std::string& p : files) loadCrlFile(p, crls.crls);
  for (X509_CRL* c : crls.crls) {
    QXCrlSummary s;
    unsigned char* der = nullptr;
    int len = i2d_X509_NAME(X509_CRL_get_issuer(c), &der);
    if (len <= 0) continue;
    s.issuerDer.assign(reinterpret_cast<char*>(der), static_cast<size_t>(len));
    OPENSSL_free(der);
    const ASN1_TIME* next = X509_CRL_get0_nextUpdate(c);
    struct tm tm {};
    if (next != nullptr && ASN1_TIME_to_tm(next, &tm) == 1) s.nextUpdate = timegm(&tm);
    out.push_back(std::move(s));
  }
  ERR_clear_error();
  return out;
}

int qxCrlDownload(const std::string& url, std::string& out, long timeoutSec) {
  static const char tag[] = "qxCrlDownload";
  CURL* h = curl_easy_init();
  if (h == nullptr) return QX_ERR_CRL_UNAVAILABLE;
  std::string body;
  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(h, CURLOPT_PROXY, "");  // never through an environment proxy
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_TIMEOUT, timeoutSec);
  curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, timeoutSec < 3 ? timeoutSec : 3L);
  curl_easy_setopt(h, CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, collect);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &body);
  CURLcode rc = curl_easy_perform(h);
  curl_easy_cleanup(h);
  if (rc != CURLE_OK) {
    QXLOG(QXLOG_DETAIL, tag) << "CRL download from [" << url
                             << "] failed: " << curl_easy_strerror(rc);
    return QX_ERR_CRL_UNAVAILABLE;
  }
  QXLOG(QXLOG_PROGRESS, tag) << "Downloaded [" << body.size() << "] bytes from [" << url << "]";
  out.swap(body);
  return 0;
}
