#include "platform/qx_certmap.h"

#include <jansson.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <strings.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "platform/qx_log.h"
#include "platform/qx_root.h"
#include "platform/qx_util.h"
#include "qxcurl/qx_status.h"

namespace {

constexpr size_t kMaxFileSize = 16u << 20;

struct JsonDeleter {
  void operator()(json_t* j) const { json_decref(j); }
};
using JsonPtr = std::unique_ptr<json_t, JsonDeleter>;

std::string mapPath() { return qxInstallRoot() + "/var/certmap.json"; }

void copyField(char* dst, size_t cap, const std::string& src) {
  size_t n = src.size() < cap - 1 ? src.size() : cap - 1;
  std::memcpy(dst, src.data(), n);
  dst[n] = '\0';
}

std::string resolvePath(const char* p) {
  std::string s = trim(p);
  if (s.empty() || s[0] == '/') return s;
  return qxInstallRoot() + "/" + s;
}

// Loads and checks the top level of the map. 0 and *root, or a status.
int loadMap(JsonPtr& root, const char* tag) {
  std::string text;
  std::string path = mapPath();
  int rc = readDataFromFile(path, text);
  if (rc != 0) {
    QXLOG(QXLOG_DETAIL, tag) << "Certificate map [" << path << "] could not be read, status [" << rc
                             << "]";
    return rc;
  }
  json_error_t err;
  root.reset(json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES, &err));
  if (!root) {
    QXLOG(QXLOG_ERROR, tag) << "Certificate map [" << path << "] is not JSON: line [" << err.line
                            << "]: " << err.text;
    return QX_ERR_JSON_PARSE;
  }
  json_t* servers = json_object_get(root.get(), "servers");
  if (!json_is_object(root.get()) || (servers != nullptr && !json_is_object(servers))) {
    QXLOG(QXLOG_ERROR, tag) << "Certificate map [" << path << "] has an unexpected layout";
    return QX_ERR_JSON_PARSE;
  }
  return 0;
}

// The entry for server (case-insensitive), else the default entry.
json_t* findEntry(json_t* root, const char* server, std::string& entryName) {
  json_t* servers = json_object_get(root, "servers");
  if (servers == nullptr) return nullptr;
  const char* key;
  json_t* value;
  json_object_foreach(servers, key, value) {
    if (strcasecmp(key, server) == 0 && json_is_object(value)) {
      entryName = key;
      return value;
    }
  }
  const char* def = json_string_value(json_object_get(root, "default"));
  if (def == nullptr) return nullptr;
  json_object_foreach(servers, key, value) {
    if (strcasecmp(key, def) == 0 && json_is_object(value)) {
      entryName = key;
      return value;
    }
  }
  return nullptr;
}

const char* stringMember(json_t* obj, const char* name) {
  const char* s = json_string_value(json_object_get(obj, name));
  return s ? s : "";
}

// 0 ok, 7617 when present but not an object or a member is not a string.
int fillCAData(json_t* obj, certMapCAData& out) {
  if (!json_is_object(obj)) return QX_ERR_JSON_PARSE;
  static const char* const names[] = {"certificate", "privateKey", "passphraseFile", "trustStore",
                                      "crl"};
  char* fields[] = {out.certificate, out.privateKey, out.passphraseFile, out.trustStore, out.crl};
  for (size_t i = 0; i < 5; ++i) {
    json_t* v = json_object_get(obj, names[i]);
    if (v != nullptr && !json_is_string(v)) return QX_ERR_JSON_PARSE;
    std::string path = resolvePath(stringMember(obj, names[i]));
    // A cut path could name another file: refuse it instead.
    if (path.size() >= QX_CERTMAP_PATH_LEN) return QX_ERR_JSON_PARSE;
    copyField(fields[i], QX_CERTMAP_PATH_LEN, path);
  }
  return 0;
}

