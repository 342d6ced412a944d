// Starts a real server on 127.0.0.1 for black-box protocol tests.  Tests run
// inside a private network namespace (the test runner enters it), so the
// server's announcements stay on loopback.
#ifndef DMS_TESTS_SERVER_FIXTURE_H
#define DMS_TESTS_SERVER_FIXTURE_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "dlna_dms.h"
#include "http_client.h"

namespace dmstest {

inline constexpr char kHost[] = "127.0.0.1";
inline constexpr int kPort = 49300;

// A running server over the given folders.  Stop() asserts a clean shutdown.
class RunningServer {
 public:
  RunningServer() = default;
  RunningServer(const RunningServer &) = delete;
  RunningServer &operator=(const RunningServer &) = delete;
  ~RunningServer() { Stop(); }

  // Creates and starts; false (with a test failure) when either step fails.
  bool Start(const std::vector<std::string> &folders, const std::string &name = "Test Server",
             const std::string &model = "Model X", int maxContent = 10000) {
    EXPECT_EQ(::chdir(DMS_TEST_WWW), 0);
    dlna_dmsInit();
    folders_ = folders;
    paths_.clear();
    for (auto &folder : folders_) paths_.push_back(folder.data());
    dmsConfig config{};
    dmsDeviceInfo info{};
    std::snprintf(config.friendlyName, sizeof config.friendlyName, "%s", name.c_str());
    std::snprintf(config.ipAddress, sizeof config.ipAddress, "%s", kHost);
    config.port = kPort;
    config.sharedPaths = paths_.data();
    config.numSharedPaths = static_cast<int32_t>(paths_.size());
    config.maxContent = maxContent;
    std::snprintf(info.manufacturer, sizeof info.manufacturer, "%s", "Test Maker");
    std::snprintf(info.modelName, sizeof info.modelName, "%s", model.c_str());
    std::snprintf(info.serialNumber, sizeof info.serialNumber, "%s", "0001");
    int32_t created = dlna_dmsCreate(&handle_, &config, &info);
    EXPECT_EQ(created, 0);
    if (created != 0) return false;
    port_ = config.port;
    int32_t started = dlna_dmsStart(handle_);
    EXPECT_EQ(started, 0);
    return started == 0;
  }

  void Stop() {
    if (handle_ == nullptr) return;
    EXPECT_EQ(dlna_dmsStop(handle_), 0);
    EXPECT_EQ(dlna_dmsDestroy(handle_), 0);
    std::free(handle_);
    handle_ = nullptr;
    EXPECT_EQ(dlna_dmsDeinit(), 0);
  }

  int port() const { return port_; }
  dmsHandle *handle() const { return handle_; }

 private:
  dmsHandle *handle_ = nullptr;
  int port_ = 0;
  std::vector<std::string> folders_;
  std::vector<char *> paths_;
};

// A temporary folder removed with everything in it.
class TempFolder {
 public:
  TempFolder() {
    char pattern[] = "/tmp/dms_test_XXXXXX";
    path_ = ::mkdtemp(pattern);
  }
  TempFolder(const TempFolder &) = delete;
  TempFolder &operator=(const TempFolder &) = delete;
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace dmstest

#endif  // DMS_TESTS_SERVER_FIXTURE_H
