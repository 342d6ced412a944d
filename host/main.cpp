// dlna-dms: runs a DLNA media server on the folders named on the command line.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "content/dmsClmApi.h"
#include "dlna_dms.h"
#include "host_options.h"
#include "probe.h"

// The scan's name filter switch read by the library; --filter sets it.
extern "C" {
int KVSUPPORT_XR_VAL = 0;
}

namespace {

// The SDK raises lower ports to this one.
constexpr int kLowestPort = 49152;

int fail(const std::string &message) {
  std::fprintf(stderr, "dlna-dms: %s\n", message.c_str());
  return 1;
}

// The first IPv4 address of an interface that is up and not loopback.
std::string firstNetworkAddress() {
  ifaddrs *list = nullptr;
  if (getifaddrs(&list) != 0) return "127.0.0.1";
  std::string found = "127.0.0.1";
  for (ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    if ((entry->ifa_flags & IFF_UP) == 0 || (entry->ifa_flags & IFF_LOOPBACK) != 0) continue;
    char text[INET_ADDRSTRLEN] = {0};
    auto *address = reinterpret_cast<sockaddr_in *>(entry->ifa_addr);
    if (inet_ntop(AF_INET, &address->sin_addr, text, sizeof text) != nullptr) {
      found = text;
      break;
    }
  }
  freeifaddrs(list);
  return found;
}

// True when nothing listens on address:port yet.  The probe may share the
// port with sockets in TIME_WAIT (the last answers of a server that just
// stopped): only a real listener makes the port busy, so a restart works at
// once.
bool portIsFree(const std::string &address, int port) {
  int probe = ::socket(AF_INET, SOCK_STREAM, 0);
  if (probe < 0) return true;
  const int reuse = 1;
  ::setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
  sockaddr_in where{};
  where.sin_family = AF_INET;
  where.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, address.c_str(), &where.sin_addr);
  bool free = ::bind(probe, reinterpret_cast<sockaddr *>(&where), sizeof where) == 0 ||
              errno != EADDRINUSE;
  ::close(probe);
  return free;
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

int serve(HostOptions &options) {
  std::vector<std::string> folders;
  for (const std::string &folder : options.folders) {
    char *absolute = ::realpath(folder.c_str(), nullptr);
    struct stat status {};
    if (absolute == nullptr || ::stat(absolute, &status) != 0 || !S_ISDIR(status.st_mode)) {
      std::free(absolute);
      return fail("'" + folder + "' is not a folder");
    }
    folders.emplace_back(absolute);
    std::free(absolute);
  }
  if (options.www.empty()) options.www = defaultWwwDirectory();
  std::string missing = missingWwwFile(options.www);
  if (!missing.empty()) return fail("missing server file " + missing + " (see --www)");
  if (options.address.empty()) options.address = firstNetworkAddress();
  int wantedPort = options.port < kLowestPort ? kLowestPort : options.port;
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
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  // Without a level the library prints a banner; ask for errors and warnings.
  ::setenv("DMS_TRACE_LEVEL", "0x0003", 0);
  dlna_dmsInit();
  dmsHandle *server = nullptr;
  int32_t result = dlna_dmsCreate(&server, &config, &info);
  if (result != DMS_SUCCESS) {
    return fail("cannot create the server on " + options.address + ":" + std::to_string(wantedPort) +
                " (error " + std::to_string(result) + ")");
  }
  int exitCode = 0;
  dlna_dmsSetArtCacheSize(server, static_cast<uint64_t>(options.artCacheMb) * 1024 * 1024);
  if (options.mediaPort >= 0 && dlna_dmsSetMediaPort(server, options.mediaPort) != DMS_SUCCESS) {
    exitCode = fail("media port " + std::to_string(options.mediaPort) + " on " + options.address + " is busy");
    dlna_dmsDestroy(server);
    std::free(server);
    return exitCode;
  }
  result = dlna_dmsStart(server);
  if (result != DMS_SUCCESS) {
    exitCode = fail("cannot start the server (error " + std::to_string(result) + ")");
  } else {
    int32_t containers = 0;
    int32_t items = 0;
    dmsClmGetCounts(dlna_dmsGetContentList(server), &containers, &items);
    std::printf("Sharing %d folder(s) and %d item(s) as \"%s: DMS\" at http://%s:%d/description.xml"
                " (media on port %d)\n",
                static_cast<int>(containers), static_cast<int>(items), options.name.c_str(),
                options.address.c_str(), static_cast<int>(config.port),
                static_cast<int>(dlna_dmsGetMediaPort(server)));
    std::fflush(stdout);
    int signal = 0;
    sigwait(&stopSignals, &signal);
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
  HostOptions options;
  std::string error;
  switch (parseHostOptions(argc, argv, options, error)) {
    case HostCommand::Help:
      printHostUsage(stdout);
      return 0;
    case HostCommand::Version:
      std::printf("dlna-dms %s\n", DMS_VERSION);
      return 0;
    case HostCommand::Invalid:
      std::fprintf(stderr, "dlna-dms: %s\n", error.c_str());
      printHostUsage(stderr);
      return 2;
    case HostCommand::Serve:
      return serve(options);
  }
  return 2;
}
