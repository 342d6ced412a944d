// End to end, as a user meets it: from launching `dlna-dms` on a library of
// tagged music and photos until Browse lists the last folder, and the peak
// resident memory of the whole process (and what it holds once settled: two
// seconds later, and the index's first write done), for 20,000 and 100,000 files (hard
// links of real fixtures, 100 to a folder, warm cache): without a state
// folder, with the views and without; then with a state folder: the first
// start (a new index), a restart of the unchanged library, and a restart
// after 1,000 files were copied anew; with the index's size on disk.  Four files in five are tracks, hard
// links of 2,000 tagged copies (400 artists, 500 albums, 20 genres), so the
// views hold as many artists and albums as a real collection of that size.
//
// It starts the real host program on 127.0.0.1: run it inside a private
// network namespace, e.g.
//   unshare -n sh -c 'ip link set lo up && build/bench/launch_bench build/host/dlna-dms'
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <taglib/fileref.h>
#include <taglib/tpropertymap.h>

#include "dms_test.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kPort = 49500;
constexpr int kPerFolder = 100;

constexpr int kTemplates = 2000;

// The tagged tracks the library links to.
void makeTemplates(const fs::path &folder) {
  fs::create_directories(folder);
  for (int t = 0; t < kTemplates; ++t) {
    const fs::path copy = folder / ("t" + std::to_string(t) + ".mp3");
    fs::copy_file(dmstest::fixture("tagged/mp3-no-tags.mp3"), copy);
    TagLib::FileRef file(copy.c_str());
    TagLib::PropertyMap tags;
    tags["TITLE"] = TagLib::String("Track " + std::to_string(t));
    tags["ARTIST"] = TagLib::String("Artist " + std::to_string(t / 4 % 400));
    tags["ALBUM"] = TagLib::String("Album " + std::to_string(t / 4));
    tags["GENRE"] = TagLib::String("Genre " + std::to_string(t % 20));
    tags["TRACKNUMBER"] = TagLib::String(std::to_string(t % 4 + 1));
    file.file()->setProperties(tags);
    file.save();
  }
}

void buildLibrary(const fs::path &root, const fs::path &templates, int files) {
  for (int i = 0; i < files; ++i) {
    char folder[32], name[32];
    std::snprintf(folder, sizeof folder, "d%05d", i / kPerFolder);
    const fs::path source = i % 5 == 4 ? fs::path(dmstest::fixture("image/jfif-640x480.jpg"))
                                       : templates / ("t" + std::to_string(i / 5 % kTemplates) + ".mp3");
    std::snprintf(name, sizeof name, "f%06d%s", i, source.extension().c_str());
    fs::create_directories(root / folder);
    fs::create_hard_link(source, root / folder / name);
  }
}

// A figure of `pid`'s /proc status in KiB: "VmHWM:" (peak resident set) or
// "VmRSS:" (resident set now).
long statusKiB(pid_t pid, const std::string &field) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(field, 0) == 0) return std::strtol(line.c_str() + field.size(), nullptr, 10);
  }
  return 0;
}

// The bytes of the index in `state` (0 without one).
uintmax_t indexBytes(const fs::path &state) {
  if (state.empty()) return 0;
  std::error_code none;
  const uintmax_t main = fs::file_size(state / "index.db", none), log = fs::file_size(state / "index.db-wal", none);
  return (main == static_cast<uintmax_t>(-1) ? 0 : main) + (log == static_cast<uintmax_t>(-1) ? 0 : log);
}

