#include "host_options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

bool parseNumber(const char *text, int low, int high, int &value) {
  char *end = nullptr;
  errno = 0;
  long number = std::strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || number < low || number > high) return false;
  value = static_cast<int>(number);
  return true;
}

}  // namespace

void printHostUsage(FILE *out) {
  std::fprintf(out,
               "usage: dlna-dms [options] FOLDER...\n"
               "       dlna-dms probe FILE...\n"
               "Shares the FOLDERs with DLNA players (TVs, phones, media players) on the\n"
               "local network until interrupted (Ctrl-C or SIGTERM).\n"
               "The probe command detects each FILE as the server would and prints what\n"
               "it found as one JSON object per line.\n"
               "\n"
               "  --name NAME         friendly name shown by players (\": DMS\" is appended)\n"
               "  --address ADDR      IPv4 address to serve on (default: the first network\n"
               "                      address, else 127.0.0.1)\n"
               "  --port N            HTTP port (default 49152; lower ports become 49152)\n"
               "  --media-port N      port of the media streams (default: the HTTP port + 1,\n"
               "                      or any free port when that is taken; 0: any free)\n"
               "  --max-content N     most entries to share (default 100000)\n"
               "  --art-cache-mb N    memory kept for thumbnails and album art, in MiB\n"
               "                      (default 8; 0 makes every picture anew)\n"
               "  --filter            offer only well-known media extensions to detection\n"
               "  --www DIR           folder with the description files and icons\n"
               "  --help              show this text\n"
               "  --version           show the version\n");
}

HostCommand parseHostOptions(int argc, char **argv, HostOptions &options, std::string &error) {
  for (int i = 1; i < argc; ++i) {
    const char *arg = argv[i];
    auto value = [&](const char *option) -> const char * {
      if (i + 1 >= argc) {
        error = std::string(option) + " needs a value";
        return nullptr;
      }
      return argv[++i];
    };
    if (std::strcmp(arg, "--help") == 0 || std::strcmp(arg, "-h") == 0) return HostCommand::Help;
    if (std::strcmp(arg, "--version") == 0) return HostCommand::Version;
    if (std::strcmp(arg, "--filter") == 0) {
      options.filter = true;
    } else if (std::strcmp(arg, "--name") == 0) {
      const char *text = value(arg);
      if (text == nullptr) return HostCommand::Invalid;
      if (std::strlen(text) > 256) {
        error = "--name takes at most 256 characters";
        return HostCommand::Invalid;
      }
      options.name = text;
    } else if (std::strcmp(arg, "--address") == 0) {
      const char *text = value(arg);
      if (text == nullptr) return HostCommand::Invalid;
      options.address = text;
    } else if (std::strcmp(arg, "--www") == 0) {
      const char *text = value(arg);
      if (text == nullptr) return HostCommand::Invalid;
      options.www = text;
    } else if (std::strcmp(arg, "--media-port") == 0) {
      const char *text = value(arg);
      if (text == nullptr) return HostCommand::Invalid;
      if (!parseNumber(text, 0, 65535, options.mediaPort)) {
        error = std::string("bad value for ") + arg + ": " + text;
        return HostCommand::Invalid;
      }
    } else if (std::strcmp(arg, "--art-cache-mb") == 0) {
      const char *text = value(arg);
      if (text == nullptr) return HostCommand::Invalid;
      if (!parseNumber(text, 0, 4096, options.artCacheMb)) {
        error = std::string("bad value for ") + arg + ": " + text;
        return HostCommand::Invalid;
      }
    } else if (std::strcmp(arg, "--port") == 0 || std::strcmp(arg, "--max-content") == 0) {
      const char *text = value(arg);
      if (text == nullptr) return HostCommand::Invalid;
      bool isPort = std::strcmp(arg, "--port") == 0;
      int &target = isPort ? options.port : options.maxContent;
      if (!parseNumber(text, isPort ? 0 : 1, isPort ? 65535 : 100000000, target)) {
        error = std::string("bad value for ") + arg + ": " + text;
        return HostCommand::Invalid;
      }
    } else if (arg[0] == '-' && arg[1] != '\0') {
      error = std::string("unknown option ") + arg;
      return HostCommand::Invalid;
    } else {
      options.folders.emplace_back(arg);
    }
  }
  if (options.folders.empty()) {
    error = "no folder to share";
    return HostCommand::Invalid;
  }
  return HostCommand::Serve;
}
