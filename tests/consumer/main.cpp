#include <qxcurl/qxcurl_version.h>
#include <cstdio>
#include <cstring>

int main() {
  const char* v = qxcurl_version();
  std::printf("qxcurl %s\n", v);
  return std::strlen(v) > 0 ? 0 : 1;
}
