// Command-line options of dlna-dms.
#ifndef DMS_HOST_HOST_OPTIONS_H
#define DMS_HOST_HOST_OPTIONS_H

#include <cstdio>
#include <string>
#include <vector>

enum class HostCommand { Serve, Help, Version, Invalid };

struct HostOptions {
  std::string name = "dlna-dms";
  std::string address;  // empty: the first network address
  int port = 49152;
  int mediaPort = -1;  // -1: the port + 1, or any free one
  int maxContent = 100000;
  int artCacheMb = 8;  // memory for thumbnails and album art
  bool filter = false;
  std::string www;  // empty: the installed or source-tree www directory
  std::vector<std::string> folders;
};

// Reads argv into `options`; on Invalid, `error` says why.
HostCommand parseHostOptions(int argc, char **argv, HostOptions &options, std::string &error);

void printHostUsage(FILE *out);

#endif  // DMS_HOST_HOST_OPTIONS_H
