#include <gtest/gtest.h>
#include <iostream>
#include "dms_test.h"
using namespace dmstest;
TEST(ContentProbe, Dump) {
  TempDir t;
  const std::string root = t.mkdir("Shared");
  t.mkdir("Shared/Empty");
  for (const char *n : {"a", "b", "c"}) t.copy("audio/mp3/mpeg1-44k-cbr128.mp3", std::string("Shared/Music/") + n + ".mp3");
  t.copy("image/jfif-640x480.jpg", "Shared/Photos/p.jpg");
  t.copy("audio/mp3/mpeg1-44k-cbr128.mp3", "Shared/Tom & <Jerry>.mp3");
  t.copy("audio/mp3/mpeg1-48k-cbr128-mono.mp3", "Shared/b.song.mp3");
  t.copy("audio/pcm/x-b-lpcm-2.pcm", "Shared/music-b-lpcm-2.pcm");
  t.copy("audio/wav/pcm16-44100-2ch.wav", "Shared/tone.wav");
  RunningServer s; ASSERT_TRUE(s.start({root}));
  int p = s.port();
  auto show = [&](const std::string &what, const HttpResponse &r) {
    std::cout << "=== " << what.substr(0, 100) << " -> " << r.status << " err=" << elementText(r.body, "errorCode") << " " << elementText(r.body, "errorDescription") << "\n" << r.body.substr(0, 1500) << "\n";
  };
  show("browse 0", soap(p, Service::kCds, "Browse", "<ObjectID>0</ObjectID><BrowseFlag>BrowseDirectChildren</BrowseFlag><Filter>*</Filter><StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount><SortCriteria></SortCriteria>"));
  show("browse 1001", soap(p, Service::kCds, "Browse", "<ObjectID>1001</ObjectID><BrowseFlag>BrowseDirectChildren</BrowseFlag><Filter>*</Filter><StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount><SortCriteria></SortCriteria>"));
  for (std::string c : {"", "*", "upnp:class derivedfrom \"object.item\"", "upnp:class = \"object.item.audioItem.musicTrack\"", "upnp:class derivedfrom \"object.container\"",
      "dc:title = \"b\"", "dc:title contains \"B\"", "dc:title contains \"Jerry\"", "upnp:class derivedfrom \"object.item.imageItem\" or upnp:class derivedfrom \"object.item.audioItem\"",
      "(dc:title contains \"a\")", "dc:title exists true", "dc:creator = \"Unknown\"", "res@size > 0"}) {
    CdsAnswer a = search(p, "0", c);
    std::cout << "SEARCH [" << c << "] " << a.status << " " << a.errorCode << " n=" << a.numberReturned << " t=" << a.totalMatches << ":";
    for (auto &o : a.objects) std::cout << " " << o.title() << "(" << o.id() << ")";
    std::cout << "\n";
  }
  for (auto &[s2, c2] : std::vector<std::pair<int,int>>{{1,0},{2,0},{6,0},{6,1},{7,0},{7,1},{0,-1}}) {
    CdsAnswer a = browse(p, "1001", "BrowseDirectChildren", s2, c2);
    std::cout << "PAGE " << s2 << "," << c2 << " " << a.status << " " << a.errorCode << " n=" << a.numberReturned << " t=" << a.totalMatches << "\n";
  }
  show("sortcaps", soap(p, Service::kCds, "GetSortCapabilities", ""));
  show("searchcaps", soap(p, Service::kCds, "GetSearchCapabilities", ""));
  show("sysupd", soap(p, Service::kCds, "GetSystemUpdateID", ""));
  show("feature", soap(p, Service::kCds, "GetFeatureList", ""));
  show("unknown", soap(p, Service::kCds, "Frobnicate", ""));
  auto args = [](std::string id, std::string flag, std::string st, std::string cnt) {
    return "<ObjectID>" + id + "</ObjectID><BrowseFlag>" + flag + "</BrowseFlag><Filter>*</Filter><StartingIndex>" + st + "</StartingIndex><RequestedCount>" + cnt + "</RequestedCount><SortCriteria></SortCriteria>"; };
  for (auto a : {args("-1","BrowseMetadata","0","0"), args("1001abc","BrowseMetadata","0","0"), args("abc","BrowseMetadata","0","0"), args("","BrowseMetadata","0","0"),
                 args(std::string(5000,'9'),"BrowseMetadata","0","0"), args("4294967297","BrowseMetadata","0","0"), args("1001", std::string(5000,'x'),"0","0"),
                 args("1001","BrowseDirectChildren","2147483648","0"), args("1001","BrowseDirectChildren","0","2147483648"), args("1001","BrowseDirectChildren","1e3","0"),
                 args("1001","BrowseDirectChildren","","") , args("1001","BrowseDirectChildren"," 1","2"), args("1001","browsemetadata","0","0"), args("1005","BrowseDirectChildren","0","0"),
                 std::string("<ObjectID>1001</ObjectID>"), std::string("<BrowseFlag>BrowseMetadata</BrowseFlag><Filter>*</Filter><StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount><SortCriteria></SortCriteria>"),
                 std::string("<ObjectID>1001</ObjectID><Filter>*</Filter><StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount><SortCriteria></SortCriteria>"),
                 std::string("<ObjectID>1001</ObjectID><BrowseFlag>BrowseMetadata</BrowseFlag><StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount><SortCriteria></SortCriteria>"),
                 std::string("<ObjectID>1001</ObjectID><BrowseFlag>BrowseMetadata</BrowseFlag><Filter>*</Filter><StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount>"),
                 std::string("<ObjectID>1001<BrowseFlag>"),
                 }) show("Browse " + a, soap(p, Service::kCds, "Browse", a));
  show("search neg", soap(p, Service::kCds, "Search", "<ContainerID>1001</ContainerID><SearchCriteria>*</SearchCriteria><Filter>*</Filter><StartingIndex>-1</StartingIndex><RequestedCount>0</RequestedCount><SortCriteria/>"));
  show("search item", soap(p, Service::kCds, "Search", "<ContainerID>1009</ContainerID><SearchCriteria>*</SearchCriteria><Filter>*</Filter><StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount><SortCriteria/>"));
  show("search -5", soap(p, Service::kCds, "Search", "<ContainerID>-5</ContainerID><SearchCriteria>*</SearchCriteria><Filter>*</Filter><StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount><SortCriteria/>"));
  show("search longcrit", soap(p, Service::kCds, "Search", "<ContainerID>0</ContainerID><SearchCriteria>" + std::string(100000, '(') + "</SearchCriteria><Filter>*</Filter><StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount><SortCriteria/>"));
  show("malformed", sendRaw(p, "POST /web/cds_control HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: text/xml\r\nSOAPACTION: \"urn:schemas-upnp-org:service:ContentDirectory:1#Browse\"\r\nContent-Length: 20\r\nConnection: close\r\n\r\n<s:Envelope><s:Body>"));
  show("notxml", sendRaw(p, "POST /web/cds_control HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: text/xml\r\nSOAPACTION: \"urn:schemas-upnp-org:service:ContentDirectory:1#Browse\"\r\nContent-Length: 5\r\nConnection: close\r\n\r\nhello"));
  show("mismatched action", sendRaw(p, "POST /web/cds_control HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: text/xml\r\nSOAPACTION: \"urn:schemas-upnp-org:service:ContentDirectory:1#Search\"\r\nContent-Length: 5\r\nConnection: close\r\n\r\nhello"));

  for (std::string f : {"@searchable", "@searchState", "@childCount", "", "res", "upnp:creator", "dc:creator"}) {
    CdsAnswer a = browse(p, "1003", "BrowseMetadata", 0, 0, f);
    CdsAnswer b = browse(p, "1010", "BrowseMetadata", 0, 0, f);
    std::cout << "FILTER [" << f << "] " << a.result << "\n   " << b.result << "\n";
  }
  for (std::string id : {"0", "1001", "1011", "1012", "1008"}) std::cout << "META " << browse(p, id, "BrowseMetadata").result << "\n";
  std::cout << "SEARCHPCM " << search(p, "0", "dc:title contains \"music\"").result << "\n";
  for (std::string c : {"res@protocolInfo contains \"image\"", "dc:creator contains \"Nobody\"", "upnp:class derivedfrom \"object.item.videoItem\"", "dc:title contains \"\"", "and dc:title = \"a\"", "dc:title = \"a\" and", "dc:title contains \"b\" and dc:title contains \"x\" or dc:title = \"c\""}) {
    CdsAnswer a = search(p, "0", c);
    std::cout << "SEARCH [" << c << "] " << a.status << " " << a.errorCode << " n=" << a.numberReturned << " t=" << a.totalMatches << ":";
    for (auto &o : a.objects) std::cout << " " << o.title();
    std::cout << "\n";
  }
  show("sysupd2", soap(p, Service::kCds, "GetSystemUpdateID", ""));
  std::cout << "UPD " << browse(p, "0", "BrowseMetadata").updateId << "\n";
}
