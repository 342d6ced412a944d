// Client profiles: which rule or profile a request's headers or address
// select, what a user's rule may say, and how long an address is
// remembered.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "clients/dmsClients.h"

namespace {

dmsClientRule rule(const std::string &text) {
  dmsClientRule read;
  std::string error;
  EXPECT_TRUE(dmsClientParseRule(text, read, error)) << text << ": " << error;
  return read;
}

dmsClientInfo from(const std::string &address, const std::string &userAgent, const std::string &avClientInfo = "") {
  return dmsClientInfo{address, userAgent, avClientInfo, "", 0};
}

TEST(Clients, TheFirstMatchingRuleOrProfileGivesTheFlags) {
  const struct {
    std::vector<std::string> rules;
    dmsClientInfo client;
    uint32_t flags;
  } cases[] = {
      // The profiles, each family's own headers, are replayed over HTTP in
      // the protocol tests; here letter case and the user's rules.
      {{}, from("10.0.0.1", "sec_hhp_tv/1.0"), DMS_QUIRK_CAPTION_HEADER},  // letter case ignored
      {{}, from("10.0.0.1", "Xbox/2.0.4548.0 UPnP/1.0 Xbox/2.0.4548.0"), DMS_QUIRK_CONTAINER_ID},
      // The user's rules go first, whatever they match.
      {{"ua=SEC_HHP : sort-title"}, from("10.0.0.1", "SEC_HHP_TV/1.0"), DMS_QUIRK_SORT_TITLE},
      {{"ip=10.0.0.0/8 :"}, from("10.9.9.9", "SEC_HHP_TV/1.0"), 0},
      {{"ip=10.0.0.0/8 : thumb-ci"}, from("11.0.0.1", "Panasonic MIL DLNA CP"), DMS_QUIRK_SORT_TITLE},
      {{"ip=192.168.1.7 : avi-video-avi, srt-x-subrip"}, from("192.168.1.7", ""),
       DMS_QUIRK_AVI_VIDEO_AVI | DMS_QUIRK_SRT_X_SUBRIP},
      {{"av=bravia : mkv-x-mkv"}, from("10.0.0.1", "", "BRAVIA KDL-40EX"), DMS_QUIRK_MKV_X_MKV},
  };
  for (const auto &each : cases) {
    std::vector<dmsClientRule> rules;
    for (const std::string &text : each.rules) rules.push_back(rule(text));
    dmsClients clients;
    clients.setRules(rules);
    const uint32_t flags = clients.recognise(each.client);
    EXPECT_EQ(flags & each.flags, each.flags) << each.client.userAgent;
    if (each.flags == 0) {
      EXPECT_EQ(flags, 0u) << each.client.userAgent;
    }
  }
}

TEST(Clients, RulesThatDoNotReadAreRefusedWithAReason) {
  for (const char *text : {"", "SEC_HHP : sort-title", "ua=SEC_HHP sort-title", "ua= : sort-title",
                           "ua=x : sort-title,nope", "os=Linux : sort-title", "ip=10.0.0.300 :", "ip=10.0.0.0/33 :",
                           "ip=10.0.0.0/ :", "ip=host.example :"}) {
    dmsClientRule read;
    std::string error;
    EXPECT_FALSE(dmsClientParseRule(text, read, error)) << text;
    EXPECT_FALSE(error.empty()) << text;
  }
  EXPECT_NE(dmsClientDescribe({rule("ua=My TV : sort-title")}).find("My TV"), std::string::npos);
}

TEST(Clients, AnAddressIsRememberedForAnHourUntilTheRulesChange) {
  dmsClients clients;
  const auto now = dmsClients::Clock::now();
  EXPECT_NE(clients.recognise(from("10.0.0.5", "SEC_HHP_TV/1.0"), now), 0u);
  const dmsClientInfo plain = from("10.0.0.5", "");
  EXPECT_NE(clients.recognise(plain, now + std::chrono::minutes(59)), 0u);
  EXPECT_EQ(clients.recognise(from("10.0.0.6", ""), now), 0u);  // another address
  EXPECT_EQ(clients.recognise(plain, now + std::chrono::minutes(61)), 0u);
  clients.recognise(from("10.0.0.5", "SEC_HHP_TV/1.0"), now);
  clients.setRules({});
  EXPECT_EQ(clients.recognise(plain, now), 0u);
  // Many addresses: the memory stays bounded and still takes the newest.
  for (int i = 0; i < 3000; ++i) {
    clients.recognise(from("10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250), "SEC_HHP"), now);
  }
  EXPECT_NE(clients.recognise(from("10.1.11.249", ""), now), 0u);
}

}  // namespace
