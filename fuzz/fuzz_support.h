// What the fuzzers over the whole library share: the symbol the library
// expects of its host, a quiet trace, and the three services over a small
// library made once of copies of the media fixtures, with the views on.
#ifndef DMS_FUZZ_FUZZ_SUPPORT_H
#define DMS_FUZZ_FUZZ_SUPPORT_H

#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "content/dmsClmApi.h"
#include "services/dmsCdsMgrApi.h"
#include "services/dmsCmsApi.h"
#include "services/dmsDeviceEventMgr.h"
#include "services/dmsMsMrsApi.h"
#include "util/osal_trace.h"
#include "views/dmsViews.h"

extern "C" int KVSUPPORT_XR_VAL = 0;

struct FuzzServices {
  dmsDevEventMgr *mgr = nullptr;
  dmsContentListInfo *list = nullptr;
  dmsCdsMgrHandle *cds = nullptr;
  dmsCmsInstance *cms = nullptr;
  dmsMsMrsInstance *mrs = nullptr;
  dmsViews *views = nullptr;
};

// The services' event manager, over a folder "Library" in a scratch folder
// holding `files`: each a path under the library and the fixture (under
// tests/fixtures/media) copied there.  Made at the first call, with its
// files; the trace is off from then on.
inline dmsDevEventMgr *fuzzServices(std::initializer_list<std::pair<const char *, const char *>> files = {}) {
  static FuzzServices made = [&files] {
    namespace fs = std::filesystem;
    ::setenv("DMS_TRACE_LEVEL", "0x0000", 1);
    osal_traceInitialize();
    char pattern[] = "/tmp/dms_fuzz_XXXXXX";
    if (::mkdtemp(pattern) == nullptr) std::abort();
    const fs::path fixtures = fs::path(__FILE__).parent_path() / "../tests/fixtures/media";
    std::string root = std::string(pattern) + "/Library";
    for (const auto &[to, from] : files) {
      fs::create_directories((fs::path(root) / to).parent_path());
      fs::copy_file(fixtures / from, fs::path(root) / to);  // a missing fixture throws: the run stops
    }
    FuzzServices s;
    char *paths[] = {root.data()};
    dmsClmCreateContentList(&s.list, paths, 1, 100);
    dmsDevEventMgrInit(&s.mgr, -1, "00000000-0000-0000-0000-000000000000");
    dmsCdsMgrInit(&s.cds, s.mgr, s.list, "127.0.0.1", 49152);
    s.views = std::make_unique<dmsViews>(s.list).release();  // lives as long as the process
    {
      std::lock_guard changing(s.list->changeMutex);
      s.views->rebuild();
    }
    s.cds->views.store(s.views);
    dmsCmsInit(&s.cms, s.mgr);
    dmsMsMrsInit(&s.mrs, s.mgr);
    return s;
  }();
  return made.mgr;
}

#endif  // DMS_FUZZ_FUZZ_SUPPORT_H
