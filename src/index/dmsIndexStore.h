// The persistent index of a state folder: what the server knew of every
// listed folder and file at its last run (its object id, where it stands,
// its size and time, and the detection and tags the caller packed), the
// highest id ever handed out, and small facts players leave per object.
// It is a cache, never a risk:
//   * one SQLite file, <state folder>/index.db, in WAL mode, so a crash or a
//     power cut at any instant leaves a file that opens;
//   * a file that is not this index (another program's, random bytes), of
//     another version, truncated or failing SQLite's quick check is removed
//     with one trace line and made anew;
//   * a state folder that cannot be written (read-only, full, missing and
//     not creatable) gives no store (one trace line): the server runs as
//     without one; a write that fails later stops all writing (one trace
//     line) and the server goes on from memory.
// Nothing is ever written outside the state folder.
//
// Threads: reads run on the caller's thread; writes are queued and applied
// in batches, one transaction each, by the store's own thread at least
// every 500 ms, so that a change is listed before it is written.  One mutex
// orders the connection's use between the two.
#ifndef DMS_INDEX_DMSINDEXSTORE_H
#define DMS_INDEX_DMSINDEXSTORE_H

#include <condition_variable>
#include <functional>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct sqlite3;

class dmsIndexStore {
 public:
  // One folder or file as the index keeps it.  `parent` is the id of the
  // folder it stands in (0 for a shared folder, whose `name` is its path as
  // shared); `media` and `tags` are the caller's packed bytes.
  struct Row {
    uint32_t id = 0;
    uint32_t parent = 0;
    std::string name;
    uint8_t kind = 0;  // the caller's: folder or file
    int64_t size = 0;
    int64_t modified = 0;
    std::string media;
    std::string tags;
  };

  // Opens the index in `folder` (made when missing, one level), or makes a
  // new one; NULL when the folder cannot hold one (traced), and always in a
  // build without the index (dmsIndexAbsent.cpp), which touches nothing.
  // Never throws.
  static std::unique_ptr<dmsIndexStore> open(const std::string &folder);
  // Made only by open (the key is private).
  struct Key {
   private:
    Key() = default;
    friend class dmsIndexStore;
  };
  dmsIndexStore(Key, sqlite3 *db);
  ~dmsIndexStore();  // writes what is queued, then closes
  dmsIndexStore(const dmsIndexStore &) = delete;
  dmsIndexStore &operator=(const dmsIndexStore &) = delete;

  // The rows standing in folder `parent` (0: the shared folders), as last
  // written; empty when none or on a read failure.  May throw std::bad_alloc.
  std::vector<Row> children(uint32_t parent);
  // The highest id ever handed out (0 for a new index).
  uint32_t lastId();
  // When the run before this one opened the index (seconds since the epoch;
  // 0 for a new index): a file whose time is not before it may have changed
  // again within the second its row was written.
  int64_t previousStart() const { return previousStart_; }

  // Queued writes.  put adds or replaces the row of its id (a row of the
  // same parent and name goes); remove takes the rows of `ids` out, with
  // their facts.  May throw std::bad_alloc.
  void put(Row row);
  void remove(std::vector<uint32_t> ids);
  void setLastId(uint32_t id);
  // Rows made by `next` on the writer's thread, chunk by chunk, each chunk
  // in a transaction of its own, until it gives none: a whole list is
  // written without ever being queued whole.
  using Producer = std::function<void(std::vector<Row> &chunk)>;
  void produce(Producer next);
  // Takes out the rows whose folder is no longer there, and their facts.
  void sweepOrphans();
  // One fact of an object (a resume position, a play count): read from
  // what is written; queued like the rest.
  bool fact(uint32_t id, uint32_t key, int64_t &value);
  void setFact(uint32_t id, uint32_t key, int64_t value);
  // Every fact written, one call each (in no particular order).
  void facts(const std::function<void(uint32_t id, uint32_t key, int64_t value)> &each);
  // Waits until everything queued before the call is written (or writing
  // has stopped).
  void flush();
  // Whether writes still reach the file.
  bool writing() const;

 private:
  struct Op;
  void run();
  void applyQueue(std::vector<Op> &ops);
  void applyBatch(std::vector<Op> &batch);
  void enqueue(Op op);

  sqlite3 *db_;
  int64_t previousStart_ = 0;
  mutable std::mutex dbMutex_;  // the connection
  mutable std::mutex queueMutex_;  // the fields below
  std::condition_variable wake_;
  std::condition_variable done_;
  std::vector<Op> queue_;
  uint64_t queued_ = 0;   // ops ever queued
  uint64_t written_ = 0;  // ops ever taken by a batch
  bool stopping_ = false;
  bool failed_ = false;
  std::thread writer_;
};

#endif  // DMS_INDEX_DMSINDEXSTORE_H
