#include "clients/dmsClients.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <string_view>

namespace {

constexpr dmsQuirkRow kQuirks[] = {
    {"feature-list", DMS_QUIRK_FEATURE_LIST,
     "asks X_GetFeatureList for the music, picture and video containers and shows nothing without them"},
    {"caption-header", DMS_QUIRK_CAPTION_HEADER,
     "sends getCaptionInfo.sec: 1 with a video request and loads subtitles only from the CaptionInfo.sec answer"},
    {"sec-didl", DMS_QUIRK_SEC_DIDL,
     "reads subtitles from sec:CaptionInfoEx and its resume point from sec:dcmInfo in the item"},
    {"mkv-x-mkv", DMS_QUIRK_MKV_X_MKV, "plays Matroska only when it is typed video/x-mkv"},
    {"bookmark-ms", DMS_QUIRK_BOOKMARK_MS, "sends X_SetBookmark's PosSecond in milliseconds"},
    {"no-pn-mkv-mp4", DMS_QUIRK_NO_PN_MKV_MP4,
     "refuses Matroska and MP4 whose resource names a DLNA.ORG_PN profile it does not list"},
    {"avi-video-avi", DMS_QUIRK_AVI_VIDEO_AVI, "plays AVI only when it is typed video/avi"},
    {"srt-x-subrip", DMS_QUIRK_SRT_X_SUBRIP, "takes SubRip subtitles only as application/x-subrip"},
    {"sort-title", DMS_QUIRK_SORT_TITLE,
     "sends a fixed SortCriteria of keys it cannot have meant; answered in title order instead"},
    {"thumb-ci", DMS_QUIRK_THUMB_CI,
     "drops a thumbnail whose DLNA.ORG_CI differs from the main resource's"},
    {"container-id", DMS_QUIRK_CONTAINER_ID, "names the object of Browse in ContainerID instead of ObjectID"},
    {"xbox-containers", DMS_QUIRK_XBOX_CONTAINERS,
     "browses and searches fixed container ids (4 all music, 5 genres, 6 artists, 7 albums, F playlists, "
     "14-16 music, video and picture folders)"},
    {"storage-folders", DMS_QUIRK_STORAGE_FOLDERS, "lists only containers of class object.container.storageFolder"},
    {"sort-drop-unknown", DMS_QUIRK_SORT_DROP_UNKNOWN,
     "sends SortCriteria keys of its own (+microsoft:sourceURL); they are dropped, not faulted"},
    {"search-count-all", DMS_QUIRK_SEARCH_COUNT_ALL,
     "asks Search for fewer objects than it then expects; its RequestedCount is taken as 0 (all)"},
    {"sony-pn", DMS_QUIRK_SONY_PN,
     "plays AVC with AC-3 in MPEG-TS only when it is named by its DLNA profile (AVC_TS_HD_50_AC3)"},
};

constexpr uint32_t kSamsung = DMS_QUIRK_FEATURE_LIST | DMS_QUIRK_CAPTION_HEADER | DMS_QUIRK_SEC_DIDL |
                              DMS_QUIRK_MKV_X_MKV;
constexpr uint32_t kLg = DMS_QUIRK_NO_PN_MKV_MP4 | DMS_QUIRK_AVI_VIDEO_AVI;
constexpr uint32_t kXbox360 = DMS_QUIRK_CONTAINER_ID | DMS_QUIRK_XBOX_CONTAINERS | DMS_QUIRK_STORAGE_FOLDERS |
                              DMS_QUIRK_SORT_DROP_UNKNOWN | DMS_QUIRK_AVI_VIDEO_AVI;

struct ProfileRow {
  const char *name;
  dmsClientField field;
  const char *text;
  uint32_t flags;
};

// First match wins: the narrower rows of a family come before its own.
constexpr ProfileRow kProfiles[] = {
    {"Samsung TV, Q series", dmsClientField::kUserAgent, "[TV] Samsung Q", kSamsung | DMS_QUIRK_BOOKMARK_MS},
    {"Samsung TV", dmsClientField::kUserAgent, "SEC_HHP", kSamsung},
    {"Samsung TV (AllShare)", dmsClientField::kUserAgent, "SamsungWiselinkPro", kSamsung},
    {"Samsung TV (Tizen)", dmsClientField::kUserAgent, "Tizen", kSamsung},
    {"LG TV", dmsClientField::kUserAgent, "LGE_DLNA_SDK", kLg},
    {"LG TV (webOS)", dmsClientField::kUserAgent, "Web0S", kLg},
    {"Sony BRAVIA", dmsClientField::kAvClientInfo, "BRAVIA", DMS_QUIRK_SONY_PN},
    {"Sony PlayStation", dmsClientField::kAvClientInfo, "PLAYSTATION", DMS_QUIRK_SONY_PN},
    {"Panasonic TV", dmsClientField::kUserAgent, "Panasonic MIL DLNA CP", DMS_QUIRK_SORT_TITLE | DMS_QUIRK_THUMB_CI},
    {"Xbox 360", dmsClientField::kUserAgent, "Xbox", kXbox360},
    {"Windows Media Player 12", dmsClientField::kUserAgent, "Windows-Media-Player/12", DMS_QUIRK_SEARCH_COUNT_ALL},
};

constexpr const char *kFieldNames[] = {"ua", "av", "name", "ip"};

bool containsIgnoringCase(std::string_view text, std::string_view wanted) {
  if (wanted.empty()) return false;
  auto lower = [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); };
  return std::search(text.begin(), text.end(), wanted.begin(), wanted.end(),
                     [&](char a, char b) { return lower(a) == lower(b); }) != text.end();
}

