#ifndef QXCURL_PLATFORM_QX_CERTMAP_H
#define QXCURL_PLATFORM_QX_CERTMAP_H
#include <ctime>
#include <string>
#include <vector>

#include "qxcurl/qx_types.h"

// The host's certificate map: <root>/var/certmap.json, read afresh on every
// call (an administrator may change it while processes run):
//
//   {"servers": {"<master, any letter case>": {
//        "hostUuid": "...", "caSupported": ["QXCA", "ECA"], "caMode": 2,
//        "trustVersion": "1",
//        "QXCA": {"certificate": "...", "privateKey": "...", "passphraseFile": "",
//                 "trustStore": "...", "crl": ""},
//        "ECA": {...}}},
//    "default": "<entry used for a master that is not listed>"}
//
// Relative paths resolve against the install root. Statuses: 0 success,
// 12 map missing or no entry for the master, 13 map unreadable, 7617 map not
// JSON or not of this layout, 20 bad argument.

constexpr size_t QX_CERTMAP_NAME_LEN = 256;
constexpr size_t QX_CERTMAP_PATH_LEN = 1024;

// Values of certMapInfo::caSupported (a bit set).
constexpr int QX_CERTMAP_CA_QXCA = 1;
constexpr int QX_CERTMAP_CA_ECA = 2;

// The artifacts of one CA of one map entry; paths already resolved.
struct certMapCAData {
  char certificate[QX_CERTMAP_PATH_LEN];
  char privateKey[QX_CERTMAP_PATH_LEN];
  char passphraseFile[QX_CERTMAP_PATH_LEN];
  char trustStore[QX_CERTMAP_PATH_LEN];
  char crl[QX_CERTMAP_PATH_LEN];
};

// One map entry as getCertMapInfo found it. The library treats it as opaque:
// zero-filled, filled by getCertMapInfo, handed to the calls below.
struct certMapInfo {
  int certType;                          // cert_type asked for
  char serverName[QX_CERTMAP_NAME_LEN];  // as asked
  char entryName[QX_CERTMAP_NAME_LEN];   // as written in the map (or the default)
  char hostUuid[128];
  int caSupported;  // QX_CERTMAP_CA_* bits
  int caPreferred;  // ca_usage of the first CA listed in "caSupported"; 3 when none
  int caMode;       // -1 when absent
  char trustVersion[64];
  int hasQXCA;
  int hasECA;
  certMapCAData qxca;
  certMapCAData eca;
};

// The host's PKI artifacts for one CA, filled by getCertDataByCAtypeExEx into
// a zero-filled record. Empty buffer = not provided.
struct host_cert_data {
  char hostUuid[128];
  int caUsage;
  char certPath[QX_CERTMAP_PATH_LEN];
  char trustStorePath[QX_CERTMAP_PATH_LEN];
  char keyPath[QX_CERTMAP_PATH_LEN];
  char passphraseFilePath[QX_CERTMAP_PATH_LEN];
  char crlPath[QX_CERTMAP_PATH_LEN];
};

// Finds the entry of serverName (or the default entry). certType is
// recorded; the map has one set of artifacts per master whatever the type.
int getCertMapInfo(cert_type certType, const char* serverName, certMapInfo& info);

// The CA this host should use with that master: the first of "caSupported"
// that the entry also describes (so the map's order states the preference:
// ["QXCA", "ECA"] gives CA_USAGE_QXCA); CA_USAGE_NONE when none.
ca_usage getCaSupportedByThisHost(const certMapInfo& info);

// Copies the artifacts of `usage` (1 and 2 both mean the external CA) into
// *data. `flags` and `port` are accepted for the callers' sake and ignored.
// 0, 20 for a null record or CA_USAGE_NONE, 12 when the entry does not
// describe that CA.
int getCertDataByCAtypeExEx(const certMapInfo& info, ca_usage usage, int flags, unsigned short port,
                            host_cert_data* data);

// "QXCA", "ECA_ALT", "ECA", "NONE"; "UNKNOWN" for anything else.
const char* CaUsageToString(ca_usage usage);

// Whole file into out: 0, 12 missing, 13 unreadable, 20 larger than 16 MiB.
int readDataFromFile(const std::string& path, std::string& out);
// The PEM certificates of a file, re-encoded and concatenated (anything
// else in the file is dropped): 0, the statuses of readDataFromFile, or
// 8508 when the file holds no certificate.
int readPEMDataFromFile(const std::string& path, std::string& out);

// Every entry describing a CA: type 1 the product's own CA, 2 the external
// CA. The list (null when there is none) is released with freeCertInfoList.
struct certInfo {
  char serverName[QX_CERTMAP_NAME_LEN];
  char hostUuid[128];
  int caType;
  certMapCAData data;
  certInfo* next;
};
int getAllCertInfoByType(int caType, certInfo** list);
// The record of master (any letter case) in list, or null.
const certInfo* getTargetMasterCert(const certInfo* list, const char* master);
void freeCertInfoList(certInfo** list);

// "caMode" of the master's entry (0 own CA, 1 external, 2 both). 0, or the
// map's status; 12 also when the entry has no caMode.
int getCAModeByServer(cert_type certType, const char* server, int* caMode);
// Modification time of the host certificate of the own CA (the external
// CA's when the entry has no own-CA certificate).
int getCertModTime(cert_type certType, const char* server, time_t* modTime);
// *trustCurrent = 1 when the server's trust version equals the entry's
// ("1" equals "1.0"), else 0 (also when the entry has none).
int compareTrustVersion(cert_type certType, const char* trustVersion, const char* server,
                        int* trustCurrent);

// Every "crl" path of the map (any entry, any CA), for the CRL service.
// Empty when the map is missing or malformed.
std::vector<std::string> getConfiguredCrlFiles();
#endif  // QXCURL_PLATFORM_QX_CERTMAP_H