int fillInfo(json_t* entry, const std::string& entryName, certMapInfo& info) {
  copyField(info.entryName, sizeof info.entryName, entryName);
  json_t* uuid = json_object_get(entry, "hostUuid");
  if (uuid != nullptr && !json_is_string(uuid)) return QX_ERR_JSON_PARSE;
  copyField(info.hostUuid, sizeof info.hostUuid, stringMember(entry, "hostUuid"));

  json_t* mode = json_object_get(entry, "caMode");
  if (mode == nullptr) {
    info.caMode = -1;
  } else if (json_is_integer(mode) && json_integer_value(mode) >= 0 &&
             json_integer_value(mode) <= 2) {
    info.caMode = static_cast<int>(json_integer_value(mode));
  } else {
    return QX_ERR_JSON_PARSE;
  }

  json_t* tv = json_object_get(entry, "trustVersion");
  if (json_is_string(tv)) {
    copyField(info.trustVersion, sizeof info.trustVersion, json_string_value(tv));
  } else if (json_is_integer(tv)) {
    copyField(info.trustVersion, sizeof info.trustVersion, std::to_string(json_integer_value(tv)));
  } else if (tv != nullptr) {
    return QX_ERR_JSON_PARSE;
  }

  json_t* q = json_object_get(entry, "QXCA");
  if (q != nullptr) {
    if (fillCAData(q, info.qxca) != 0) return QX_ERR_JSON_PARSE;
    info.hasQXCA = 1;
  }
  json_t* e = json_object_get(entry, "ECA");
  if (e != nullptr) {
    if (fillCAData(e, info.eca) != 0) return QX_ERR_JSON_PARSE;
    info.hasECA = 1;
  }

  info.caPreferred = CA_USAGE_NONE;
  json_t* sup = json_object_get(entry, "caSupported");
  if (sup != nullptr && !json_is_array(sup)) return QX_ERR_JSON_PARSE;
  size_t i;
  json_t* item;
  json_array_foreach(sup, i, item) {
    const char* s = json_string_value(item);
    if (s == nullptr) return QX_ERR_JSON_PARSE;
    int bit = 0;
    ca_usage usage = CA_USAGE_NONE;
    if (strcasecmp(s, "QXCA") == 0 && info.hasQXCA) {
      bit = QX_CERTMAP_CA_QXCA;
      usage = CA_USAGE_QXCA;
    } else if (strcasecmp(s, "ECA") == 0 && info.hasECA) {
      bit = QX_CERTMAP_CA_ECA;
      usage = CA_USAGE_ECA;
    }
    if (bit == 0) continue;  // unknown or undescribed CA: not usable
    if (info.caSupported == 0) info.caPreferred = usage;
    info.caSupported |= bit;
  }
  return 0;
}

int lookupEntry(cert_type certType, const char* server, certMapInfo& info, const char* tag) {
  if (server == nullptr || *server == '\0') {
    QXLOG(QXLOG_ERROR, tag) << "Invalid argument: server name is empty";
    return QX_ERR_BAD_ARGUMENT;
  }
  std::memset(&info, 0, sizeof info);
  info.certType = certType;
  copyField(info.serverName, sizeof info.serverName, server);
  JsonPtr root;
  int rc = loadMap(root, tag);
  if (rc != 0) return rc;
  std::string entryName;
  json_t* entry = findEntry(root.get(), server, entryName);
  if (entry == nullptr) {
    QXLOG(QXLOG_DETAIL, tag) << "No certificate map entry for server [" << server << "]";
    return QX_ERR_FILE_NOT_FOUND;
  }
  rc = fillInfo(entry, entryName, info);
  if (rc != 0) {
    QXLOG(QXLOG_ERROR, tag) << "Certificate map entry [" << entryName
                            << "] has an unexpected layout";
  }
  return rc;
}

bool isDottedNumber(const std::string& s) {
  if (s.empty()) return false;
  for (char c : s)
    if ((c < '0' || c > '9') && c != '.') return false;
  return true;
}

}  // namespace

int getCertMapInfo(cert_type certType, const char* serverName, certMapInfo& info) {
  int rc = lookupEntry(certType, serverName, info, "getCertMapInfo");
  if (rc == 0) {
    QXLOG(QXLOG_PROGRESS, "getCertMapInfo")
        << "Server [" << serverName << "] uses certificate map entry [" << info.entryName << "]";
  }
  return rc;
}

ca_usage getCaSupportedByThisHost(const certMapInfo& info) {
  int p = info.caPreferred;
  if (info.caSupported == 0 || p < CA_USAGE_QXCA || p > CA_USAGE_NONE) return CA_USAGE_NONE;
  return static_cast<ca_usage>(p);
}

