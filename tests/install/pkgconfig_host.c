/* A host built against the installed library with pkg-config's flags alone:
 * the installed header compiles, the installed library links and loads, and
 * a server goes through its whole life cycle.
 * Usage: pkgconfig_host WWW-FOLDER SHARED-FOLDER (run inside the test
 * namespace); prints "ok" when every call succeeded. */
#include <dlna_dms.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define CHECK(call)                                            \
  if ((call) != DMS_SUCCESS) {                                 \
    fprintf(stderr, "%s failed\n", #call);                     \
    return 1;                                                  \
  }

int main(int argc, char **argv) {
  dmsConfig config;
  dmsHandle *server = NULL;
  char *folders[1];
  if (argc != 3) {
    fprintf(stderr, "usage: pkgconfig_host WWW-FOLDER SHARED-FOLDER\n");
    return 2;
  }
  memset(&config, 0, sizeof config);
  folders[0] = argv[2];
  strcpy(config.friendlyName, "Installed host");
  strcpy(config.ipAddress, "127.0.0.1");
  config.port = 49870;
  config.sharedPaths = folders;
  config.numSharedPaths = 1;
  config.maxContent = 100;
  CHECK(dlna_dmsInit());
  /* The description documents and icons are read from the working folder. */
  CHECK(chdir(argv[1]));
  CHECK(dlna_dmsCreate(&server, &config, NULL));
  CHECK(dlna_dmsStart(server));
  if (dlna_dmsGetMediaPort(server) <= 0) {
    fprintf(stderr, "the media server is not listening\n");
    return 1;
  }
  CHECK(dlna_dmsStop(server));
  CHECK(dlna_dmsDestroy(server));
  free(server);
  CHECK(dlna_dmsDeinit());
  printf("ok\n");
  return 0;
}