// Seconds from launch until the last folder lists all its files; -1 when it
// never does within two minutes.
double launchToBrowsable(const std::string &program, const fs::path &library, const fs::path &state, int files,
                         const std::vector<std::string> &options, long *peak, long *settled) {
  char lastFolder[32];
  std::snprintf(lastFolder, sizeof lastFolder, "d%05d", (files - 1) / kPerFolder);
  const int inLastFolder = files - (files - 1) / kPerFolder * kPerFolder;
  const auto start = Clock::now();
  const pid_t pid = ::fork();
  if (pid == 0) {
    const std::string port = std::to_string(kPort);
    // Room for every file and folder of the largest library.
    std::vector<std::string> words{program, "--address", "127.0.0.1", "--port", port, "--www", DMS_BENCH_WWW,
                                   "--max-content", "200000"};
    words.insert(words.end(), options.begin(), options.end());
    words.push_back(library.string());
    std::vector<char *> argv;
    for (std::string &word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    ::execv(program.c_str(), argv.data());
    std::_Exit(127);
  }
  double seconds = -1;
  while (std::chrono::duration<double>(Clock::now() - start).count() < 120) {
    const dmstest::DidlObject folder = dmstest::lookup(kPort, library.filename().string() + "/" + lastFolder);
    if (!folder.id().empty() &&
        dmstest::browse(kPort, folder.id(), "BrowseDirectChildren").numberReturned == inLastFolder) {
      seconds = std::chrono::duration<double>(Clock::now() - start).count();
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  // What the running server holds once the start is behind it: two seconds
  // on, and then until the index's first write is done (its files have not
  // grown for a second; a minute at most).
  std::this_thread::sleep_for(std::chrono::seconds(2));
  for (uintmax_t before = indexBytes(state) + 1, waited = 0; before != indexBytes(state) && waited < 60; ++waited) {
    before = indexBytes(state);
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
  *settled = statusKiB(pid, "VmRSS:");
  *peak = statusKiB(pid, "VmHWM:");
  ::kill(pid, SIGTERM);
  ::waitpid(pid, nullptr, 0);
  return seconds;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: launch_bench PATH-TO-dlna-dms [TEMPORARY-FOLDER]\n");
    return 2;
  }
  const fs::path base = fs::path(argc > 2 ? argv[2] : "/tmp") / ("dms_launch_bench_" + std::to_string(::getpid()));
  makeTemplates(base / "templates");
  std::printf("%-8s %-24s %14s %10s %10s %14s %12s\n", "files", "run", "to browsable", "peak MB", "after MB",
              "bytes/file", "index bytes");
  for (int files : {20000, 100000}) {
    const fs::path library = base / ("lib" + std::to_string(files));
    const fs::path state = base / ("state" + std::to_string(files));
    buildLibrary(library, base / "templates", files);
    const std::string stateOption = "--state-dir=" + state.string();
    struct Run {
      const char *label;
      std::vector<std::string> options;
      bool changeFirst = false;  // 1,000 files copied anew (new inode and time) before it
    } runs[] = {
        {"no state, views off", {"--state-dir=none", "--views=no"}},
        {"no state, views on", {"--state-dir=none"}},
        {"first start (new index)", {stateOption}},
        {"restart, unchanged", {stateOption}},
        {"restart, views off", {stateOption, "--views=no"}},
        {"restart, 1,000 changed", {stateOption}, true},
    };
    for (const Run &run : runs) {
      if (run.changeFirst) {
        for (int i = 0; i < 1000; ++i) {
          char name[48];
          std::snprintf(name, sizeof name, "d%05d/f%06d", i / kPerFolder, i);
          for (const char *extension : {".mp3", ".jpg"}) {
            const fs::path file = library / (std::string(name) + extension);
            if (!fs::exists(file)) continue;
            fs::copy_file(file, file.string() + ".new");
            fs::rename(file.string() + ".new", file);
          }
        }
      }
      long peak = 0, settled = 0;
      const bool stateful = run.options[0] == stateOption;
      const double seconds = launchToBrowsable(argv[1], library, stateful ? state : fs::path(), files, run.options,
                                               &peak, &settled);
      std::printf("%-8d %-24s %12.2f s %10.1f %10.1f %14.0f %12llu\n", files, run.label, seconds, peak / 1024.0,
                  settled / 1024.0, peak * 1024.0 / files, static_cast<unsigned long long>(indexBytes(state)));
      std::fflush(stdout);
    }
    fs::remove_all(library);
  }
  fs::remove_all(base);
  return 0;
}
