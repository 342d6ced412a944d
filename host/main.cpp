// dlna-dms: runs a DLNA media server on the folders named on the command line.
#include <cstdio>
#include <cstring>

#include "dlna_dms.h"

namespace {

void printUsage(FILE *out) {
  std::fprintf(out,
               "usage: dlna-dms [options] FOLDER...\n"
               "Shares the FOLDERs with DLNA players on the local network.\n"
               "  --help       show this text\n"
               "  --version    show the version\n");
}

}  // namespace

int main(int argc, char **argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0) {
      printUsage(stdout);
      return 0;
    }
    if (std::strcmp(argv[i], "--version") == 0) {
      std::printf("dlna-dms %s\n", DMS_VERSION);
      return 0;
    }
  }
  printUsage(stderr);
  return 2;
}
