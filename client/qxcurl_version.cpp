#include "qxcurl/qxcurl_version.h"

extern "C" const char* qxcurl_version(void) { return "0.1.0"; }
