// ContentDirectory Search: the request's criteria, and the walk below the
// requested container that tests each object and writes one page of the
// matches.
#include "services/dmsCdsMgrSearch.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "dlna_dms.h"
#include "services/dmsCdsObjects.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsCdsMgrSearch";

namespace {

// The properties the test reads: the item as a "*" Filter builds it.
constexpr uint8_t kEveryProperty[DMS_CDS_FILTER_COUNT] = {0};

const char *textOrNull(const char *text) { return text != nullptr && text[0] != '\0' ? text : nullptr; }

int64_t positiveOrAbsent(int64_t value) { return value > 0 ? value : DMS_CDS_SEARCH_ABSENT; }

}  // namespace

dmsCdsSearchSubject dmsCdsItemSubject(const dlnaUtilDidlItem &item) {
  dmsCdsSearchSubject subject;
  subject.title = item.title;
  subject.upnpClass = item.upnpClass;
  subject.creator = item.creator;
  subject.artist = item.artist;
  subject.album = item.album;
  subject.genre = item.genre;
  subject.date = textOrNull(item.date);
  subject.protocolInfo = textOrNull(item.protocolInfo);
  subject.id = item.id;
  subject.parentId = item.parentID;
  if (item.refID > 0) subject.refId = item.refID;
  subject.track = positiveOrAbsent(item.originalTrackNumber);
  subject.size = positiveOrAbsent(item.size);
  subject.duration = positiveOrAbsent(item.duration);
  return subject;
}

dmsCdsSearchSubject dmsCdsContainerSubject(const dlnaUtilDidlContainer &container) {
  dmsCdsSearchSubject subject;
  subject.title = container.title;
  subject.upnpClass = container.upnpClass;
  subject.id = container.id;
  subject.parentId = container.parentID;
  return subject;
}

