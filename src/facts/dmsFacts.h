// What players leave behind per object: the resume position, how often it
// was played and when last.  Kept in memory, and in the persistent index
// when the server has one (written through it, read back at create), so a
// resume point set on one TV shows on another and survives a restart.
//
// Facts belong to the listed file: a view's reference passes its file's id.
// The facts of a file that goes are dropped with it (forget, and the index
// drops them with the file's row).
//
// Threads: any thread; one mutex guards the table.  The store is called
// under it (it only queues its writes).
#ifndef DMS_FACTS_DMSFACTS_H
#define DMS_FACTS_DMSFACTS_H

#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <vector>

class dmsIndexStore;

struct dmsFact {
  int64_t positionMs = 0;  // where to resume; 0: from the start
  int64_t playCount = 0;
  int64_t lastPlayed = 0;  // seconds since the epoch; 0: never
};

class dmsFacts {
 public:
  // A play counts again only this long after the last one counted: a player
  // opens a file several times to start it.
  static constexpr int64_t kReplaySeconds = 300;

  // `store` (borrowed, outlives this; NULL: memory only) gives the facts of
  // earlier runs.  May throw std::bad_alloc.
  explicit dmsFacts(dmsIndexStore *store);

  // The facts of file `id`; false (and `out` all 0) when it has none.
  bool get(uint32_t id, dmsFact &out) const;
  // Sets the resume position of file `id`.  Never throws (a fact lost to a
  // lack of memory is not worth a failed request).
  void setPosition(uint32_t id, int64_t positionMs);
  // Counts a play of file `id` that starts at `now`, unless the last one
  // counted was within kReplaySeconds.  Never throws.
  void countPlay(uint32_t id, int64_t now);
  // Drops the facts of files that went.
  void forget(const std::vector<uint32_t> &ids);

 private:
  void write(uint32_t id, uint32_t key, int64_t value);

  dmsIndexStore *store_;
  mutable std::mutex mutex_;  // facts_
  std::unordered_map<uint32_t, dmsFact> facts_;
};

#endif  // DMS_FACTS_DMSFACTS_H
