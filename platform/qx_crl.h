#ifndef QXCURL_PLATFORM_QX_CRL_H
#define QXCURL_PLATFORM_QX_CRL_H
#include <ctime>
#include <string>
#include <vector>

#include "qxcurl/qx_types.h"

// Revocation checks of a peer chain against CRLs. Sources, all loaded per
// check: every file under "<root>/var/crl/" (PEM or DER, several CRLs per
// file allowed), every "crl" file of the certificate map, and the extra file
// given to the factory. Levels: 0 no check, 1 the leaf only, 2 every
// certificate of the chain.
//
// Statuses in errorCode (the TLS layer turns them into X.509 errors):
// 5982 no CRL for a certificate that must be checked, 9314 CRL expired,
// 9318 revoked, 9328-9337 CRL signature/time/scope problems, 20 chain or
// trusted text unusable, 8507 the chain itself does not verify.
// Polymorphic, with its destructor out of line to anchor the type in the
// library; the members copy safely.
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions)
class QXCurlCrlService {
 public:
  virtual ~QXCurlCrlService();
  // Returns 0 when the check was carried out (isRevoked then says the
  // verdict; errorCode is 9318 when revoked, else 0) and non-zero when it
  // could not be decided (errorCode and errorStr say why). mayDownload lets
  // a missing or expired CRL be fetched from the certificate's CRL
  // distribution point. `reserved` must be 0.
  virtual int checkRevocation(const std::string& peerChainPem, const std::string& trustedPem,
                              unsigned int level, bool& isRevoked, int& errorCode,
                              std::string& errorStr, bool mayDownload, int reserved) = 0;
};

class NoQXCurlCrlServiceFactory {
 public:
  // offlineOnly: never download, whatever a check allows.
  // acceptStaleCrl: an expired CRL still counts (revocations in it apply).
  // crlFile: one more CRL file to load (may be null).
  // The caller deletes the service.
  QXCurlCrlService* createCrlService(cert_type certType, bool offlineOnly, bool acceptStaleCrl,
                                     const char* crlFile);
};

// Fetches url (http or https) with a short time-out; 0 and the body in out,
// or 5982. Exposed for the download path's tests.
int qxCrlDownload(const std::string& url, std::string& out, long timeoutSec = 5);

// Directory where CRLs are kept and downloaded CRLs are stored:
// "<root>/var/crl".
std::string qxCrlDirectory();

// The files a revocation check with the extra CRL file crlFile (may be
// empty) would load right now, as seen by stat: for telling whether a verdict
// reached earlier was reached with the same CRLs.
struct QXCrlSourceState {
  std::vector<std::string> files;
  std::string fingerprint;  // path, inode, size and times of every source
  time_t changedAt = 0;     // latest modification or change time among the
                            // sources and the CRL directory itself
};
QXCrlSourceState qxCrlSourceState(const std::string& crlFile);

// Issuer (DER) and next update (0: none given) of every CRL in files.
struct QXCrlSummary {
  std::string issuerDer;
  time_t nextUpdate = 0;
};
std::vector<QXCrlSummary> qxCrlSummaries(const std::vector<std::string>& files);
#endif  // QXCURL_PLATFORM_QX_CRL_H
