// The persistent index: opening (and discarding what is not a usable
// index), the reads, and the writer thread (see dmsIndexStore.h).
#include "index/dmsIndexStore.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <utility>

#include "util/dmsThreadName.h"
#include "util/dmsGuard.h"
#include "util/dmsMemory.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsIndexStore";

namespace {

constexpr int kApplicationId = 0x444D5331;  // "DMS1": this program's file
constexpr int kVersion = 1;
constexpr auto kBatchPeriod = std::chrono::milliseconds(500);
constexpr size_t kBatchSoon = 2000;  // queued ops that wake the writer early

constexpr char kSchema[] =
    "CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value INTEGER) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS entries(id INTEGER PRIMARY KEY, parent INTEGER NOT NULL, name BLOB NOT NULL,"
    " kind INTEGER NOT NULL, size INTEGER, modified INTEGER, media BLOB, tags BLOB);"
    "CREATE UNIQUE INDEX IF NOT EXISTS entries_place ON entries(parent, name);"
    "CREATE TABLE IF NOT EXISTS facts(id INTEGER, key INTEGER, value INTEGER, PRIMARY KEY(id, key)) WITHOUT ROWID;";

// A prepared statement, finalised at the end of its scope.
class Statement {
 public:
  Statement(sqlite3 *db, const char *sql) { sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr); }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement &) = delete;
  Statement &operator=(const Statement &) = delete;
  sqlite3_stmt *get() const { return statement_; }
  bool ok() const { return statement_ != nullptr; }

 private:
  sqlite3_stmt *statement_ = nullptr;
};

// The single integer a pragma or query answers; -1 when it fails.
int64_t integerOf(sqlite3 *db, const char *sql) {
  Statement query(db, sql);
  if (!query.ok() || sqlite3_step(query.get()) != SQLITE_ROW) return -1;
  return sqlite3_column_int64(query.get(), 0);
}

std::string textOf(sqlite3 *db, const char *sql) {
  Statement query(db, sql);
  if (!query.ok() || sqlite3_step(query.get()) != SQLITE_ROW) return {};
  const unsigned char *text = sqlite3_column_text(query.get(), 0);
  return text != nullptr ? reinterpret_cast<const char *>(text) : "";
}

std::string blobOf(sqlite3_stmt *statement, int column) {
  const void *bytes = sqlite3_column_blob(statement, column);
  return bytes != nullptr ? std::string(static_cast<const char *>(bytes), sqlite3_column_bytes(statement, column))
                          : std::string();
}

// Why the file at `db` is no usable index ("" when it is one, or new).
std::string whyUnusable(sqlite3 *db) {
  const int64_t application = integerOf(db, "PRAGMA application_id");
  const int64_t version = integerOf(db, "PRAGMA user_version");
  const int64_t tables = integerOf(db, "SELECT count(*) FROM sqlite_master");
  if (application < 0 || version < 0 || tables < 0) return "not a database";
  if (tables == 0 && application == 0) return "";  // new
  if (application != kApplicationId) return "another program's file";
  if (version != kVersion) return "version " + std::to_string(version) + ", not " + std::to_string(kVersion);
  if (textOf(db, "PRAGMA quick_check") != "ok") return "damaged";
  return "";
}

// Opens `path` and makes it a ready index: 0 and *out, or an SQLite code
// (with `why` set when the file is there but no usable index).
int openReady(const std::string &path, sqlite3 **out, std::string &why) {
  *out = nullptr;
  sqlite3 *db = nullptr;
  int result = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                               nullptr);
  if (result == SQLITE_OK) sqlite3_busy_timeout(db, 2000);
  if (result == SQLITE_OK && (why = whyUnusable(db)).empty()) {
    // A small page cache (256 KiB): the index is read a folder at a time and
    // written in batches; the server's memory matters more than its speed.
    const std::string setUp = "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA cache_size=-256;"
                              " PRAGMA application_id=" +
                              std::to_string(kApplicationId) + "; PRAGMA user_version=" + std::to_string(kVersion) +
                              ";" + kSchema;
    result = sqlite3_exec(db, setUp.c_str(), nullptr, nullptr, nullptr);
    if (result == SQLITE_OK && textOf(db, "PRAGMA journal_mode") != "wal") result = SQLITE_CANTOPEN;
  } else if (result == SQLITE_OK) {
    result = SQLITE_NOTADB;
  }
  if (result != SQLITE_OK) {
    sqlite3_close(db);
    return result;
  }
  *out = db;
  return SQLITE_OK;
}

