/* A minimal C host: the public header compiles as C, the library links, and
 * a server goes through its whole life cycle from C on a temporary folder.
 * Built against the build tree, and by the install test against the
 * installed package with pkg-config's flags alone.
 * Usage: dms_c_host WWW-FOLDER (run inside the test namespace). */
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "dlna_dms.h"

#define CHECK(call)                                               \
  do {                                                            \
    int32_t status_ = (call);                                     \
    if (status_ != DMS_SUCCESS) {                                 \
      fprintf(stderr, "%s failed: %d\n", #call, (int)status_);    \
      return 1;                                                   \
    }                                                             \
  } while (0)

int main(int argc, char **argv) {
  dmsConfig config;
  dmsDeviceInfo info;
  dmsHandle *server = NULL;
  char folder[] = "/tmp/dms_c_host_XXXXXX";
  char *folders[1];
  memset(&config, 0, sizeof config);
  memset(&info, 0, sizeof info);
  /* The host fills these records field by field: their layout is fixed. */
  if (offsetof(dmsConfig, ipAddress) != 512 || offsetof(dmsConfig, port) != 776 ||
      sizeof(info) != 7 * 256) {
    fprintf(stderr, "record layout changed\n");
    return 1;
  }
  if (argc < 2 || chdir(argv[1]) != 0 || mkdtemp(folder) == NULL) {
    fprintf(stderr, "usage: dms_c_host WWW-FOLDER\n");
    return 1;
  }
  folders[0] = folder;
  strcpy(config.friendlyName, "C host");
  strcpy(config.ipAddress, "127.0.0.1");
  config.port = 49360;
  config.sharedPaths = folders;
  config.numSharedPaths = 1;
  config.maxContent = 100;
  strcpy(info.manufacturer, "Example Devices");
  CHECK(dlna_dmsInit());
  if (dlna_dmsCreate(NULL, &config, &info) != DMS_ERR_INVALID_PARAM) return 1;
  CHECK(dlna_dmsCreate(&server, &config, &info));
  /* A library built without the views refuses them. */
  if (strstr(dlna_dmsFeatures(), "views") != NULL) {
    CHECK(dlna_dmsSetViews(server, 1));
  } else if (dlna_dmsSetViews(server, 1) != DMS_ERR_UNSUPPORTED_ACTION) {
    return 1;
  }
  CHECK(dlna_dmsStart(server));
  if (dlna_dmsGetMediaPort(server) != (int)config.port) {
    fprintf(stderr, "the media server is not listening on the one port\n");
    return 1;
  }
  CHECK(dmsClmLockContentList(dlna_dmsGetContentList(server)));
  CHECK(dmsClmUnlockContentList(dlna_dmsGetContentList(server)));
  CHECK(dlna_dmsStop(server));
  CHECK(dlna_dmsDestroy(server));
  free(server);
  CHECK(dlna_dmsDeinit());
  rmdir(folder);
  printf("c host ok on port %d (KVSUPPORT_XR_VAL=%d)\n", (int)config.port, KVSUPPORT_XR_VAL);
  return 0;
}
