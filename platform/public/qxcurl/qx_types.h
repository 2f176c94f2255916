#ifndef QXCURL_QX_TYPES_H
#define QXCURL_QX_TYPES_H
// Types shared between the platform services and the library's interface.

// Which host certificate (and so which token files and trust store) a client uses.
enum cert_type {
  CERT_TYPE_NONE = 0,
  CERT_TYPE_HOST = 1,    // the host's own certificate: the usual case
  CERT_TYPE_GLOBAL = 2,  // the global (cluster) certificate: its own trust store
};

// Which certificate authority a connection trusts and presents.
enum ca_usage {
  CA_USAGE_QXCA = 0,
  CA_USAGE_ECA_ALT = 1,
  CA_USAGE_ECA = 2,
  CA_USAGE_NONE = 3,
};
#endif  // QXCURL_QX_TYPES_H
