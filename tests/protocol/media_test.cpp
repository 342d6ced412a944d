#include <gtest/gtest.h>
#include <iostream>
#include "dms_test.h"
using namespace dmstest;
TEST(MediaProbe, Dump) {
  TempDir t;
  t.copy("audio/mp3/mpeg1-44k-cbr128.mp3", "share/song.mp3");
  t.copy("audio/wav/pcm16-44100-2ch.wav", "share/tone.wav");
  t.copy("image/jfif-640x480.jpg", "share/photo.jpg");
  t.mkdir("share/sub");
  RunningServer s; ASSERT_TRUE(s.start({t / "share"}));
  auto kids = children(s.port(), children(s.port(), "0").at(0).id());
  for (auto &k : kids) std::cout << k.title() << " " << k.id() << " " << (k.res.empty() ? "" : k.res[0]["url"] + " " + k.res[0]["size"] + " " + k.res[0]["protocolInfo"]) << "\n";
  std::string song; for (auto &k : kids) if (k.title()=="song") song = k.id();
  size_t size = readFile(t / "share/song.mp3").size();
  std::cout << "size " << size << "\n";
  for (int port : {s.port(), s.mediaPort()}) {
    auto show = [&](const std::string &what, const HttpResponse &r) {
      std::cout << port << " " << what.substr(0, 80) << " -> " << r.status << " len=" << r.header("content-length") << " cr=" << r.header("content-range") << " body=" << r.body.size() << " cf=" << r.header("contentfeatures.dlna.org") << " tm=" << r.header("transfermode.dlna.org") << " ct=" << r.header("content-type") << "\n";
    };
    std::string path = "/web/" + song + ".mp3";
    for (std::string range : std::vector<std::string>{"", "bytes=0-0", "bytes=" + std::to_string(size-1) + "-" + std::to_string(size-1), "bytes=" + std::to_string(size-1) + "-", "bytes=-1", "bytes=-0", "bytes=" + std::to_string(size) + "-",
          "bytes=" + std::to_string(size) + "-" + std::to_string(size+5), "bytes=5-2", "bytes=abc", "bytes=", "bytes=-", "items=0-1", "bytes=0-1,5-6", "bytes=1-2-3", "bytes= 0-1", "bytes=99999999999999999999999-", "bytes=-99999999999", "bytes=0-" + std::to_string(size + 100)})
      show("GET " + range, httpGet(port, path, range.empty() ? "" : "Range: " + range + "\r\n"));
    show("HEAD", httpGet(port, path, "", "HEAD"));
    show("HEAD range", httpGet(port, path, "Range: bytes=0-9\r\n", "HEAD"));
    show("POST", httpGet(port, path, "", "POST"));
    for (std::string u : std::vector<std::string>{"/web/" + song + "x", "/web/" + song + "/../../etc/passwd", "/web/" + song + "/..", "/web/" + song + ".mp3/..", "/web/../etc/passwd", "/web/0", "/web/1001", "/web/99999", "/web/%2e%2e/%2e%2e/etc/passwd", "/web/" + song + "%2e%2e",
                          "/web/" + song + ".mp3?x=1", "/web/" + song + ".", "/web/" + song + ".m.p3", "/web//" + song, "/web/0" + song, "/web/+" + song, "/web/" + song + "%00", "/web/" + std::string(100000, '1'), "/web/" + std::string(3000, '1'), "/etc/passwd", "/", "/web/", "/web/4294967297"})
      show("GET " + u, httpGet(port, u));
    std::string big(100 * 1024, 'a');
    std::string hdrs; for (int i = 0; i < 2000; ++i) hdrs += "X-Filler-" + std::to_string(i) + ": " + std::string(40, 'z') + "\r\n";
    show("bigheaders", httpGet(port, path, hdrs));
    show("onebigheader", httpGet(port, path, "X-Big: " + big + "\r\n"));
    show("after", httpGet(port, path));
  }
}