namespace {

bool asksEveryProperty(const uint8_t *filterFlags) {
  return std::memcmp(filterFlags, kEveryProperty, sizeof kEveryProperty) == 0;
}

// Counts one match; true when it falls in the requested page.
bool countMatch(const dmsCdsSearchArgs &args, dmsCdsSearchCounters &counters) {
  const int64_t index = counters.matches++;
  if (index < args.startingIndex || counters.written == INT32_MAX) return false;
  return args.requestedCount == 0 || index - args.startingIndex < args.requestedCount;
}

// 1 when the object passes the test (always without criteria), 0 when not,
// or a failure code.
int32_t passes(dmsCdsSearchState &state, const dmsCdsSearchSubject &subject) {
  if (state.criteria.root == DMS_CDS_NO_NODE) return 1;
  return dmsCdsCheckForContentMatch(&state, &subject);
}

// An item is built with every property for the test, and again with the
// Filter's only when it is written and the Filter asks for fewer.
int32_t visitItem(dmsCdsSearchState &state, const dmsCdsObject &object,
                  dmsCdsSearchCounters &counters, dlnaUtilBuffer *buffer) {
  if (state.eachFileOnce && object.view.id != 0 && !dmsViewIds::isAllListItem(object.view.id)) return DMS_SUCCESS;
  const bool testing = state.criteria.root != DMS_CDS_NO_NODE;
  int32_t status = dmsCdsBuildValidItem(testing ? state.everything : state.objects, object, state.item);
  if (status != DMS_SUCCESS) return status;
  dmsCdsSearchSubject subject = dmsCdsItemSubject(state.item.item);
  const int32_t passed = passes(state, subject);
  if (passed != 1) return passed;
  if (state.collected != nullptr) {
    state.collected->push_back(object);
    return DMS_SUCCESS;
  }
  if (!countMatch(*state.searchArgs, counters)) return DMS_SUCCESS;
  if (testing && !asksEveryProperty(state.filterFlags) &&
      (status = dmsCdsBuildValidItem(state.objects, object, state.item)) != DMS_SUCCESS) {
    return status;
  }
  if ((status = dlnaUtil_DIDLAddItem(buffer, &state.item.item)) != 0) {
    return dmsCdsWriterFailure("dlnaUtil_DIDLAddItem", status);
  }
  ++counters.written;
  return DMS_SUCCESS;
}

int32_t visitContainer(dmsCdsSearchState &state, const dmsCdsObject &object,
                       dmsCdsSearchCounters &counters, dlnaUtilBuffer *buffer) {
  if (!state.containersWanted) return DMS_SUCCESS;
  int32_t status = dmsCdsBuildValidContainer(state.objects, object, state.container);
  if (status != DMS_SUCCESS) return status;
  const dlnaUtilDidlContainer &container = state.container.container;
  const int32_t passed = passes(state, dmsCdsContainerSubject(container));
  if (passed != 1) return passed;
  if (state.collected != nullptr) {
    state.collected->push_back(object);
    return DMS_SUCCESS;
  }
  if (!countMatch(*state.searchArgs, counters)) return DMS_SUCCESS;
  if ((status = dlnaUtil_DIDLAddContainer(buffer, &container)) != 0) {
    return dmsCdsWriterFailure("dlnaUtil_DIDLAddContainer", status);
  }
  ++counters.written;
  return DMS_SUCCESS;
}

// The walk's stack frame: a container's children and the next to look at.
struct WalkFrame {
  dmsCdsChildren children;
  size_t next;
};

// Sorted Search: the walk collects every match, the matches are sorted (or
// their order is taken from the cache) and the page is written from the
// order.
int32_t writeSortedMatches(dmsCdsMgrHandle *handle, dmsCdsSearchState &state, dmsCdsRespArgs *respArgs,
                           const dmsCdsObject &container, dmsCdsSearchCounters &counters,
                           dlnaUtilBuffer *buffer) {
  const dmsCdsSearchArgs &args = *state.searchArgs;
  const std::string cacheKey = "search " + std::to_string(container.id()) + " " + state.sort.normalised +
                               " " + (args.searchCriteria != nullptr ? args.searchCriteria : "");
  const auto walk = [&](std::vector<dmsCdsObject> &matches) {
    dmsCdsSearchCounters unused;
    state.collected = &matches;
    const int32_t status = dmsCdsCreateRespSearchRecursive(handle, &state, respArgs, container, &unused, buffer);
    state.collected = nullptr;
    return status;
  };
  dmsCdsSortCache::Order order;
  int32_t status = dmsCdsSortedOrder(handle, cacheKey, state.sort, walk, &order);
  if (status != DMS_SUCCESS) return status;
  counters.matches = static_cast<int64_t>(order->size());
  dmsCdsObject object;
  for (size_t index = static_cast<size_t>(args.startingIndex); index < order->size(); ++index) {
    if (args.requestedCount != 0 && counters.written >= args.requestedCount) break;
    if (!dmsCdsFindObject(handle, (*order)[index], object)) continue;  // gone since
    if ((status = dmsCdsWriteObject(state.objects, object, buffer)) != DMS_SUCCESS) return status;
    ++counters.written;
  }
  return DMS_SUCCESS;
}

}  // namespace

int32_t parseSearchCapabilities(const char *searchCriteria, dmsCdsSearchState *state) {
  if (searchCriteria == nullptr || state == nullptr) return DMS_ERR_INVALID_PARAM;
  return dmsGuard("parseSearchCapabilities", DMS_ERR_NO_MEMORY, [&] {
    const int32_t status = dmsCdsParseCriteria(searchCriteria, state->criteria);
    if (status != DMS_SUCCESS) {
      DMS_TRACE(OSAL_TRACE_WARN, "Search criteria refused: %.200s\n", searchCriteria);
      return status;
    }
    // Containers are tested only when the criteria could hold for one: a
    // class term that names a class of folders or of the views' containers.
    state->containersWanted = dmsCdsCriteriaNamesClass(state->criteria, DMS_CDS_FOLDER_CLASS, state->scratch);
    for (const char *upnpClass : DMS_VIEW_CONTAINER_CLASSES) {
      state->containersWanted =
          state->containersWanted || dmsCdsCriteriaNamesClass(state->criteria, upnpClass, state->scratch);
    }
    return DMS_SUCCESS;
  });
}