const std::string &fieldOf(const dmsClientInfo &client, dmsClientField field) {
  switch (field) {
    case dmsClientField::kAvClientInfo: return client.avClientInfo;
    case dmsClientField::kFriendlyName: return client.friendlyName;
    default: return client.userAgent;
  }
}

bool addressMatches(const dmsClientRule &rule, const std::string &address) {
  in_addr parsed{};
  if (::inet_pton(AF_INET, address.c_str(), &parsed) != 1) return false;
  return (ntohl(parsed.s_addr) & rule.mask) == rule.address;
}

bool ruleMatches(const dmsClientRule &rule, const dmsClientInfo &client) {
  if (rule.field == dmsClientField::kAddress) return addressMatches(rule, client.address);
  return containsIgnoringCase(fieldOf(client, rule.field), rule.text);
}

std::string_view trim(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool parseAddress(std::string_view text, dmsClientRule &rule) {
  const size_t slash = text.find('/');
  int bits = 32;
  if (slash != std::string_view::npos) {
    const std::string_view digits = text.substr(slash + 1);
    if (digits.empty() || digits.size() > 2 || digits.find_first_not_of("0123456789") != std::string_view::npos) {
      return false;
    }
    bits = std::stoi(std::string(digits));
    if (bits > 32) return false;
  }
  in_addr parsed{};
  if (::inet_pton(AF_INET, std::string(text.substr(0, slash)).c_str(), &parsed) != 1) return false;
  rule.mask = bits == 0 ? 0 : ~uint32_t{0} << (32 - bits);
  rule.address = ntohl(parsed.s_addr) & rule.mask;
  return true;
}

bool parseFlags(std::string_view text, uint32_t &flags, std::string &error) {
  flags = 0;
  while (!text.empty()) {
    const size_t comma = text.find(',');
    const std::string_view name = trim(text.substr(0, comma));
    text = comma == std::string_view::npos ? std::string_view{} : text.substr(comma + 1);
    if (name.empty()) continue;
    const auto row = std::find_if(std::begin(kQuirks), std::end(kQuirks),
                                  [&](const dmsQuirkRow &quirk) { return name == quirk.name; });
    if (row == std::end(kQuirks)) {
      error = "unknown client flag \"" + std::string(name) + "\"";
      return false;
    }
    flags |= row->bit;
  }
  return true;
}

std::string flagNames(uint32_t flags) {
  std::string names;
  for (const dmsQuirkRow &quirk : kQuirks) {
    if ((flags & quirk.bit) == 0) continue;
    if (!names.empty()) names += ',';
    names += quirk.name;
  }
  return names.empty() ? "(none)" : names;
}

}  // namespace

std::span<const dmsQuirkRow> dmsQuirkTable() { return kQuirks; }

