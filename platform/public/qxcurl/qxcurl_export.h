#ifndef QXCURL_QXCURL_EXPORT_H
#define QXCURL_QXCURL_EXPORT_H
// Everything is hidden by default; QX_API marks the library's interface.
#define QX_API __attribute__((visibility("default")))
#endif  // QXCURL_QXCURL_EXPORT_H