int getCertDataByCAtypeExEx(const certMapInfo& info, ca_usage usage, int /*flags*/,
                            unsigned short /*port*/, host_cert_data* data) {
  if (data == nullptr) return QX_ERR_BAD_ARGUMENT;
  const certMapCAData* src = nullptr;
  if (usage == CA_USAGE_QXCA) {
    src = info.hasQXCA ? &info.qxca : nullptr;
  } else if (usage == CA_USAGE_ECA || usage == CA_USAGE_ECA_ALT) {
    src = info.hasECA ? &info.eca : nullptr;
  } else {
    return QX_ERR_BAD_ARGUMENT;
  }
  if (src == nullptr) {
    QXLOG(QXLOG_DETAIL, "getCertDataByCAtypeExEx")
        << "Certificate map entry [" << info.entryName << "] describes no ["
        << CaUsageToString(usage) << "] artifacts";
    return QX_ERR_FILE_NOT_FOUND;
  }
  std::memcpy(data->hostUuid, info.hostUuid, sizeof data->hostUuid);
  data->caUsage = usage;
  std::memcpy(data->certPath, src->certificate, QX_CERTMAP_PATH_LEN);
  std::memcpy(data->trustStorePath, src->trustStore, QX_CERTMAP_PATH_LEN);
  std::memcpy(data->keyPath, src->privateKey, QX_CERTMAP_PATH_LEN);
  std::memcpy(data->passphraseFilePath, src->passphraseFile, QX_CERTMAP_PATH_LEN);
  std::memcpy(data->crlPath, src->crl, QX_CERTMAP_PATH_LEN);
  return 0;
}

const char* CaUsageToString(ca_usage usage) {
  switch (usage) {
    case CA_USAGE_QXCA:
      return "QXCA";
    case CA_USAGE_ECA_ALT:
      return "ECA_ALT";
    case CA_USAGE_ECA:
      return "ECA";
    case CA_USAGE_NONE:
      return "NONE";
  }
  return "UNKNOWN";
}

int readDataFromFile(const std::string& path, std::string& out) {
  if (path.empty()) return QX_ERR_BAD_ARGUMENT;
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) {
    int e = errno;
    QXLOG(QXLOG_DETAIL, "readDataFromFile") << "Cannot open [" << path << "]: " << std::strerror(e);
    return e == ENOENT || e == ENOTDIR ? QX_ERR_FILE_NOT_FOUND : QX_ERR_FILE_OPEN;
  }
  std::string data;
  char buf[8192];
  size_t n;
  int rc = 0;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) {
    if (data.size() + n > kMaxFileSize) {
      rc = QX_ERR_BAD_ARGUMENT;
      break;
    }
    data.append(buf, n);
  }
  if (rc == 0 && std::ferror(f)) rc = QX_ERR_FILE_OPEN;  // a directory reads as an error here
  (void)std::fclose(f);                                  // read-only: nothing to lose on close
  if (rc != 0) {
    QXLOG(QXLOG_DETAIL, "readDataFromFile")
        << "Cannot read [" << path << "], status [" << rc << "]";
    return rc;
  }
  out.swap(data);
  return 0;
}

int readPEMDataFromFile(const std::string& path, std::string& out) {
  std::string raw;
  int rc = readDataFromFile(path, raw);
  if (rc != 0) return rc;
  BIO* in = BIO_new_mem_buf(raw.data(), static_cast<int>(raw.size()));
  BIO* pem = BIO_new(BIO_s_mem());
  int count = 0;
  if (in != nullptr && pem != nullptr) {
    while (X509* x = PEM_read_bio_X509(in, nullptr, nullptr, nullptr)) {
      if (PEM_write_bio_X509(pem, x) == 1) ++count;
      X509_free(x);
    }
  }
  ERR_clear_error();  // the read loop ends on "no start line"
  if (count > 0) {
    char* p = nullptr;
    long len = BIO_get_mem_data(pem, &p);
    out.assign(p, static_cast<size_t>(len));
  }
  BIO_free(in);
  BIO_free(pem);
  if (count == 0) {
    QXLOG(QXLOG_DETAIL, "readPEMDataFromFile") << "No PEM certificate in [" << path << "]";
    return QX_ERR_TRUST_STORE;
  }
  return 0;
}