void removeIndexFiles(const std::string &path) {
  for (const char *suffix : {"", "-wal", "-shm"}) ::unlink((path + suffix).c_str());
}

}  // namespace

// One queued write.
struct dmsIndexStore::Op {
  enum Kind { kPut, kRemove, kLastId, kFact, kProduce, kSweep } kind = kPut;
  Producer producer;          // kProduce
  Row row;                    // kPut
  std::vector<uint32_t> ids;  // kRemove
  uint32_t id = 0;            // kLastId, kFact
  uint32_t key = 0;           // kFact
  int64_t value = 0;          // kFact
};

std::unique_ptr<dmsIndexStore> dmsIndexStore::open(const std::string &folder) {
  return dmsGuard("dmsIndexStore::open", std::unique_ptr<dmsIndexStore>(), [&]() -> std::unique_ptr<dmsIndexStore> {
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
      DMS_TRACE(OSAL_TRACE_ERR, "State folder [%s] cannot be made (%s): running without an index\n", folder.c_str(),
                std::strerror(errno));
      return nullptr;
    }
    const std::string path = folder + "/index.db";
    sqlite3 *db = nullptr;
    std::string why;
    int result = openReady(path, &db, why);
    if (result != SQLITE_OK && !why.empty()) {
      DMS_TRACE(OSAL_TRACE_WARN, "Index [%s] discarded (%s): made anew\n", path.c_str(), why.c_str());
      removeIndexFiles(path);
      result = openReady(path, &db, why);
    }
    if (result != SQLITE_OK) {
      DMS_TRACE(OSAL_TRACE_ERR, "Index [%s] cannot be used (%s): running without an index\n", path.c_str(),
                sqlite3_errstr(result));
      return nullptr;
    }
    std::unique_ptr<sqlite3, int (*)(sqlite3 *)> owned(db, sqlite3_close);  // until the store holds it
    auto store = std::make_unique<dmsIndexStore>(Key(), db);
    owned.release();
    return store;
  });
}

dmsIndexStore::dmsIndexStore(Key, sqlite3 *db) : db_(db) {
  previousStart_ = std::max<int64_t>(integerOf(db_, "SELECT value FROM meta WHERE key = 'started'"), 0);
  const std::string note =
      "INSERT OR REPLACE INTO meta(key, value) VALUES('started', " + std::to_string(std::time(nullptr)) + ")";
  sqlite3_exec(db_, note.c_str(), nullptr, nullptr, nullptr);
  writer_ = std::thread([this] { run(); });
}

