// The persistent index in a build without SQLite: no store ever opens, so
// a state folder named by the host is accepted and left untouched, and the
// server runs as with none (ids from 1001 in scan order, every file read at
// every start).  Resume positions and play counts stay in memory
// (facts/dmsFacts.h).  No keeper is ever made; its calls and the store's
// are defined only because the code around them names them.
#include "index/dmsIndexKeeper.h"
#include "index/dmsIndexStore.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsIndexStore";

struct dmsIndexStore::Op {};

std::unique_ptr<dmsIndexStore> dmsIndexStore::open(const std::string &folder) {
  DMS_TRACE(OSAL_TRACE_INFO, "This build keeps no index; nothing is written in [%s]\n", folder.c_str());
  return nullptr;
}

dmsIndexStore::~dmsIndexStore() = default;

uint32_t dmsIndexStore::lastId() { return 0; }

void dmsIndexStore::facts(const std::function<void(uint32_t, uint32_t, int64_t)> &) {}

void dmsIndexStore::setFact(uint32_t, uint32_t, int64_t) {}

void dmsIndexKeeper::folder(uint32_t, dmsTagPool &, std::unordered_map<std::string, Known> &) {}

void dmsIndexKeeper::writeAll(const dmsContentListInfo &) {}

void dmsIndexKeeper::follow(const dmsContentListInfo &, const dmsClmChangeSet &) {}
