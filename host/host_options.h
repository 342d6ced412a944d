// Options of dlna-dms: from the command line ("--name value", or
// "--name=value" in one word; a switch alone means yes) and from a configuration file
// of "key = value" lines whose keys are the long options without "--"
// (plus "folder", one line per shared folder).  Command-line options take
// precedence over the file; folders named on the command line replace the
// file's.
#ifndef DMS_HOST_HOST_OPTIONS_H
#define DMS_HOST_HOST_OPTIONS_H

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

enum class HostCommand { Serve, Help, Version, Invalid };

struct HostOptions {
  std::string name = "dlna-dms";
  std::string address;    // empty: --interface's address, else the first network address
  std::string interface;  // network interface whose IPv4 address to serve on
  int port = 49152;
  int mediaPort = -1;  // accepted and ignored: media use `port`
  int maxContent = 100000;
  int artCacheMb = 8;  // memory for thumbnails and album art
  bool filter = false;
  bool wideLinks = false;  // links may lead out of the shared folders
  bool views = true;       // Music, Pictures and Video beside the folders
  std::string stateDir;    // "none": no state folder; empty: the default (see hostStateFolder)
  std::vector<std::string> clients;  // client rules, in order
  std::string trace;  // trace level mask; empty: errors and warnings
  std::string www;    // empty: the installed or source-tree www directory
  std::vector<std::string> folders;
};

// The command line as given, kept so that a reload can apply it again over
// a fresh reading of the configuration file.
struct HostCommandLine {
  std::vector<std::pair<std::string, std::string>> options;  // name without "--", value
  std::vector<std::string> folders;
  std::string configPath;  // empty: no --config
  bool listClients = false;  // --list-clients: print the client profiles instead of serving
};

// Reads argv; on Invalid, `error` says why.
HostCommand parseHostCommandLine(int argc, char **argv, HostCommandLine &line, std::string &error);

// The options from the defaults, the configuration file (when one is named)
// and the command line, in rising precedence.  false with `error` (for the
// file: "FILE:LINE: what is wrong") when the file cannot be read, has an
// unknown key or a bad value, or no folder is named at all (and none is
// needed for --list-clients).
bool resolveHostOptions(const HostCommandLine &line, HostOptions &options, std::string &error);

void printHostUsage(FILE *out);

// The state folder the options name: --state-dir ("none": none, ""), else
// the first folder of $STATE_DIRECTORY (systemd's StateDirectory=), else
// $XDG_STATE_HOME/dlna-dms, else ~/.local/state/dlna-dms.
std::string hostStateFolder(const HostOptions &options);

#endif  // DMS_HOST_HOST_OPTIONS_H
