/* Calls the web service of a master server from C: the machine's token, then
 * one path twice under cache decision 1, so that the second answer comes from
 * the cache without a request to the server.
 *
 *   qxcurl_c_example SERVER [PATH]        (PATH: arvion/config/hosts)
 *
 * Exit status: 0 success, 1 usage, 2 a failed call. */
#include <qxcurl/qxcurl_c.h>
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv) {
  const char *path = argc > 2 ? argv[2] : "arvion/config/hosts";
  char *jwt;
  int i;

  if (argc < 2 || argc > 3) {
    fprintf(stderr, "usage: %s SERVER [PATH]\n", argv[0]);
    return 1;
  }
  init_qxcurllib();

  /* Never NULL: the empty string when no token could be had. */
  jwt = get_machine_jwt(argv[1]);
  printf("machine token: %s\n", jwt != NULL && jwt[0] != '\0' ? "obtained" : "none");
  free(jwt);

  for (i = 1; i <= 2; ++i) {
    json_t *answer = NULL;
    const char *member;
    int rc = web_sync_CAPI(QXCURL_CACHE_READ_UPDATE, argv[1], path, NULL, NULL, &answer);
    if (rc != 0) {
      fprintf(stderr, "call %d: status %d: %s\n", i, rc, getECmsg(rc));
      return 2;
    }
    member = json_string_value(json_object_get(answer, "path"));
    printf("call %d: %u members, path %s\n", i, (unsigned)json_object_size(answer),
           member != NULL ? member : "(none)");
    json_decref(answer); /* the answer is the caller's */
  }
  return 0;
}