int32_t dmsCdsCheckForContentMatch(dmsCdsSearchState *state, const dmsCdsSearchSubject *subject) {
  if (state == nullptr || subject == nullptr) return DMS_ERR_INVALID_PARAM;
  return dmsGuard("dmsCdsCheckForContentMatch", DMS_ERR_NO_MEMORY, [&]() -> int32_t {
    return dmsCdsCriteriaHolds(state->criteria, *subject, state->scratch) ? 1 : 0;
  });
}

int32_t dmsCdsCreateRespSearchRecursive(dmsCdsMgrHandle *handle, dmsCdsSearchState *state,
                                        dmsCdsRespArgs *respArgs, const dmsCdsObject &container,
                                        dmsCdsSearchCounters *counters, dlnaUtilBuffer *buffer) {
  if (handle == nullptr || state == nullptr || state->searchArgs == nullptr ||
      respArgs == nullptr || counters == nullptr || buffer == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsGuard("dmsCdsCreateRespSearchRecursive", DMS_ERR_NO_MEMORY, [&] {
    // Below the root the views are left out: every file is met once, as the
    // item of its folder.
    std::vector<WalkFrame> stack;
    stack.push_back({dmsCdsChildren(handle, container, false), 0});
    dmsCdsObject child;
    while (!stack.empty()) {
      WalkFrame &frame = stack.back();
      if (frame.next >= frame.children.size()) {
        stack.pop_back();
        continue;
      }
      if (!frame.children.at(frame.next++, child)) continue;  // a virtual item whose file has just gone
      const bool isItem = child.isItem();
      const int32_t status = isItem ? visitItem(*state, child, *counters, buffer)
                                    : visitContainer(*state, child, *counters, buffer);
      if (status != DMS_SUCCESS) return status;
      if (!isItem && !child.isPlaylist()) stack.push_back({dmsCdsChildren(handle, child, false), 0});  // `frame` not used past here
    }
    return DMS_SUCCESS;
  });
}

int32_t dmsCdsCreateRespSearchItems(dmsCdsMgrHandle *handle, dmsCdsSearchState *state,
                                    dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer) {
  if (handle == nullptr || state == nullptr || state->searchArgs == nullptr ||
      respArgs == nullptr || buffer == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  const dmsCdsSearchArgs &args = *state->searchArgs;
  dmsCdsObject container;
  if (args.containerId < 0 || !dmsCdsFindObject(handle, static_cast<uint32_t>(args.containerId), container)) {
    DMS_TRACE(OSAL_TRACE_ERR,
              "Container object for the Requested Container ID(%d) is not available\n",
              args.containerId);
    return DMS_ERR_NO_SUCH_OBJECT;
  }
  if (container.isItem()) {
    DMS_TRACE(OSAL_TRACE_ERR, "Invalid content entry type %d\n", static_cast<int>(DMS_CLM_TYPE_ITEM));
    return DMS_ERR_INVALID_PARAM;
  }
  if (args.startingIndex < 0 || args.requestedCount < 0) {
    DMS_TRACE(OSAL_TRACE_ERR,
              "Invalid value: StartingIndex = %d: RequestedCount = %d: ChildCount = %d\n",
              args.startingIndex, args.requestedCount,
              static_cast<int>(dmsCdsChildren(handle, container, false).size()));
    return DMS_ERR_INVALID_PARAM;
  }
  state->eachFileOnce = std::find(std::begin(dmsViews::kTop), std::end(dmsViews::kTop), container.view.id) !=
                        std::end(dmsViews::kTop);
  int32_t status = dmsCdsPrepareObjectRequest(handle, args.filter, state->filterFlags, false,
                                              &state->objects);
  if (status != DMS_SUCCESS) return status;
  state->objects.quirks = args.quirks;
  state->everything = state->objects;
  state->everything.filterFlags = kEveryProperty;
  if ((status = dlnaUtil_DIDLAddHeader(buffer)) != 0) {
    return dmsCdsWriterFailure("dlnaUtil_DIDLAddHeader", status);
  }
  dmsCdsSearchCounters counters;
  status = state->sort.keys.empty()
               ? dmsCdsCreateRespSearchRecursive(handle, state, respArgs, container, &counters, buffer)
               : writeSortedMatches(handle, *state, respArgs, container, counters, buffer);
  if (status != DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n",
              "dmsCdsCreateRespSearchRecursive", status);
    return status;
  }
  if ((status = dlnaUtil_DIDLAddFooter(buffer)) != 0) {
    return dmsCdsWriterFailure("dlnaUtil_DIDLAddFooter", status);
  }
  return dmsCdsSetResultArguments(respArgs, buffer, counters.written, counters.matches);
}

int32_t dmsCdsCreateRespSearch(dmsCdsMgrHandle *handle, void *requestArgs,
                               dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer) {
  auto *searchArgs = static_cast<dmsCdsSearchArgs *>(requestArgs);
  if (handle == nullptr || searchArgs == nullptr || respArgs == nullptr || buffer == nullptr ||
      buffer->data == nullptr || handle->contentList == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  dmsCdsNameResultArguments(respArgs);
  return dmsGuard("dmsCdsCreateRespSearch", DMS_ERR_NO_MEMORY, [&] {
    dmsCdsSearchState state;
    state.searchArgs = searchArgs;
    int32_t status = dmsCdsSetItemFilterFlags(searchArgs->filter, state.filterFlags);
    if (status != DMS_SUCCESS) return status;
    if (searchArgs->searchCriteria != nullptr &&
        (status = parseSearchCapabilities(searchArgs->searchCriteria, &state)) != DMS_SUCCESS) {
      return status;
    }
    if ((status = dmsCdsParseSortCriteria(searchArgs->sortCriteria, state.sort)) != DMS_SUCCESS) {
      DMS_TRACE(OSAL_TRACE_WARN, "Sort criteria refused: %.200s\n", searchArgs->sortCriteria);
      return status;
    }
    {
      auto reading = dmsClmReadLock(handle->contentList);
      status = dmsCdsCreateRespSearchItems(handle, &state, respArgs, buffer);
    }
    if (status != DMS_SUCCESS) {
      DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n",
                "dmsCdsCreateRespSearchItems", status);
      return status;
    }
    return dmsCdsSetUpdateIdArgument(handle, respArgs);
  });
}

int32_t dmsCdsCreateRespBrowseRecursive(dmsCdsMgrHandle *handle, dmsCdsBrowseArgs *browseArgs,
                                        dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer) {
  if (handle == nullptr || browseArgs == nullptr || respArgs == nullptr || buffer == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsGuard("dmsCdsCreateRespBrowseRecursive", DMS_ERR_NO_MEMORY, [&] {
    char noCriteria[] = "";
    dmsCdsSearchArgs searchArgs;
    searchArgs.containerId = browseArgs->objectId;
    searchArgs.startingIndex = browseArgs->startingIndex;
    searchArgs.requestedCount = browseArgs->requestedCount;
    searchArgs.searchCriteria = noCriteria;
    searchArgs.filter = browseArgs->filter;
    dmsCdsSearchState state;
    state.searchArgs = &searchArgs;
    std::memcpy(state.filterFlags, browseArgs->filterFlags, sizeof state.filterFlags);
    return dmsCdsCreateRespSearchItems(handle, &state, respArgs, buffer);
  });
}
