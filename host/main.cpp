// dlna-dms: runs a DLNA media server on the folders named on the command line.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "dlna_dms.h"
#include "host_address.h"
#include "host_options.h"
#include "probe.h"

// The scan's name filter switch read by the library; --filter sets it.
extern "C" {
int KVSUPPORT_XR_VAL = 0;
}

namespace {

// Whether the library was built with the optional feature `name` (one word of
// dlna_dmsFeatures).
bool libraryHas(const std::string &name) {
  const std::string words = " " + std::string(dlna_dmsFeatures()) + " ";
  return words.find(" " + name + " ") != std::string::npos;
}

int fail(const std::string &message, int code = 1) {
  std::fprintf(stderr, "dlna-dms: %s\n", message.c_str());
  return code;
}

// The folders as absolute paths, the form the server shares them by; false
// with `error` when one is not a folder.
bool absoluteFolders(const std::vector<std::string> &named, std::vector<std::string> &out, std::string &error) {
  out.clear();
  for (const std::string &folder : named) {
    char *absolute = ::realpath(folder.c_str(), nullptr);
    struct stat status {};
    const bool isFolder = absolute != nullptr && ::stat(absolute, &status) == 0 && S_ISDIR(status.st_mode);
    if (isFolder) out.emplace_back(absolute);
    std::free(absolute);
    if (!isFolder) {
      error = "'" + folder + "' is not a folder";
      return false;
    }
  }
  return true;
}

// The address to serve on; false with `error` for an interface without an
// IPv4 address or an address that is not this machine's.
bool chooseAddress(HostOptions &options, std::string &error) {
  if (!options.interface.empty()) {
    options.address = interfaceAddress(options.interface);
    if (options.address.empty()) error = "interface " + options.interface + " has no IPv4 address";
  } else if (options.address.empty()) {
    const std::string routed = defaultRouteInterface();
    if (!routed.empty()) options.address = interfaceAddress(routed);
    if (options.address.empty()) options.address = firstNetworkAddress();
  } else if (!isLocalAddress(options.address)) {
    error = options.address + " is not an IPv4 address of this machine";
  }
  return error.empty();
}

// The files the library reads from its working directory.
const char *const kWwwFiles[] = {
    "dmsCdsConfiguration.xml", "dmsCmsConfiguration.xml", "dmsPresentationPage.html",
    "dmsMsMrsConfiguration.xml", "48x48-icon.jpg", "120x120-icon.jpg",
    "48x48-icon.png", "120x120-icon.png"};

std::string missingWwwFile(const std::string &directory) {
  for (const char *name : kWwwFiles) {
    std::string path = directory + "/" + name;
    if (::access(path.c_str(), R_OK) != 0) return path;
  }
  return {};
}

std::string defaultWwwDirectory() {
  if (::access(DMS_INSTALL_WWW "/dmsCdsConfiguration.xml", R_OK) == 0) return DMS_INSTALL_WWW;
  return DMS_SOURCE_WWW;
}

void printSharing(dmsHandle *server, const HostOptions &options, const char *verb) {
  int32_t folders = 0;
  int32_t items = 0;
  dlna_dmsGetCounts(server, &folders, &items);
  std::printf("%s %d folder(s) and %d item(s) as \"%s: DMS\" at http://%s:%d/description.xml\n", verb,
              static_cast<int>(folders), static_cast<int>(items), options.name.c_str(), options.address.c_str(),
              static_cast<int>(dlna_dmsGetMediaPort(server)));
  std::fflush(stdout);
}

bool setClientRules(dmsHandle *server, const std::vector<std::string> &rules) {
  std::vector<const char *> texts;
  for (const std::string &rule : rules) texts.push_back(rule.c_str());
  return dlna_dmsSetClientRules(server, texts.data(), static_cast<int32_t>(texts.size())) == DMS_SUCCESS;
}

int listClients(const HostOptions &options) {
  std::vector<const char *> texts;
  for (const std::string &rule : options.clients) texts.push_back(rule.c_str());
  char *described = nullptr;
  if (dlna_dmsDescribeClients(texts.data(), static_cast<int32_t>(texts.size()), &described) != DMS_SUCCESS) {
    return fail("cannot describe the client profiles");
  }
  std::fputs(described, stdout);
  std::free(described);
  return 0;
}

// SIGHUP: reads the configuration again (with the command line over it) and
// applies what changed to the running server.  A bad file changes nothing.
void reload(dmsHandle *server, const HostCommandLine &line, HostOptions &running) {
  HostOptions fresh;
  std::string error;
  std::vector<std::string> folders;
  if (!resolveHostOptions(line, fresh, error) || !absoluteFolders(fresh.folders, folders, error)) {
    fail("reload: " + error + "; the running configuration is kept");
    return;
  }
  auto contains = [](const std::vector<std::string> &list, const std::string &item) {
    return std::find(list.begin(), list.end(), item) != list.end();
  };
  for (const std::string &folder : running.folders) {
    if (!contains(folders, folder) && dlna_dmsDeleteSharedPath(server, folder.c_str()) != DMS_SUCCESS) {
      fail("reload: cannot stop sharing " + folder);
    }
  }
  for (std::string &folder : folders) {
    if (!contains(running.folders, folder) && dlna_dmsAddSharedPath(server, folder.data()) != DMS_SUCCESS) {
      fail("reload: cannot share " + folder);
    }
  }
  running.folders = folders;
  if (fresh.name != running.name && dlna_dmsUpdateFriendlyName(server, fresh.name.c_str()) == DMS_SUCCESS) {
    running.name = fresh.name;
  }
  if (fresh.wideLinks != running.wideLinks && dlna_dmsSetWideLinks(server, fresh.wideLinks ? 1 : 0) == DMS_SUCCESS) {
    running.wideLinks = fresh.wideLinks;
  }
  if (fresh.views != running.views && dlna_dmsSetViews(server, fresh.views ? 1 : 0) == DMS_SUCCESS) {
    running.views = fresh.views;
  }
  if (fresh.clients != running.clients && setClientRules(server, fresh.clients)) running.clients = fresh.clients;
  if (fresh.artCacheMb != running.artCacheMb) {
    dlna_dmsSetArtCacheSize(server, static_cast<uint64_t>(fresh.artCacheMb) * 1024 * 1024);
    running.artCacheMb = fresh.artCacheMb;
  }
  const bool later = fresh.address != running.address || fresh.interface != running.interface ||
                     fresh.port != running.port || fresh.mediaPort != running.mediaPort ||
                     fresh.maxContent != running.maxContent || fresh.filter != running.filter ||
                     fresh.trace != running.trace || (!fresh.www.empty() && fresh.www != running.www) ||
                     fresh.stateDir != running.stateDir;
  if (later) {
    fail("reload: address, interface, ports, max-content, filter, trace, www and state-dir change at the next start", 0);
  }
  printSharing(server, running, "Reloaded: sharing");
}

int serve(const HostCommandLine &line, HostOptions &options) {
  std::vector<std::string> folders;
  std::string error;
  if (!absoluteFolders(options.folders, folders, error)) return fail(error);
  options.folders = folders;
  // An address named on its own is kept; one found from an interface is
  // followed when that interface's address changes.
  const bool follow = options.address.empty() || !options.interface.empty();
  if (!chooseAddress(options, error)) return fail(error, 2);
  if (options.www.empty()) options.www = defaultWwwDirectory();
  std::string missing = missingWwwFile(options.www);
  if (!missing.empty()) return fail("missing server file " + missing + " (see --www)");
  const int wantedPort = options.port;
  if (!portIsFree(options.address, wantedPort)) {
    return fail("port " + std::to_string(wantedPort) + " on " + options.address + " is busy");
  }
  if (::chdir(options.www.c_str()) != 0) return fail("cannot enter " + options.www);
  KVSUPPORT_XR_VAL = options.filter ? 1 : 0;

  dmsConfig config{};
  dmsDeviceInfo info{};
  std::snprintf(config.friendlyName, sizeof config.friendlyName, "%s", options.name.c_str());
  std::snprintf(config.ipAddress, sizeof config.ipAddress, "%s", options.address.c_str());
  config.port = options.port;
  std::vector<char *> paths;
  for (std::string &folder : folders) paths.push_back(folder.data());
  config.sharedPaths = paths.data();
  config.numSharedPaths = static_cast<int32_t>(paths.size());
  config.maxContent = options.maxContent;
  std::snprintf(info.manufacturer, sizeof info.manufacturer, "%s", "dlna-dms");
  std::snprintf(info.modelName, sizeof info.modelName, "%s", "dlna-dms");
  std::snprintf(info.modelDescription, sizeof info.modelDescription, "%s", "DLNA media server");
  std::snprintf(info.modelNumber, sizeof info.modelNumber, "%s", DMS_VERSION);

  // Signals are taken by sigwait below; block them before the library starts
  // its threads so that every thread inherits the mask.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  // Without a level the library prints a banner; ask for errors and warnings.
  ::setenv("DMS_TRACE_LEVEL", options.trace.empty() ? "0x0003" : options.trace.c_str(), !options.trace.empty());
  dlna_dmsInit();
  // The state folder's parents are made here (the library makes the last
  // level); one that cannot be made leaves the server without, as the
  // library reports.  A library without the index writes nothing there.
  const std::string stateFolder = hostStateFolder(options);
  if (!stateFolder.empty() && libraryHas("index")) {
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(stateFolder).parent_path(), ignored);
  }
  dlna_dmsSetStateDir(nullptr, stateFolder.c_str());
  dmsHandle *server = nullptr;
  int32_t result = dlna_dmsCreate(&server, &config, &info);
  if (result != DMS_SUCCESS) {
    return fail("cannot create the server on " + options.address + ":" + std::to_string(wantedPort) +
                " (error " + std::to_string(result) + ")");
  }
  int exitCode = 0;
  dlna_dmsSetArtCacheSize(server, static_cast<uint64_t>(options.artCacheMb) * 1024 * 1024);
  if (options.wideLinks) dlna_dmsSetWideLinks(server, 1);
  if (options.views) dlna_dmsSetViews(server, 1);
  setClientRules(server, options.clients);  // each was checked as it was read
  if (!follow) dlna_dmsSetFollowAddress(server, 0);
  if (options.mediaPort >= 0 && dlna_dmsSetMediaPort(server, options.mediaPort) != DMS_SUCCESS) {
    exitCode = fail("cannot set the media port");
    dlna_dmsDestroy(server);
    std::free(server);
    return exitCode;
  }
  result = dlna_dmsStart(server);
  if (result != DMS_SUCCESS) {
    exitCode = fail("cannot start the server (error " + std::to_string(result) + ")");
  } else {
    printSharing(server, options, "Sharing");
    for (int signal = 0; sigwait(&signals, &signal) == 0 && signal == SIGHUP;) {
      if (!line.configPath.empty()) reload(server, line, options);
    }
    dlna_dmsStop(server);
  }
  dlna_dmsDestroy(server);
  std::free(server);
  dlna_dmsDeinit();
  return exitCode;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc >= 2 && std::strcmp(argv[1], "probe") == 0) return runProbe(argc - 2, argv + 2);
  HostCommandLine line;
  HostOptions options;
  std::string error;
  switch (parseHostCommandLine(argc, argv, line, error)) {
    case HostCommand::Help:
      printHostUsage(stdout);
      return 0;
    case HostCommand::Version:
      std::printf("dlna-dms %s\nfeatures:%s%s\n", DMS_VERSION, *dlna_dmsFeatures() != '\0' ? " " : "",
                  dlna_dmsFeatures());
      return 0;
    case HostCommand::Invalid:
      std::fprintf(stderr, "dlna-dms: %s\n", error.c_str());
      printHostUsage(stderr);
      return 2;
    case HostCommand::Serve:
      break;
  }
  if (!resolveHostOptions(line, options, error)) {
    std::fprintf(stderr, "dlna-dms: %s\n", error.c_str());
    if (line.configPath.empty()) printHostUsage(stderr);
    return 2;
  }
  return line.listClients ? listClients(options) : serve(line, options);
}
