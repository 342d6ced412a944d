// libFuzzer target for the host program's configuration file: the input is
// the file, held in memory and read by its /proc/self/fd name, resolved as
// the host resolves it at start and on SIGHUP.  The reading never exits the
// process: a refusal returns false with an error that names the file and a
// line ("FILE:LINE: ...") or is the missing folder, and what is accepted
// lies within each option's bounds.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "host_options.h"

namespace {

[[noreturn]] void fail(const char *what, const std::string &detail) {
  std::fprintf(stderr, "config_fuzz: %s: %s\n", what, detail.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // One in-memory file for the whole run, rewritten per input.
  static const int fd = ::memfd_create("config_fuzz", MFD_CLOEXEC);
  static const std::string path = "/proc/self/fd/" + std::to_string(fd);
  if (fd < 0 || ::ftruncate(fd, 0) != 0 || ::pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) std::abort();
  const std::string input(reinterpret_cast<const char *>(data), size);

  HostCommandLine line;
  line.configPath = path;
  HostOptions o;
  std::string error;
  if (!resolveHostOptions(line, o, error)) {
    if (error != "no folder to share" && error.rfind(path + ":", 0) != 0) fail("a refusal without its line", error);
    return 0;
  }
  const bool inBounds = !o.name.empty() && o.name.size() <= 256 && o.port >= 0 && o.port <= 65535 &&
                        o.mediaPort >= -1 && o.mediaPort <= 65535 && o.maxContent >= 1 &&
                        o.maxContent <= 100000000 && o.artCacheMb >= 0 && o.artCacheMb <= 4096 &&
                        !o.folders.empty() && std::strtoull(o.trace.c_str(), nullptr, 16) <= 0xffffffffULL;
  if (!inBounds) fail("accepted options out of bounds", input);
  for (const std::string &folder : o.folders) {
    if (folder.empty()) fail("an empty folder accepted", input);
  }
  return 0;
}