dmsIndexStore::~dmsIndexStore() {
  {
    std::lock_guard queueing(queueMutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  writer_.join();
  sqlite3_close(db_);
}

std::vector<dmsIndexStore::Row> dmsIndexStore::children(uint32_t parent) {
  std::vector<Row> rows;
  std::lock_guard using_(dbMutex_);
  Statement query(db_, "SELECT id, name, kind, size, modified, media, tags FROM entries WHERE parent = ?");
  if (!query.ok()) return rows;
  sqlite3_bind_int64(query.get(), 1, parent);
  while (sqlite3_step(query.get()) == SQLITE_ROW) {
    Row &row = rows.emplace_back();
    row.id = static_cast<uint32_t>(sqlite3_column_int64(query.get(), 0));
    row.parent = parent;
    row.name = blobOf(query.get(), 1);
    row.kind = static_cast<uint8_t>(sqlite3_column_int(query.get(), 2));
    row.size = sqlite3_column_int64(query.get(), 3);
    row.modified = sqlite3_column_int64(query.get(), 4);
    row.media = blobOf(query.get(), 5);
    row.tags = blobOf(query.get(), 6);
  }
  return rows;
}

uint32_t dmsIndexStore::lastId() {
  std::lock_guard using_(dbMutex_);
  const int64_t last = integerOf(db_, "SELECT value FROM meta WHERE key = 'last_id'");
  return last > 0 && last <= UINT32_MAX ? static_cast<uint32_t>(last) : 0;
}

bool dmsIndexStore::fact(uint32_t id, uint32_t key, int64_t &value) {
  std::lock_guard using_(dbMutex_);
  Statement query(db_, "SELECT value FROM facts WHERE id = ? AND key = ?");
  if (!query.ok()) return false;
  sqlite3_bind_int64(query.get(), 1, id);
  sqlite3_bind_int64(query.get(), 2, key);
  if (sqlite3_step(query.get()) != SQLITE_ROW) return false;
  value = sqlite3_column_int64(query.get(), 0);
  return true;
}

void dmsIndexStore::facts(const std::function<void(uint32_t id, uint32_t key, int64_t value)> &each) {
  std::lock_guard using_(dbMutex_);
  Statement query(db_, "SELECT id, key, value FROM facts");
  if (!query.ok()) return;
  while (sqlite3_step(query.get()) == SQLITE_ROW) {
    each(static_cast<uint32_t>(sqlite3_column_int64(query.get(), 0)),
         static_cast<uint32_t>(sqlite3_column_int64(query.get(), 1)), sqlite3_column_int64(query.get(), 2));
  }
}

void dmsIndexStore::enqueue(Op op) {
  bool soon = false;
  {
    std::lock_guard queueing(queueMutex_);
    if (failed_) return;
    queue_.push_back(std::move(op));
    ++queued_;
    soon = queue_.size() >= kBatchSoon;
  }
  if (soon) wake_.notify_one();
}

void dmsIndexStore::put(Row row) {
  Op op;
  op.kind = Op::kPut;
  op.row = std::move(row);
  enqueue(std::move(op));
}

void dmsIndexStore::remove(std::vector<uint32_t> ids) {
  Op op;
  op.kind = Op::kRemove;
  op.ids = std::move(ids);
  enqueue(std::move(op));
}

void dmsIndexStore::setLastId(uint32_t id) {
  Op op;
  op.kind = Op::kLastId;
  op.id = id;
  enqueue(std::move(op));
}

void dmsIndexStore::setFact(uint32_t id, uint32_t key, int64_t value) {
  Op op;
  op.kind = Op::kFact;
  op.id = id;
  op.key = key;
  op.value = value;
  enqueue(std::move(op));
}

void dmsIndexStore::produce(Producer next) {
  Op op;
  op.kind = Op::kProduce;
  op.producer = std::move(next);
  enqueue(std::move(op));
}

void dmsIndexStore::sweepOrphans() {
  Op op;
  op.kind = Op::kSweep;
  enqueue(std::move(op));
}

void dmsIndexStore::flush() {
  std::unique_lock queueing(queueMutex_);
  const uint64_t target = queued_;
  wake_.notify_one();
  done_.wait(queueing, [&] { return failed_ || written_ >= target; });
}

bool dmsIndexStore::writing() const {
  std::lock_guard queueing(queueMutex_);
  return !failed_;
}

// The writer: every batch period (sooner when much is queued, at flush and
// at the end) it takes the queue and applies it in one transaction.
void dmsIndexStore::run() {
  dmsNameThread("dms-index");
  std::unique_lock queueing(queueMutex_);
  for (;;) {
    wake_.wait_for(queueing, kBatchPeriod, [this] { return stopping_ || queue_.size() >= kBatchSoon || written_ < queued_; });
    std::vector<Op> batch;
    batch.swap(queue_);
    const uint64_t taken = queued_;
    const bool last = stopping_;
    if (!batch.empty() && !failed_) {
      queueing.unlock();
      dmsGuardVoid("dmsIndexStore writer", [&] { applyQueue(batch); });
      queueing.lock();
    }
    written_ = taken;
    done_.notify_all();
    if (last && queue_.empty()) return;
  }
}

// Applies what was queued in order: the plain writes in one transaction; a
// producer's rows chunk by chunk, a transaction each, so that the
// connection is let go between chunks.
void dmsIndexStore::applyQueue(std::vector<Op> &ops) {
  std::vector<Op> plain;
  const auto stopped = [this] {
    std::lock_guard queueing(queueMutex_);
    return failed_;
  };
  for (Op &op : ops) {
    if (op.kind != Op::kProduce) {
      plain.push_back(std::move(op));
      continue;
    }
    if (!plain.empty()) applyBatch(plain);
    plain.clear();
    std::vector<Row> chunk;
    while (!stopped()) {
      chunk.clear();
      op.producer(chunk);
      if (chunk.empty()) break;
      std::vector<Op> puts(chunk.size());
      for (size_t i = 0; i < chunk.size(); ++i) puts[i].row = std::move(chunk[i]);
      applyBatch(puts);
    }
    // A producer writes a whole list's rows: what it and its rows held goes
    // back once it is done.
    op.producer = nullptr;
    std::vector<Row>().swap(chunk);
    dmsGiveBackMemory();
  }
  if (!plain.empty() && !stopped()) applyBatch(plain);
}

// Applies one batch in one transaction.  A failure (a full disk, a folder
// made read-only) rolls the batch back and stops all writing.
void dmsIndexStore::applyBatch(std::vector<Op> &batch) {
  std::lock_guard using_(dbMutex_);
  Statement put(db_, "INSERT OR REPLACE INTO entries(id, parent, name, kind, size, modified, media, tags)"
                     " VALUES(?, ?, ?, ?, ?, ?, ?, ?)");
  Statement removeEntry(db_, "DELETE FROM entries WHERE id = ?");
  Statement removeFacts(db_, "DELETE FROM facts WHERE id = ?");
  Statement lastId(db_, "INSERT OR REPLACE INTO meta(key, value) VALUES('last_id', ?)");
  Statement fact(db_, "INSERT OR REPLACE INTO facts(id, key, value) VALUES(?, ?, ?)");
  bool ok = put.ok() && removeEntry.ok() && removeFacts.ok() && lastId.ok() && fact.ok() &&
            sqlite3_exec(db_, "BEGIN", nullptr, nullptr, nullptr) == SQLITE_OK;
  const auto step = [&ok](sqlite3_stmt *statement) {
    if (ok) ok = sqlite3_step(statement) == SQLITE_DONE;
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
  };
  for (const Op &op : batch) {
    switch (op.kind) {
      case Op::kPut: {
        const Row &row = op.row;
        sqlite3_bind_int64(put.get(), 1, row.id);
        sqlite3_bind_int64(put.get(), 2, row.parent);
        sqlite3_bind_blob(put.get(), 3, row.name.data(), static_cast<int>(row.name.size()), SQLITE_STATIC);
        sqlite3_bind_int(put.get(), 4, row.kind);
        sqlite3_bind_int64(put.get(), 5, row.size);
        sqlite3_bind_int64(put.get(), 6, row.modified);
        sqlite3_bind_blob(put.get(), 7, row.media.data(), static_cast<int>(row.media.size()), SQLITE_STATIC);
        sqlite3_bind_blob(put.get(), 8, row.tags.data(), static_cast<int>(row.tags.size()), SQLITE_STATIC);
        step(put.get());
        break;
      }
      case Op::kRemove:
        for (uint32_t id : op.ids) {
          sqlite3_bind_int64(removeEntry.get(), 1, id);
          step(removeEntry.get());
          sqlite3_bind_int64(removeFacts.get(), 1, id);
          step(removeFacts.get());
        }
        break;
      case Op::kLastId:
        sqlite3_bind_int64(lastId.get(), 1, op.id);
        step(lastId.get());
        break;
      case Op::kSweep:
        // One level of orphans a round, until none is left: a folder gone
        // with a whole tree below it takes as many rounds as it was deep.
        while (ok) {
          ok = sqlite3_exec(db_, "DELETE FROM entries WHERE parent != 0 AND parent NOT IN (SELECT id FROM entries)",
                            nullptr, nullptr, nullptr) == SQLITE_OK;
          if (sqlite3_changes(db_) == 0) break;
        }
        ok = ok && sqlite3_exec(db_, "DELETE FROM facts WHERE id NOT IN (SELECT id FROM entries)", nullptr, nullptr,
                                nullptr) == SQLITE_OK;
        break;
      case Op::kProduce:
        break;  // taken apart by applyBatch's caller
      case Op::kFact:
        sqlite3_bind_int64(fact.get(), 1, op.id);
        sqlite3_bind_int64(fact.get(), 2, op.key);
        sqlite3_bind_int64(fact.get(), 3, op.value);
        step(fact.get());
        break;
    }
    if (!ok) break;
  }
  if (ok && sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK) return;
  const std::string why = sqlite3_errmsg(db_);
  sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  DMS_TRACE(OSAL_TRACE_ERR, "Index write failed (%s): the index is no longer written\n", why.c_str());
  std::lock_guard queueing(queueMutex_);
  failed_ = true;
  queue_.clear();
}
