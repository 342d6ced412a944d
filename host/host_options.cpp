#include "host_options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "dlna_dms.h"

namespace {

bool parseNumber(const std::string &text, int low, int high, int &value) {
  char *end = nullptr;
  errno = 0;
  const long number = std::strtol(text.c_str(), &end, 10);
  // The whole text: a NUL byte inside does not end the number early.
  if (errno != 0 || end == text.c_str() || end != text.c_str() + text.size() || number < low || number > high) {
    return false;
  }
  value = static_cast<int>(number);
  return true;
}

// A client rule ("ua=TEXT : FLAG,..."), checked by the library that reads it.
bool addClientRule(const std::string &text, std::vector<std::string> &rules) {
  const char *rule = text.c_str();
  char *described = nullptr;
  if (dlna_dmsDescribeClients(&rule, 1, &described) != DMS_SUCCESS) return false;
  std::free(described);
  rules.push_back(text);
  return true;
}

bool parseSwitch(const std::string &text, bool &value) {
  if (text == "yes" || text == "true" || text == "1" || text == "on") return value = true, true;
  if (text == "no" || text == "false" || text == "0" || text == "off") return value = false, true;
  return false;
}

// Hexadecimal digits, "0x" before them or not, of at most 32 bits: what the
// library reads from DMS_TRACE_LEVEL.  (A sign or a longer number would be
// read as another mask there.)
bool parseMask(const std::string &text) {
  const size_t digits = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0 ? 2 : 0;
  if (digits == text.size() || text.find_first_not_of("0123456789abcdefABCDEF", digits) != std::string::npos) {
    return false;
  }
  errno = 0;
  const unsigned long long mask = std::strtoull(text.c_str(), nullptr, 16);
  return errno == 0 && mask <= 0xffffffffULL;
}

// One option: its name (the long option without "--" and the file's key),
// whether the command line gives it a value, and how a value applies.
struct OptionRow {
  const char *name;
  bool takesValue;  // on the command line; in the file every key has a value
  bool (*apply)(HostOptions &options, const std::string &value);
};

const OptionRow kOptions[] = {
    {"name", true, [](HostOptions &o, const std::string &v) { return !v.empty() && v.size() <= 256 && (o.name = v, true); }},
    {"address", true, [](HostOptions &o, const std::string &v) { return !v.empty() && (o.address = v, true); }},
    {"interface", true, [](HostOptions &o, const std::string &v) { return !v.empty() && (o.interface = v, true); }},
    {"port", true, [](HostOptions &o, const std::string &v) { return parseNumber(v, 0, 65535, o.port); }},
    {"media-port", true, [](HostOptions &o, const std::string &v) { return parseNumber(v, 0, 65535, o.mediaPort); }},
    {"max-content", true, [](HostOptions &o, const std::string &v) { return parseNumber(v, 1, 100000000, o.maxContent); }},
    {"art-cache-mb", true, [](HostOptions &o, const std::string &v) { return parseNumber(v, 0, 4096, o.artCacheMb); }},
    {"filter", false, [](HostOptions &o, const std::string &v) { return parseSwitch(v, o.filter); }},
    {"wide-links", false, [](HostOptions &o, const std::string &v) { return parseSwitch(v, o.wideLinks); }},
    {"views", false, [](HostOptions &o, const std::string &v) { return parseSwitch(v, o.views); }},
    {"state-dir", true, [](HostOptions &o, const std::string &v) { return !v.empty() && (o.stateDir = v, true); }},
    {"client", true, [](HostOptions &o, const std::string &v) { return addClientRule(v, o.clients); }},
    {"trace", true, [](HostOptions &o, const std::string &v) { return parseMask(v) && (o.trace = v, true); }},
    {"www", true, [](HostOptions &o, const std::string &v) { return !v.empty() && (o.www = v, true); }},
};

const OptionRow *findOption(const std::string &name) {
  for (const OptionRow &row : kOptions) {
    if (name == row.name) return &row;
  }
  return nullptr;
}

std::string trimmed(const std::string &text) {
  const size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// Applies the file's lines over `options`; folders are collected apart.
bool readConfigFile(const std::string &path, HostOptions &options, std::vector<std::string> &folders,
                    std::string &error) {
  std::ifstream in(path);
  if (!in) {
    error = path + ": cannot be read";
    return false;
  }
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    const std::string where = path + ":" + std::to_string(number) + ": ";
    line = trimmed(line);
    if (line.empty() || line[0] == '#') continue;
    const size_t equals = line.find('=');
    if (equals == std::string::npos) {
      error = where + "expected \"key = value\"";
      return false;
    }
    const std::string key = trimmed(line.substr(0, equals));
    const std::string value = trimmed(line.substr(equals + 1));
    if (key == "folder" && !value.empty()) {
      folders.push_back(value);
      continue;
    }
    const OptionRow *row = key == "config" ? nullptr : findOption(key);
    if (row == nullptr) {
      error = where + "unknown key \"" + key + "\"";
      return false;
    }
    if (!row->apply(options, value)) {
      error = where + "bad value for " + key + ": \"" + value + "\"";
      return false;
    }
  }
  return true;
}

}  // namespace