int getAllCertInfoByType(int caType, certInfo** list) {
  if (list == nullptr || (caType != 1 && caType != 2)) return QX_ERR_BAD_ARGUMENT;
  *list = nullptr;
  JsonPtr root;
  int rc = loadMap(root, "getAllCertInfoByType");
  if (rc != 0) return rc;
  json_t* servers = json_object_get(root.get(), "servers");
  const char* key;
  json_t* value;
  certInfo** tail = list;
  json_object_foreach(servers, key, value) {
    if (!json_is_object(value)) continue;
    certMapInfo info;
    std::memset(&info, 0, sizeof info);
    if (fillInfo(value, key, info) != 0) continue;  // one bad entry does not hide the others
    bool has = caType == 1 ? info.hasQXCA : info.hasECA;
    if (!has) continue;
    certInfo* rec = static_cast<certInfo*>(std::calloc(1, sizeof(certInfo)));
    if (rec == nullptr) {
      freeCertInfoList(list);
      return QX_ERR_NO_MEMORY;
    }
    copyField(rec->serverName, sizeof rec->serverName, key);
    std::memcpy(rec->hostUuid, info.hostUuid, sizeof rec->hostUuid);
    rec->caType = caType;
    rec->data = caType == 1 ? info.qxca : info.eca;
    *tail = rec;
    tail = &rec->next;
  }
  return 0;
}

const certInfo* getTargetMasterCert(const certInfo* list, const char* master) {
  if (master == nullptr) return nullptr;
  for (const certInfo* p = list; p != nullptr; p = p->next)
    if (strcasecmp(p->serverName, master) == 0) return p;
  return nullptr;
}

void freeCertInfoList(certInfo** list) {
  if (list == nullptr) return;
  certInfo* p = *list;
  while (p != nullptr) {
    certInfo* next = p->next;
    std::free(p);
    p = next;
  }
  *list = nullptr;
}

int getCAModeByServer(cert_type certType, const char* server, int* caMode) {
  if (caMode == nullptr) return QX_ERR_BAD_ARGUMENT;
  certMapInfo info;
  int rc = lookupEntry(certType, server, info, "getCAModeByServer");
  if (rc != 0) return rc;
  if (info.caMode < 0) {
    QXLOG(QXLOG_DETAIL, "getCAModeByServer") << "No caMode for server [" << server << "]";
    return QX_ERR_FILE_NOT_FOUND;
  }
  *caMode = info.caMode;
  return 0;
}

int getCertModTime(cert_type certType, const char* server, time_t* modTime) {
  if (modTime == nullptr) return QX_ERR_BAD_ARGUMENT;
  certMapInfo info;
  int rc = lookupEntry(certType, server, info, "getCertModTime");
  if (rc != 0) return rc;
  const char* cert = info.qxca.certificate[0] ? info.qxca.certificate : info.eca.certificate;
  if (*cert == '\0') return QX_ERR_FILE_NOT_FOUND;
  struct stat st;
  if (stat(cert, &st) != 0) return QX_ERR_FILE_NOT_FOUND;
  *modTime = st.st_mtime;
  return 0;
}

int compareTrustVersion(cert_type certType, const char* trustVersion, const char* server,
                        int* trustCurrent) {
  if (trustVersion == nullptr || trustCurrent == nullptr) return QX_ERR_BAD_ARGUMENT;
  certMapInfo info;
  int rc = lookupEntry(certType, server, info, "compareTrustVersion");
  if (rc != 0) return rc;
  std::string theirs = trim(trustVersion);
  std::string ours = trim(info.trustVersion);
  bool same =
      !ours.empty() && (theirs == ours || (isDottedNumber(theirs) && isDottedNumber(ours) &&
                                           compare_api_version(theirs.c_str(), ours.c_str()) == 0));
  *trustCurrent = same ? 1 : 0;
  QXLOG(QXLOG_PROGRESS, "compareTrustVersion") << "Trust version local [" << ours << "], server ["
                                               << theirs << "], current [" << *trustCurrent << "]";
  return 0;
}

std::vector<std::string> getConfiguredCrlFiles() {
  std::vector<std::string> out;
  JsonPtr root;
  if (loadMap(root, "getConfiguredCrlFiles") != 0) return out;
  json_t* servers = json_object_get(root.get(), "servers");
  const char* key;
  json_t* value;
  json_object_foreach(servers, key, value) {
    for (const char* ca : {"QXCA", "ECA"}) {
      const char* crl = json_string_value(json_object_get(json_object_get(value, ca), "crl"));
      if (crl == nullptr) continue;
      std::string p = resolvePath(crl);
      if (p.empty()) continue;
      bool dup = false;
      for (const auto& s : out) dup = dup || s == p;
      if (!dup) out.push_back(p);
    }
  }
  return out;
}
