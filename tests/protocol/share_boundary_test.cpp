// Nothing outside the shared folders is listed or served, and nothing but
// regular files is opened: links out of the share (to a file, a folder,
// /etc/passwd), a FIFO, a socket, and files swapped for such while the
// server runs.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "dms_test.h"

using namespace dmstest;
namespace fs = std::filesystem;

namespace {

constexpr char kMp3[] = "audio/mp3/mpeg1-44k-cbr128.mp3";

std::set<std::string> titlesIn(int port, const std::string &id) {
  std::set<std::string> titles;
  for (const DidlObject &object : children(port, id)) titles.insert(object.title());
  return titles;
}

class ShareBoundaryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tree_.copy(kMp3, "outside/secret.mp3");
    tree_.copy(kMp3, "outside/folder/inner.mp3");
    tree_.copy(kMp3, "share/inside.mp3");
    tree_.copy(kMp3, "share/victim.mp3");
    tree_.copy(kMp3, "share/sub/deeper.mp3");
    fs::create_symlink("inside.mp3", tree_ / "share/link_in.mp3");
    fs::create_symlink(tree_ / "share/sub", tree_ / "share/link_sub");
    fs::create_symlink(tree_ / "outside/secret.mp3", tree_ / "share/link_out.mp3");
    fs::create_symlink(tree_ / "outside/folder", tree_ / "share/link_folder");
    fs::create_symlink("/etc/passwd", tree_ / "share/link_passwd.pcm");
    ::mkfifo((tree_ / "share/fifo.mp3").c_str(), 0644);
    tree_.write("share/empty.mp3", "");
    ::mknod((tree_ / "share/socket.mp3").c_str(), S_IFSOCK | 0644, 0);
    ASSERT_TRUE(server_.start({tree_ / "share"}));
    share_ = lookup(server_.port(), "share").id();
    ASSERT_FALSE(share_.empty());
  }

  TempDir tree_;
  RunningServer server_;
  std::string share_;
};

TEST_F(ShareBoundaryTest, OnlyWhatLiesInsideIsListedAndLinksOutOnlyWhenAllowed) {
  const std::set<std::string> inside{"inside", "link_in", "link_sub", "sub", "victim"};
  EXPECT_EQ(titlesIn(server_.port(), share_), inside);
  // Nothing outside is found by Search either.
  const CdsAnswer all = search(server_.port(), "0", "upnp:class derivedfrom \"object.item.audioItem\"");
  EXPECT_EQ(all.totalMatches, 5);  // inside, link_in, victim, deeper twice
  for (const DidlObject &item : all.objects) EXPECT_NE(item.title(), "secret");
  ASSERT_EQ(dlna_dmsSetWideLinks(server_.handle(), 1), 0);
  EXPECT_TRUE(titlesIn(server_.port(), share_).count("link_out"));
  // Links to folders out are then followed, those made later too.
  EXPECT_FALSE(lookup(server_.port(), "share/link_folder/inner").id().empty());
  fs::create_symlink(tree_ / "outside/folder", tree_ / "share/link_later");
  EXPECT_TRUE(eventually([&] { return !lookup(server_.port(), "share/link_later/inner").id().empty(); }));
  ASSERT_EQ(dlna_dmsSetWideLinks(server_.handle(), 0), 0);
  EXPECT_EQ(titlesIn(server_.port(), share_), inside);
  EXPECT_EQ(dlna_dmsSetWideLinks(nullptr, 1), DMS_ERR_INVALID_PARAM);
}

// A listed file swapped for a link out or a FIFO while the server runs is
// never served, and other files stream on.
TEST_F(ShareBoundaryTest, FilesSwappedAfterTheScanAreNotServed) {
  const std::string victim = lookup(server_.port(), "share/victim").path();
  const std::string inside = lookup(server_.port(), "share/inside").path();
  const std::string secret = readFile(tree_ / "outside/secret.mp3");
  // Swapped in by rename, as an attacker with write access to the share would.
  fs::create_symlink(tree_ / "outside/secret.mp3", tree_ / "share/.swap");
  fs::rename(tree_ / "share/.swap", tree_ / "share/victim.mp3");
  HttpResponse answer = httpGet(server_.port(), victim);
  EXPECT_EQ(answer.status, 404);
  EXPECT_EQ(answer.body.find(secret.substr(0, 64)), std::string::npos);
  ::mkfifo((tree_ / "share/.fifo").c_str(), 0644);
  fs::rename(tree_ / "share/.fifo", tree_ / "share/victim.mp3");
  EXPECT_EQ(httpGet(server_.port(), victim).status, 404);
  EXPECT_EQ(httpGet(server_.port(), inside).status, 200);
  // The monitor drops the name.
  EXPECT_TRUE(eventually([&] { return titlesIn(server_.port(), share_).count("victim") == 0; }));
}

}  // namespace