void printHostUsage(FILE *out) {
  std::fprintf(out,
               "usage: dlna-dms [options] FOLDER...\n"
               "       dlna-dms --config FILE [options] [FOLDER...]\n"
               "       dlna-dms probe FILE...\n"
               "Shares the FOLDERs with DLNA players (TVs, phones, media players) on the\n"
               "local network until interrupted (Ctrl-C or SIGTERM).  SIGHUP reads the\n"
               "configuration file again and applies what changed.\n"
               "The probe command detects each FILE as the server would and prints what\n"
               "it found as one JSON object per line.\n"
               "\n"
               "  --config FILE       read options from FILE (\"key = value\" lines, keys as\n"
               "                      the options below, \"folder = DIR\" per folder);\n"
               "                      options given here take precedence\n"
               "  --name NAME         friendly name shown by players (\": DMS\" is appended)\n"
               "  --address ADDR      IPv4 address to serve on, one of this machine's, kept\n"
               "                      (default: the address of the default route's\n"
               "                      interface, else the first network address, else\n"
               "                      127.0.0.1, followed when it changes)\n"
               "  --interface NAME    serve on the IPv4 address of this network interface,\n"
               "                      and move with it when it changes (DHCP, Wi-Fi)\n"
               "  --port N            the HTTP port: description, control, events and media\n"
               "                      (default 49152)\n"
               "  --media-port N      accepted for old configurations; media use --port\n"
               "  --max-content N     most entries to share (default 100000)\n"
               "  --art-cache-mb N    memory kept for thumbnails and album art, in MiB\n"
               "                      (default 8; 0 makes every picture anew)\n"
               "  --filter            offer only well-known media extensions to detection\n"
               "  --wide-links        follow symbolic links that lead out of the folders\n"
               "  --views=no          show only the folders, without the Music, Pictures\n"
               "                      and Video views (default: views shown)\n"
               "  --state-dir DIR     keep object ids and what was found in files here, so\n"
               "                      that ids last and a restart is quick (default:\n"
               "                      $STATE_DIRECTORY, else $XDG_STATE_HOME/dlna-dms, else\n"
               "                      ~/.local/state/dlna-dms; none: keep nothing)\n"
               "  --client RULE       fit answers to a player: \"ua=TEXT : FLAG,...\" (or\n"
               "                      av=, name=, ip=A.B.C.D[/BITS]), before the built-in\n"
               "                      profiles; may be given more than once\n"
               "  --list-clients      show the client profiles and their flags\n"
               "  --trace MASK        trace level mask, hexadecimal (default 0x0003)\n"
               "  --www DIR           folder with the description files and icons\n"
               "  --help              show this text\n"
               "  --version           show the version\n");
}

HostCommand parseHostCommandLine(int argc, char **argv, HostCommandLine &line, std::string &error) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") return HostCommand::Help;
    if (arg == "--version") return HostCommand::Version;
    if (arg == "--list-clients") {
      line.listClients = true;
      continue;
    }
    if (arg.size() < 2 || arg[0] != '-') {
      line.folders.push_back(arg);
      continue;
    }
    std::string name = arg.rfind("--", 0) == 0 ? arg.substr(2) : arg;
    // "--name=value" gives the value in the same word (a switch: yes or no).
    const size_t equals = name.find('=');
    std::string given;
    if (equals != std::string::npos) {
      given = name.substr(equals + 1);
      name.resize(equals);
    }
    const OptionRow *row = findOption(name);
    if (row == nullptr && name != "config") {
      error = "unknown option " + arg;
      return HostCommand::Invalid;
    }
    if (row != nullptr && !row->takesValue && equals == std::string::npos) {
      line.options.emplace_back(name, "yes");
      continue;
    }
    if (equals == std::string::npos && i + 1 >= argc) {
      error = arg + " needs a value";
      return HostCommand::Invalid;
    }
    const std::string value = equals != std::string::npos ? given : argv[++i];
    if (row == nullptr) {
      line.configPath = value;
      continue;
    }
    HostOptions check;  // a bad value is refused here, before any file is read
    if (!row->apply(check, value)) {
      error = "bad value for " + arg + ": " + value;
      return HostCommand::Invalid;
    }
    line.options.emplace_back(name, value);
  }
  return HostCommand::Serve;
}

bool resolveHostOptions(const HostCommandLine &line, HostOptions &options, std::string &error) {
  HostOptions resolved;
  std::vector<std::string> fileFolders;
  if (!line.configPath.empty() && !readConfigFile(line.configPath, resolved, fileFolders, error)) return false;
  for (const auto &[name, value] : line.options) findOption(name)->apply(resolved, value);
  resolved.folders = line.folders.empty() ? fileFolders : line.folders;
  if (resolved.folders.empty() && !line.listClients) {
    error = "no folder to share";
    return false;
  }
  options = std::move(resolved);
  return true;
}

std::string hostStateFolder(const HostOptions &options) {
  if (options.stateDir == "none") return {};
  if (!options.stateDir.empty()) return options.stateDir;
  if (const char *systemd = std::getenv("STATE_DIRECTORY"); systemd != nullptr && *systemd != '\0') {
    const std::string folders = systemd;
    return folders.substr(0, folders.find(':'));
  }
  if (const char *xdg = std::getenv("XDG_STATE_HOME"); xdg != nullptr && *xdg == '/') {
    return std::string(xdg) + "/dlna-dms";
  }
  if (const char *home = std::getenv("HOME"); home != nullptr && *home == '/') {
    return std::string(home) + "/.local/state/dlna-dms";
  }
  return {};
}
