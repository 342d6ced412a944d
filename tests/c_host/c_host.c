/* A minimal C host: the public header compiles as C and the library links. */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "dlna_dms.h"

int main(void) {
  dmsConfig config;
  dmsDeviceInfo info;
  memset(&config, 0, sizeof config);
  memset(&info, 0, sizeof info);
  /* The host fills these records field by field: their layout is fixed. */
  if (offsetof(dmsConfig, ipAddress) != 512 || offsetof(dmsConfig, port) != 776 ||
      sizeof(info) != 7 * 256) {
    fprintf(stderr, "record layout changed\n");
    return 1;
  }
  if (dlna_dmsInit() != DMS_SUCCESS) return 1;
  if (dlna_dmsDeinit() != DMS_SUCCESS) return 1;
  printf("c host ok (KVSUPPORT_XR_VAL=%d)\n", KVSUPPORT_XR_VAL);
  return 0;
}
