// dlna-dms run on a configuration file, as a person sets it up: the file's
// folders and name are served, SIGHUP applies an edited file (a folder
// removed, another added, a new name) to the running server, a broken file
// at reload changes nothing, and a broken file at start-up is one line that
// names the file and line, with exit code 2.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "dms_test.h"

using namespace dmstest;

namespace {

constexpr int kHostPort = 49890;

// dlna-dms with `arguments`, its output in files; stopped with SIGTERM by
// finish() (also run by the destructor), which returns its exit code.
class HostProgram {
 public:
  HostProgram(const TempDir &dir, std::vector<std::string> arguments) : log_(dir / "host.log") {
    arguments.insert(arguments.begin(), DMS_TEST_HOST_PROGRAM);
    pid_ = ::fork();
    if (pid_ == 0) {
      const int out = ::open(log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      ::dup2(out, 1), ::dup2(out, 2);
      std::vector<char *> argv;
      for (std::string &argument : arguments) argv.push_back(argument.data());
      argv.push_back(nullptr);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
  }
  ~HostProgram() { finish(); }
  HostProgram(const HostProgram &) = delete;
  HostProgram &operator=(const HostProgram &) = delete;

  void signal(int number) const { ::kill(pid_, number); }
  // The exit code once it ended by itself within timeoutMs, or -1.
  int exited(int timeoutMs) {
    int status = 0;
    if (pid_ <= 0 || !eventually([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, timeoutMs)) return -1;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  int finish() {
    if (pid_ <= 0) return -1;
    signal(SIGTERM);
    const int code = exited(10000);
    if (code < 0) signal(SIGKILL), exited(5000);
    return code;
  }
  std::string log() const { return readFile(log_); }

 private:
  std::string log_;
  pid_t pid_ = -1;
};

std::set<std::string> sharedTitles() {
  std::set<std::string> titles;
  for (const DidlObject &folder : children(kHostPort, "0")) titles.insert(folder.title());
  return titles;
}

std::string friendlyName() {
  return elementText(httpGet(kHostPort, "/description.xml").body, "friendlyName");
}

TEST(HostConfig, SighupAppliesTheEditedFileAndABrokenOneChangesNothing) {
  TempDir dir;
  for (const char *folder : {"Alpha", "Beta", "Gamma"}) dir.copy("art/photo/small.jpg", std::string(folder) + "/p.jpg");
  const std::string config = dir / "dlna-dms.conf";
  auto writeConfig = [&](const std::string &name, std::initializer_list<const char *> folders) {
    std::string text = "# shared at home\nname = " + name + "\naddress = 127.0.0.1\nport = " + std::to_string(kHostPort) + "\n";
    for (const char *folder : folders) text += "folder = " + (dir / folder) + "\n";
    dir.write("dlna-dms.conf", text + "art-cache-mb = 2\n");
  };
  writeConfig("Before", {"Alpha", "Beta"});
  HostProgram host(dir, {"--config", config, "--www", DMS_TEST_WWW});
  // Asked only once it says it is up: the SDK's web server answers before
  // its folders are registered, and a request in between races inside it.
  ASSERT_TRUE(eventually([&] { return host.log().find("Sharing") != std::string::npos; }, 30000)) << host.log();
  EXPECT_EQ(sharedTitles(), (std::set<std::string>{"Alpha", "Beta"}));
  EXPECT_EQ(friendlyName(), "Before: DMS");

  writeConfig("After", {"Beta", "Gamma"});
  host.signal(SIGHUP);
  // Asked once the reload is done, for the same reason as at start.
  ASSERT_TRUE(eventually([&] { return host.log().find("Reloaded") != std::string::npos; }, 30000)) << host.log();
  EXPECT_EQ(sharedTitles(), (std::set<std::string>{"Beta", "Gamma"}));
  EXPECT_EQ(friendlyName(), "After: DMS");

  dir.write("dlna-dms.conf", "name = Broken\nfolder = " + (dir / "Alpha") + "\nport = many\n");
  host.signal(SIGHUP);
  EXPECT_TRUE(eventually([&] { return host.log().find(config + ":3:") != std::string::npos; }, 15000)) << host.log();
  EXPECT_EQ(sharedTitles(), (std::set<std::string>{"Beta", "Gamma"}));
  EXPECT_EQ(friendlyName(), "After: DMS");
  EXPECT_EQ(host.finish(), 0) << host.log();
}

TEST(HostConfig, ABrokenFileAtStartIsOneLineAndExitCodeTwo) {
  TempDir dir;
  const std::string config = dir.write("bad.conf", "# fine\nname = Fine\nloudness = 11\n");
  HostProgram host(dir, {"--config", config, "--address", "127.0.0.1", dir.path()});
  EXPECT_EQ(host.exited(10000), 2);
  const std::string log = host.log();
  EXPECT_EQ(log.rfind("dlna-dms: " + config + ":3: ", 0), 0u) << log;
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
}

}  // namespace
