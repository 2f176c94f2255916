// Builds against the installed headers only: the public interface must be
// self-contained and its symbols exported.
#include <qxcurl/qx_status.h>
#include <qxcurl/qxclnt_curl.h>
#include <qxcurl/qxcurl_version.h>

#include <cstdio>
#include <string>

int main() {
  std::string out;
  if (percentEncodeUriPart("a b/c", out) != 0 || out != "a%20b%2Fc") return 1;
  if (std::string(getECmsg(8509)).empty()) return 2;
  try {
    QXClientCURL bad("", 1556, CERT_TYPE_HOST, QXCURL_INSECURE);
    return 3;
  } catch (int status) {
    if (status != 20) return 4;
  }
  std::printf("qxcurl %s\n", qxcurl_version());
  return 0;
}
