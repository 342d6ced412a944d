#include "probe.h"

#include <cstdio>
#include <cstdlib>

#include "dlna_dms.h"

int runProbe(int argc, char **argv) {
  if (argc < 1) {
    std::fprintf(stderr, "usage: dlna-dms probe FILE...\n");
    return 2;
  }
  // Trace lines go to standard output, where they would break the JSON
  // lines: silent unless asked for.
  ::setenv("DMS_TRACE_LEVEL", "0", 0);
  dlna_dmsInit();
  int status = 0;
  for (int i = 0; i < argc && status == 0; ++i) {
    char *line = nullptr;
    if (dlna_dmsProbeFile(argv[i], &line) != DMS_SUCCESS) {
      std::fprintf(stderr, "dlna-dms: cannot start detection\n");
      status = 1;
      break;
    }
    std::fputs(line, stdout);
    std::free(line);
  }
  std::fflush(stdout);
  dlna_dmsDeinit();
  return status;
}
