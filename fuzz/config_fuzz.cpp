// libFuzzer target for the host program's configuration file: the input is
// the file (held in memory, read by its /proc/self/fd name), resolved as
// the host resolves it at start and on SIGHUP: alone, and under a command
// line that names a folder and a port.  The reading never exits the
// process: it returns false with an error.  Checked:
//   - a file that resolves alone resolves under the command line too, and
//     the command line's port and folders win;
//   - every error names the file and a line ("FILE:LINE: ...") or is the
//     missing folder;
//   - what resolved lies in each option's bounds, and written back as a
//     file it resolves to the same options;
//   - an accepted trace mask reads the same in the library (which takes it
//     from DMS_TRACE_LEVEL).
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "host_options.h"
#include "util/osal_trace.h"

namespace {

[[noreturn]] void fail(const char *what, const std::string &detail) {
  std::fprintf(stderr, "config_fuzz: %s: %s\n", what, detail.c_str());
  std::abort();
}

// One in-memory file for the whole run, rewritten per input.
struct MemoryFile {
  int fd = -1;
  std::string path;
};

MemoryFile &memoryFile() {
  static MemoryFile file = [] {
    MemoryFile made;
    made.fd = ::memfd_create("config_fuzz", MFD_CLOEXEC);
    if (made.fd < 0) std::abort();
    made.path = "/proc/self/fd/" + std::to_string(made.fd);
    return made;
  }();
  return file;
}

void setContent(const std::string &text) {
  const MemoryFile &file = memoryFile();
  if (::ftruncate(file.fd, 0) != 0) std::abort();
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = ::pwrite(file.fd, text.data() + written, text.size() - written, static_cast<off_t>(written));
    if (count <= 0) std::abort();
    written += static_cast<size_t>(count);
  }
}

bool sameOptions(const HostOptions &a, const HostOptions &b) {
  return a.name == b.name && a.address == b.address && a.interface == b.interface && a.port == b.port &&
         a.mediaPort == b.mediaPort && a.maxContent == b.maxContent && a.artCacheMb == b.artCacheMb &&
         a.filter == b.filter && a.wideLinks == b.wideLinks && a.trace == b.trace && a.www == b.www &&
         a.folders == b.folders;
}

// The options as a configuration file; the defaults' empty texts are left
// out (an empty value is refused).
std::string asFile(const HostOptions &options) {
  std::string text = "# written back\n";
  auto line = [&text](const char *key, const std::string &value) {
    if (!value.empty()) text += std::string(key) + " = " + value + "\n";
  };
  line("name", options.name);
  line("address", options.address);
  line("interface", options.interface);
  line("port", std::to_string(options.port));
  if (options.mediaPort >= 0) line("media-port", std::to_string(options.mediaPort));
  line("max-content", std::to_string(options.maxContent));
  line("art-cache-mb", std::to_string(options.artCacheMb));
  line("filter", options.filter ? "yes" : "no");
  line("wide-links", options.wideLinks ? "on" : "off");
  line("trace", options.trace);
  line("www", options.www);
  for (const std::string &folder : options.folders) line("folder", folder);
  return text;
}

void checkBounds(const HostOptions &options, const std::string &input) {
  const bool inBounds = !options.name.empty() && options.name.size() <= 256 && options.port >= 0 &&
                        options.port <= 65535 && options.mediaPort >= -1 && options.mediaPort <= 65535 &&
                        options.maxContent >= 1 && options.maxContent <= 100000000 && options.artCacheMb >= 0 &&
                        options.artCacheMb <= 4096 && !options.folders.empty();
  if (!inBounds) fail("resolved options out of bounds", input);
  for (const std::string &folder : options.folders) {
    if (folder.empty()) fail("an empty folder resolved", input);
  }
}

// The library reads the mask the host lets through the same way.
void checkTrace(const std::string &mask, const std::string &input) {
  if (mask.empty()) return;
  // The variable lives in one buffer of ours: setenv would keep a copy of
  // every value it was ever given.
  static char variable[8192] = "DMS_TRACE_LEVEL=";
  constexpr size_t kPrefix = sizeof "DMS_TRACE_LEVEL=" - 1;
  if (mask.size() >= sizeof variable - kPrefix) return;
  std::memcpy(variable + kPrefix, mask.c_str(), mask.size() + 1);
  static const bool placed = ::putenv(variable) == 0;
  if (!placed) std::abort();
  const unsigned long expected = std::strtoul(mask.c_str(), nullptr, 16);
  g_u32_osalTraceLevel = 0x5a5a5a5a;
  osal_traceInitialize();
  const uint32_t read = g_u32_osalTraceLevel;
  g_u32_osalTraceLevel = 0;
  if (expected > 0xffffffffUL || read != expected) fail("a trace mask the library reads otherwise", input);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  g_u32_osalTraceLevel = 0;
  memoryFile();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string input(reinterpret_cast<const char *>(data), size);
  setContent(input);
  const std::string &path = memoryFile().path;

  HostCommandLine fileOnly;
  fileOnly.configPath = path;
  HostOptions alone;
  std::string aloneError;
  const bool aloneResolved = resolveHostOptions(fileOnly, alone, aloneError);

  HostCommandLine withCommandLine;
  withCommandLine.configPath = path;
  withCommandLine.folders = {"/srv/media"};
  withCommandLine.options = {{"port", "8200"}, {"name", "Den"}};
  HostOptions under;
  std::string underError;
  const bool underResolved = resolveHostOptions(withCommandLine, under, underError);

  if (aloneResolved && !underResolved) fail("a file that resolves alone fails under a command line", underError);
  for (const std::string *error : {&aloneError, &underError}) {
    if (!error->empty() && *error != "no folder to share" && error->rfind(path + ":", 0) != 0) {
      fail("an error that names no line of the file", *error);
    }
  }
  if (!aloneResolved && aloneError.empty()) fail("a refusal without an error", input);
  if (underResolved) {
    if (under.port != 8200 || under.name != "Den" || under.folders != std::vector<std::string>{"/srv/media"}) {
      fail("the command line did not win over the file", input);
    }
    checkBounds(under, input);
    checkTrace(under.trace, input);
  }
  if (!aloneResolved) return 0;
  checkBounds(alone, input);

  // Written back and read again: the same options.
  setContent(asFile(alone));
  HostOptions again;
  std::string againError;
  if (!resolveHostOptions(fileOnly, again, againError)) fail("the options written back are refused", againError);
  if (!sameOptions(alone, again)) fail("the options written back read otherwise", asFile(alone));
  return 0;
}
