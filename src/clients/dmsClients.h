// Client profiles: which family of player sent a request, and the quirk
// flags its answers need.  Real players differ (a Samsung TV wants its
// subtitle header, an Xbox 360 its own container ids, a Panasonic sends a
// sort order it cannot take back); one table of flags, one row per flag with
// why, and one table of profiles, one row per family: what recognises it and
// the flags it gets.  A client nothing recognises gets no flag: the answers
// every player gets.
//
// Recognition.  A request is matched against the user's rules first (from
// the configuration, in their order), then the built-in profiles; the first
// row that matches gives the flags.  A row matches a substring of
// User-Agent, of X-AV-Client-Info or of FriendlyName.DLNA.ORG (letter case
// ignored), or the client's IPv4 address or prefix.  What a request's
// headers recognise is remembered by address for an hour, so that the
// requests of the same TV that carry no telling header (its player's media
// requests, some SOAP stacks) get the same answers.
//
// Threads: any thread may call.  The rules are guarded by a shared mutex
// (replaced whole by setRules), the memory of addresses by a mutex of its
// own; neither is held while the other is taken.
#ifndef DMS_CLIENTS_DMSCLIENTS_H
#define DMS_CLIENTS_DMSCLIENTS_H

#include <chrono>
#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "services/dmsClientInfo.h"

// The quirk flags, one bit each.  Their names and reasons: dmsQuirkTable.
enum dmsQuirk : uint32_t {
  DMS_QUIRK_FEATURE_LIST = 1u << 0,
  DMS_QUIRK_CAPTION_HEADER = 1u << 1,
  DMS_QUIRK_SEC_DIDL = 1u << 2,
  DMS_QUIRK_MKV_X_MKV = 1u << 3,
  DMS_QUIRK_BOOKMARK_MS = 1u << 4,
  DMS_QUIRK_NO_PN_MKV_MP4 = 1u << 5,
  DMS_QUIRK_AVI_VIDEO_AVI = 1u << 6,
  DMS_QUIRK_SRT_X_SUBRIP = 1u << 7,
  DMS_QUIRK_SORT_TITLE = 1u << 8,
  DMS_QUIRK_THUMB_CI = 1u << 9,
  DMS_QUIRK_CONTAINER_ID = 1u << 10,
  DMS_QUIRK_XBOX_CONTAINERS = 1u << 11,
  DMS_QUIRK_STORAGE_FOLDERS = 1u << 12,
  DMS_QUIRK_SORT_DROP_UNKNOWN = 1u << 13,
  DMS_QUIRK_SEARCH_COUNT_ALL = 1u << 14,
  DMS_QUIRK_SONY_PN = 1u << 15,
};

struct dmsQuirkRow {
  const char *name;  // as written in a rule: "caption-header"
  uint32_t bit;
  const char *why;   // what the player does that needs it
};
std::span<const dmsQuirkRow> dmsQuirkTable();

// What a rule matches.
enum class dmsClientField : uint8_t { kUserAgent, kAvClientInfo, kFriendlyName, kAddress };

struct dmsClientRule {
  std::string name;  // the family ("Samsung TV"), or the rule's text for a user's
  dmsClientField field = dmsClientField::kUserAgent;
  std::string text;         // the substring; for kAddress the prefix as written
  uint32_t address = 0;     // kAddress: the network, host order
  uint32_t mask = 0;        // kAddress: the prefix's mask
  uint32_t flags = 0;
};

// Reads one user rule, "MATCH : FLAG,FLAG,...", where MATCH is "ua=TEXT",
// "av=TEXT", "name=TEXT" or "ip=A.B.C.D[/BITS]" and the flags are names of
// the flag table (none: the client gets no flag).  false with `error` when
// it does not read.  May throw std::bad_alloc.
bool dmsClientParseRule(const std::string &text, dmsClientRule &rule, std::string &error);

// The profile table with `user` rules before it, then the flag table, as
// lines of text for a person.  May throw std::bad_alloc.
std::string dmsClientDescribe(const std::vector<dmsClientRule> &user);

class dmsClients {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::hours kRemembered{1};
  static constexpr size_t kMostRemembered = 1024;  // addresses

  // Replaces the user's rules.  May throw std::bad_alloc.
  void setRules(std::vector<dmsClientRule> rules);
  // The flags of the client that sent `client`'s request, remembering what
  // its headers told.  Never throws (no flag when memory runs out).
  uint32_t recognise(const dmsClientInfo &client, Clock::time_point now = Clock::now());

 private:
  struct Remembered {
    uint32_t flags;
    Clock::time_point until;
  };
  // The first matching row of the user's rules and the built-in table.
  enum class Match { kNone, kHeaders, kAddress };
  Match match(const dmsClientInfo &client, uint32_t &flags) const;
  void remember(const std::string &address, uint32_t flags, Clock::time_point now);

  mutable std::shared_mutex rulesMutex_;  // user_
  std::vector<dmsClientRule> user_;
  std::mutex memoryMutex_;  // memory_
  std::unordered_map<std::string, Remembered> memory_;
};

#endif  // DMS_CLIENTS_DMSCLIENTS_H
