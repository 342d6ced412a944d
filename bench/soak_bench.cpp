// Soak: 8 clients browse, search and stream with ranges for a given time
// while the shared tree churns (files and folders created, renamed and
// deleted).  Prints the process's RSS every 10 s, the errors seen, and at
// the end whether the list equals the disk.
//
// It starts a real server on 127.0.0.1: run it inside a private network
// namespace, e.g. (30 minutes)
//   unshare -n sh -c 'ip link set lo up && build/bench/soak_bench 1800'
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "dlna_dms.h"
#include "dms_test.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

long residentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return 0;
}

// Every folder and item below `id` as "parent/title" paths, by Browse.
void listed(int port, const std::string &id, const std::string &prefix, std::set<std::string> &out) {
  for (const dmstest::DidlObject &object : dmstest::children(port, id)) {
    const std::string path = prefix + object.title();
    out.insert(path);
    if (object.container) listed(port, object.id(), path + "/", out);
  }
}

// The same from the disk: folders and .mp3 files, titles without extension.
void onDisk(const fs::path &folder, const std::string &prefix, std::set<std::string> &out) {
  for (const fs::directory_entry &entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (entry.is_directory()) {
      out.insert(prefix + name);
      onDisk(entry.path(), prefix + name + "/", out);
    } else if (entry.path().extension() == ".mp3") {
      out.insert(prefix + entry.path().stem().string());
    }
  }
}

// One client: Browse of a random folder, a Search, a ranged GET of a song.
void client(int port, unsigned seed, const std::atomic<bool> &stop, std::atomic<long> &requests,
            std::atomic<long> &errors) {
  std::minstd_rand random(seed);
  while (!stop) {
    const dmstest::CdsAnswer root = dmstest::browse(port, "0", "BrowseDirectChildren", 0, 50);
    const dmstest::CdsAnswer found =
        dmstest::search(port, "0", "upnp:class derivedfrom \"object.item.audioItem\"", random() % 20, 20);
    requests += 2;
    if (root.status != 200 || found.status != 200) ++errors;
    for (const dmstest::DidlObject &item : found.objects) {
      if (item.res.empty() || random() % 4 != 0) continue;
      const std::string url = item.res[0].at("url");
      const int status = dmstest::httpGet(port, url.substr(url.find("/web/")), "Range: bytes=100-4000\r\n").status;
      ++requests;
      // A file deleted meanwhile answers 404; anything else is an error.
      if (status != 206 && status != 404) ++errors;
    }
  }
}

// Creates, renames and deletes files and folders below `share`.
void churn(const fs::path &share, const fs::path &song, const std::atomic<bool> &stop) {
  std::minstd_rand random(7);
  for (long step = 0; !stop; ++step) {
    const fs::path folder = share / ("f" + std::to_string(random() % 20));
    std::error_code ignored;
    switch (random() % 5) {
      case 0: fs::create_directories(folder / ("sub" + std::to_string(random() % 3)), ignored); break;
      case 1:
        fs::create_directories(folder, ignored);
        fs::copy_file(song, folder / ("s" + std::to_string(step) + ".mp3"), ignored);
        break;
      case 2:
        for (const auto &entry : fs::directory_iterator(folder, ignored)) {
          fs::rename(entry.path(), share / ("f" + std::to_string(random() % 20)) / entry.path().filename(), ignored);
          break;
        }
        break;
      case 3:
        for (const auto &entry : fs::directory_iterator(folder, ignored)) {
          if (!entry.is_directory()) fs::remove(entry.path(), ignored);
        }
        break;
      default: fs::remove_all(folder, ignored); break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

}  // namespace

int main(int argc, char **argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 60;
  const fs::path song = fs::path(DMS_BENCH_FIXTURES) / "media/audio/mp3/mpeg1-44k-cbr128.mp3";
  dmstest::TempDir tree;
  const fs::path share = tree.mkdir("share");
  for (int i = 0; i < 20; ++i) tree.copy("audio/mp3/mpeg1-44k-cbr128.mp3", "share/f" + std::to_string(i) + "/a.mp3");
  ::setenv("DMS_TRACE_LEVEL", "0x0001", 0);
  dmstest::RunningServer server;
  if (!server.start({share.string()})) return 1;
  std::atomic<bool> stop{false};
  std::atomic<long> requests{0}, errors{0};
  std::vector<std::thread> threads;
  for (unsigned c = 0; c < 8; ++c) {
    threads.emplace_back(client, server.port(), c + 1, std::cref(stop), std::ref(requests), std::ref(errors));
  }
  threads.emplace_back(churn, share, song, std::cref(stop));
  const auto start = Clock::now();
  std::printf("soak %d s: RSS at start %ld KiB\n", seconds, residentKiB());
  for (int elapsed = 10; elapsed <= seconds; elapsed += 10) {
    std::this_thread::sleep_until(start + std::chrono::seconds(elapsed));
    std::printf("%5d s  RSS %7ld KiB  requests %8ld  errors %ld\n", elapsed, residentKiB(), requests.load(),
                errors.load());
    std::fflush(stdout);
  }
  stop = true;
  for (std::thread &thread : threads) thread.join();
  std::this_thread::sleep_for(std::chrono::seconds(4));  // the monitor settles
  std::set<std::string> disk, list;
  onDisk(share, "", disk);
  const std::string shareId = dmstest::lookup(server.port(), "share").id();
  listed(server.port(), shareId, "", list);
  for (const std::string &path : disk) {
    if (!list.count(path)) std::printf("  on disk, not listed: %s\n", path.c_str());
  }
  for (const std::string &path : list) {
    if (!disk.count(path)) std::printf("  listed, not on disk: %s\n", path.c_str());
  }
  std::printf("final: %zu on disk, %zu listed: %s; errors %ld\n", disk.size(), list.size(),
              disk == list ? "the list equals the disk" : "THE LIST DIFFERS FROM THE DISK", errors.load());
  return disk == list && errors == 0 ? 0 : 1;
}