bool dmsClientParseRule(const std::string &text, dmsClientRule &rule, std::string &error) {
  const size_t colon = text.rfind(':');
  const size_t equals = text.find('=');
  if (colon == std::string::npos || equals == std::string::npos || equals > colon) {
    error = "expected \"ua=TEXT : FLAG,...\" (or av=, name=, ip=)";
    return false;
  }
  const std::string_view kind = trim(std::string_view(text).substr(0, equals));
  const std::string_view match = trim(std::string_view(text).substr(equals + 1, colon - equals - 1));
  rule = dmsClientRule{};
  rule.name = std::string(trim(text));
  const auto field = std::find(std::begin(kFieldNames), std::end(kFieldNames), kind);
  if (field == std::end(kFieldNames) || match.empty()) {
    error = "a client is matched by ua=, av=, name= or ip= and a text";
    return false;
  }
  rule.field = static_cast<dmsClientField>(field - std::begin(kFieldNames));
  rule.text = std::string(match);
  if (rule.field == dmsClientField::kAddress && !parseAddress(match, rule)) {
    error = "bad address \"" + std::string(match) + "\" (A.B.C.D or A.B.C.D/BITS)";
    return false;
  }
  return parseFlags(std::string_view(text).substr(colon + 1), rule.flags, error);
}

std::string dmsClientDescribe(const std::vector<dmsClientRule> &user) {
  std::string out = "Clients, first match wins:\n";
  const auto line = [&](const std::string &name, dmsClientField field, const std::string &text, uint32_t flags) {
    out += "  " + name + "\n      " + kFieldNames[static_cast<size_t>(field)] + "=" + text + " : " +
           flagNames(flags) + "\n";
  };
  for (const dmsClientRule &rule : user) line("(a rule of the configuration)", rule.field, rule.text, rule.flags);
  for (const ProfileRow &row : kProfiles) line(row.name, row.field, row.text, row.flags);
  out += "  any other client\n      (no flag)\nFlags:\n";
  for (const dmsQuirkRow &quirk : kQuirks) out += "  " + std::string(quirk.name) + ": the player " + quirk.why + "\n";
  return out;
}

void dmsClients::setRules(std::vector<dmsClientRule> rules) {
  {
    std::unique_lock replacing(rulesMutex_);
    user_.swap(rules);
  }
  std::lock_guard forgetting(memoryMutex_);
  memory_.clear();  // what the old rules told no longer holds
}

dmsClients::Match dmsClients::match(const dmsClientInfo &client, uint32_t &flags) const {
  std::shared_lock reading(rulesMutex_);
  for (const dmsClientRule &rule : user_) {
    if (!ruleMatches(rule, client)) continue;
    flags = rule.flags;
    return rule.field == dmsClientField::kAddress ? Match::kAddress : Match::kHeaders;
  }
  for (const ProfileRow &row : kProfiles) {
    if (!containsIgnoringCase(fieldOf(client, row.field), row.text)) continue;
    flags = row.flags;
    return Match::kHeaders;
  }
  return Match::kNone;
}

void dmsClients::remember(const std::string &address, uint32_t flags, Clock::time_point now) {
  std::lock_guard remembering(memoryMutex_);
  if (memory_.size() >= kMostRemembered && memory_.find(address) == memory_.end()) {
    std::erase_if(memory_, [&](const auto &known) { return known.second.until <= now; });
    if (memory_.size() >= kMostRemembered) memory_.erase(memory_.begin());  // room for the newest
  }
  memory_[address] = Remembered{flags, now + kRemembered};
}

uint32_t dmsClients::recognise(const dmsClientInfo &client, Clock::time_point now) {
  try {
    uint32_t flags = 0;
    const Match found = match(client, flags);
    if (found == Match::kHeaders && !client.address.empty()) remember(client.address, flags, now);
    if (found != Match::kNone) return flags;
    std::lock_guard recalling(memoryMutex_);
    const auto known = memory_.find(client.address);
    if (known == memory_.end()) return 0;
    if (known->second.until > now) return known->second.flags;
    memory_.erase(known);
    return 0;
  } catch (...) {
    return 0;  // out of memory: the answers every player gets
  }
}
