#include "qxcurl/qxclnt_curl_constants.h"

const std::string FEDS_URI = "arvion/catalog/frontenddata";
const std::string HOSTS_URI = "arvion/config/hosts";
const std::string SECURITY_CREDS_URI = "arvion/security/credentials";
const std::string PING_URI = "arvion/ping";
const std::string PASSPHRASE_CONSTRAINTS_URI = "arvion/security/passphrase-constraints";
const std::string SET_UP_NEW_CA = "arvion/security/certificate-authorities/initiate-migration";
const std::string ACTIVATE_NEW_CA = "arvion/security/certificate-authorities/activate";
const std::string MIGRATION_COMPLETE = "arvion/security/certificate-authorities/migration-complete";
const std::string DECOMMISSION_CA =
    "arvion/security/certificate-authorities/{fingerprint}/decommission";
const std::string LIST_ALL_CA = "arvion/security/certificate-authorities";
const std::string MIGRATION_SUMMARY = "arvion/security/certificate-authorities/migration-summary";
const std::string HOSTS_PENDING_TRUST_PROPAGATION =
    "arvion/security/certificate-authorities/hosts-pending-trust-propagation";
const std::string SYNC_MIGRATION_DB = "arvion/security/certificate-authorities/sync-migration-db";
const std::string HOSTS_PENDING_RENEWAL = "arvion/config/hosts-pending-renewal";

const std::string MAX_VERSION = "6.0";
const std::string VERSION_4 = "4.0";
const std::string VERSION_5 = "5.0";
const std::string VERSION_6 = "6.0";

// Defined after MAX_VERSION in this unit, so the composed values see it built.
const std::string QX_MEDIA_TYPE_JSON = "application/vnd.arvion+json";
const std::string QX_MEDIA_TYPE_VERSION = QX_MEDIA_TYPE_JSON + ";version=" + MAX_VERSION;
const std::string QX_MEDIA_TYPE_OCTET_STREAM = "application/vnd.arvion+octet-stream";
const std::string QX_MEDIA_TYPE_VERSION_OCTET_STREAM =
    QX_MEDIA_TYPE_OCTET_STREAM + ";version=" + MAX_VERSION;
const std::string QX_API_VERSION_HEADER_STR = "X-Arvion-API-Version";
const std::string QX_DEFAULT_MEDIA_TYPE = "application/json";
const std::string QX_HEADER_X_CLIENT_ID = "X-Client-ID: ";
const std::string QX_HEADER_X_CLIENT_ID_VALUE = "QX-CURL";
