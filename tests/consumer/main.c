/* Builds as strict C99 against the installed headers only: the C interface
 * must be plain C and its symbols exported. No server is contacted. */
#include <qxcurl/qxcurl_c.h>
#include <stdio.h>
#include <stdlib.h>

int main(void) {
  json_t placeholder;
  json_t *out = &placeholder; /* must be overwritten */
  char *jwt;
  if (web_sync_CAPI(QXCURL_CACHE_READ_UPDATE, NULL, "arvion/ping", NULL, NULL, &out) !=
          QX_ERR_BAD_ARGUMENT ||
      out != NULL) {
    return 1;
  }
  jwt = get_machine_jwt(NULL);
  if (jwt == NULL || jwt[0] != '\0') return 2;
  free(jwt);
  printf("qxcurl C interface: %s\n", getECmsg(QX_ERR_BAD_RESPONSE));
  return 0;
}
