/* The library's version, for programs that check what they run against.
 *
 *   printf("libqxcurl %s\n", qxcurl_version());   // static string, never freed
 */
#ifndef QXCURL_QXCURL_VERSION_H
#define QXCURL_QXCURL_VERSION_H
#include "qxcurl/qxcurl_export.h"
#ifdef __cplusplus
extern "C" {
#endif
/* Version of the library, "major.minor.patch". */
QX_API const char* qxcurl_version(void);
#ifdef __cplusplus
}
#endif
#endif  // QXCURL_QXCURL_VERSION_H
