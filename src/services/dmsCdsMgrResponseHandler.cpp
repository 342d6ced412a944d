// ContentDirectory response creators: the five fixed answers and Browse
// (BrowseMetadata, BrowseDirectChildren; the recursive browse is Search's
// walk).  The objects themselves are built in dmsCdsMgrResponseObjects.cpp.
#include "services/dmsCdsMgrResponseHandler.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "dlna_dms.h"
#include "services/dmsCdsMgrSearch.h"
#include "services/dmsCdsObjects.h"
#include "services/dmsCdsSort.h"
#include "util/dmsErrors.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsCdsMgrResponseHandler";

namespace {

// ---------------------------------------------------------------------------
// Fixed answers.

struct FixedAnswer {
  const char *argument;
  const char *value;
};

enum FixedAnswerRow { kSearchCapsRow, kSortCapsRow, kFeatureListRow, kSystemUpdateIdRow,
                      kResetTokenRow };

constexpr FixedAnswer kFixedAnswers[] = {
    // argument        value
    {"SearchCaps",     "dc:title,dc:creator,upnp:artist,upnp:album,upnp:genre,upnp:class,dc:date,"
                       "upnp:originalTrackNumber,@id,@parentID,@refID,res@protocolInfo,res@size,res@duration"},
    {"SortCaps",       DMS_CDS_SORT_CAPABILITIES},
    {"FeatureList",    ""},
    {"Id",             "0"},
    {"ResetToken",     "0"},
};

int32_t setFixedAnswer(FixedAnswerRow row, const dmsCdsMgrHandle *handle, const void *requestArgs,
                       dmsCdsRespArgs *respArgs) {
  if (handle == nullptr || requestArgs == nullptr || respArgs == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  char *value = strdup(kFixedAnswers[row].value);
  if (value == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Memory Allocation Failed \n");
    return DMS_ERR_NO_MEMORY;
  }
  respArgs->count = 1;
  respArgs->names[0] = kFixedAnswers[row].argument;
  respArgs->values[0] = value;
  return DMS_SUCCESS;
}

// ---------------------------------------------------------------------------
// Browse.

// The container's children sorted by `sort`, from the cache or sorted now.
int32_t sortChildren(dmsCdsMgrHandle *handle, const dmsCdsChildren &children, uint32_t containerId,
                     const dmsCdsSortCriteria &sort, dmsCdsSortCache::Order *order) {
  const std::string cacheKey = "children " + std::to_string(containerId) + " " + sort.normalised;
  const auto listChildren = [&children](std::vector<dmsCdsObject> &objects) {
    objects.reserve(children.size());
    dmsCdsObject child;
    for (size_t index = 0; index < children.size(); ++index) {
      if (children.at(index, child)) objects.push_back(child);
    }
    return DMS_SUCCESS;
  };
  return dmsCdsSortedOrder(handle, cacheKey, sort, listChildren, order);
}

// The child at `index`: in the container's order, or in `order` when
// sorted.  false when it is gone.
bool childAt(dmsCdsMgrHandle *handle, const dmsCdsChildren &children, const dmsCdsSortCache::Order &order,
             int32_t index, dmsCdsObject &child) {
  const size_t position = static_cast<size_t>(index);
  if (order == nullptr) return children.at(position, child);
  return position < order->size() && dmsCdsFindObject(handle, (*order)[position], child);
}

// How many children a direct-children answer writes from `start`.
int32_t childrenToWrite(int32_t start, int32_t requested, int32_t childCount) {
  if (start == 0 && requested == 0) return childCount;
  return requested < childCount - start ? requested : childCount - start;
}

int32_t dispatchBrowse(dmsCdsMgrHandle *handle, dmsCdsBrowseArgs *browseArgs,
                       dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer) {
  struct Operation {
    int32_t (*run)(dmsCdsMgrHandle *, dmsCdsBrowseArgs *, dmsCdsRespArgs *, dlnaUtilBuffer *);
    const char *name;
  } operation{};
  switch (browseArgs->browseFlag) {
    case DMS_CDS_BROWSE_METADATA:
      operation = {dmsCdsCreateRespBrowseMetaData, "dmsCdsCreateRespBrowseMetaData"};
      break;
    case DMS_CDS_BROWSE_DIRECT_CHILDREN:
      operation = {dmsCdsCreateRespBrowseDirectChildren, "dmsCdsCreateRespBrowseDirectChildren"};
      break;
    case DMS_CDS_BROWSE_RECURSIVE:
      operation = {dmsCdsCreateRespBrowseRecursive, "dmsCdsCreateRespBrowseRecursive"};
      break;
    default:
      DMS_TRACE(OSAL_TRACE_ERR, "Invalid Browse Flag\n");
      return DMS_ERR_INVALID_BROWSE_FLAG;
  }
  auto reading = dmsClmReadLock(handle->contentList);
  const int32_t status = operation.run(handle, browseArgs, respArgs, buffer);
  if (status != DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n", operation.name, status);
  }
  return status;
}

}  // namespace

int32_t dmsCdsWriterFailure(const char *callee, int32_t code) {
  DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n", callee, code);
  return dmsUtilErrMapToDmsErr(code);
}

// ---------------------------------------------------------------------------
// Action table entry points.

int32_t dmsCdsCreateRespGetSearchCaps(dmsCdsMgrHandle *handle, void *requestArgs,
                                      dmsCdsRespArgs *respArgs, dlnaUtilBuffer *) {
  return setFixedAnswer(kSearchCapsRow, handle, requestArgs, respArgs);
}

int32_t dmsCdsCreateRespGetSortCaps(dmsCdsMgrHandle *handle, void *requestArgs,
                                    dmsCdsRespArgs *respArgs, dlnaUtilBuffer *) {
  return setFixedAnswer(kSortCapsRow, handle, requestArgs, respArgs);
}

int32_t dmsCdsCreateRespGetFeatureList(dmsCdsMgrHandle *handle, void *requestArgs,
                                       dmsCdsRespArgs *respArgs, dlnaUtilBuffer *) {
  return setFixedAnswer(kFeatureListRow, handle, requestArgs, respArgs);
}

int32_t dmsCdsCreateRespGetSystemUpdateId(dmsCdsMgrHandle *handle, void *requestArgs,
                                          dmsCdsRespArgs *respArgs, dlnaUtilBuffer *) {
  const int32_t status = setFixedAnswer(kSystemUpdateIdRow, handle, requestArgs, respArgs);
  if (status != DMS_SUCCESS || handle->contentList == nullptr) return status;
  // The live counter, the same value the events carry.
  char *live = strdup(std::to_string(dmsClmGetSystemUpdateId(handle->contentList)).c_str());
  if (live == nullptr) return DMS_ERR_NO_MEMORY;
  std::free(respArgs->values[0]);
  respArgs->values[0] = live;
  return DMS_SUCCESS;
}

int32_t dmsCdsCreateRespGetServiceResetToken(dmsCdsMgrHandle *handle, void *requestArgs,
                                             dmsCdsRespArgs *respArgs, dlnaUtilBuffer *) {
  return setFixedAnswer(kResetTokenRow, handle, requestArgs, respArgs);
}

int32_t dmsCdsCreateRespBrowse(dmsCdsMgrHandle *handle, void *requestArgs,
                               dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer) {
  auto *browseArgs = static_cast<dmsCdsBrowseArgs *>(requestArgs);
  if (handle == nullptr || browseArgs == nullptr || respArgs == nullptr || buffer == nullptr ||
      buffer->data == nullptr || handle->contentList == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  dmsCdsNameResultArguments(respArgs);
  int32_t status = dmsCdsSetItemFilterFlags(browseArgs->filter, browseArgs->filterFlags);
  if (status != DMS_SUCCESS) return status;
  status = dmsGuard("dmsCdsCreateRespBrowse", DMS_ERR_NO_MEMORY,
                    [&] { return dispatchBrowse(handle, browseArgs, respArgs, buffer); });
  if (status != DMS_SUCCESS) return status;
  return dmsCdsSetUpdateIdArgument(handle, respArgs);
}

// Both Browse sub-answers expect the caller to hold the read lock.
int32_t dmsCdsCreateRespBrowseMetaData(dmsCdsMgrHandle *handle, dmsCdsBrowseArgs *browseArgs,
                                       dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer) {
  if (handle == nullptr || browseArgs == nullptr || respArgs == nullptr || buffer == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  dmsCdsObject object;
  if (browseArgs->objectId < 0 || !dmsCdsFindObject(handle, static_cast<uint32_t>(browseArgs->objectId), object)) {
    DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n", "dmsClmGetContentEntryById",
              DMS_ERR_NO_SUCH_OBJECT);
    return DMS_ERR_NO_SUCH_OBJECT;
  }
  dmsCdsObjectRequest request;
  int32_t status = dmsCdsPrepareObjectRequest(handle, browseArgs->filter, browseArgs->filterFlags, true,
                                      &request);
  if (status != DMS_SUCCESS) return status;
  request.quirks = browseArgs->quirks;
  if ((status = dlnaUtil_DIDLAddHeader(buffer)) != 0) {
    return dmsCdsWriterFailure("dlnaUtil_DIDLAddHeader", status);
  }
  if ((status = dmsCdsWriteObject(request, object, buffer)) != DMS_SUCCESS) return status;
  if ((status = dlnaUtil_DIDLAddFooter(buffer)) != 0) {
    return dmsCdsWriterFailure("dlnaUtil_DIDLAddFooter", status);
  }
  return dmsCdsSetResultArguments(respArgs, buffer, 1, 1);
}

int32_t dmsCdsCreateRespBrowseDirectChildren(dmsCdsMgrHandle *handle,
                                             dmsCdsBrowseArgs *browseArgs,
                                             dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer) {
  if (handle == nullptr || browseArgs == nullptr || respArgs == nullptr || buffer == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  dmsCdsSortCriteria sort;
  int32_t status = dmsCdsParseSortCriteria(browseArgs->sortCriteria, sort);
  if (status != DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_WARN, "Sort criteria refused: %.200s\n", browseArgs->sortCriteria);
    return status;
  }
  dmsCdsObject folder;
  if (browseArgs->objectId < 0 || !dmsCdsFindObject(handle, static_cast<uint32_t>(browseArgs->objectId), folder)) {
    DMS_TRACE(OSAL_TRACE_ERR,
              "Container object for the Requested Object ID(%d) is not available\n",
              browseArgs->objectId);
    return DMS_ERR_NO_SUCH_OBJECT;
  }
  if (folder.isItem()) {
    DMS_TRACE(OSAL_TRACE_ERR, "Invalid content entry type %d\n", static_cast<int>(DMS_CLM_TYPE_ITEM));
    return DMS_ERR_INVALID_PARAM;
  }
  dmsCdsObjectRequest request;
  status = dmsCdsPrepareObjectRequest(handle, browseArgs->filter, browseArgs->filterFlags, true,
                                      &request);
  if (status != DMS_SUCCESS) return status;
  request.quirks = browseArgs->quirks;
  if ((status = dlnaUtil_DIDLAddHeader(buffer)) != 0) {
    return dmsCdsWriterFailure("dlnaUtil_DIDLAddHeader", status);
  }
  const dmsCdsChildren children(handle, folder, true);
  const size_t childTotal = children.size();
  const int32_t childCount = childTotal > static_cast<size_t>(std::numeric_limits<int32_t>::max())
                                 ? std::numeric_limits<int32_t>::max()
                                 : static_cast<int32_t>(childTotal);
  int32_t requested = browseArgs->requestedCount;
  if (childCount < requested) {
    DMS_TRACE(OSAL_TRACE_INFO, "Restricting requested count(%d) to child count(%d)\n", requested,
              childCount);
    requested = childCount;
  }
  int32_t written = 0;
  if (childCount >= 1) {
    const int32_t start = browseArgs->startingIndex;
    if (start < 0 || start >= childCount || requested < 0) {
      DMS_TRACE(OSAL_TRACE_ERR,
                "Invalid value: StartingIndex = %d: RequestedCount = %d: ChildCount = %d for "
                "File/Folder [%s]\n",
                start, browseArgs->requestedCount, childCount,
                folder.entry != nullptr ? folder.entry->path.c_str() : folder.view.titleText());
      return DMS_ERR_INVALID_PARAM;
    }
    const int32_t number = childrenToWrite(start, requested, childCount);
    dmsCdsSortCache::Order order;
    if (!sort.keys.empty() && (status = sortChildren(handle, children, folder.id(), sort, &order)) != DMS_SUCCESS) {
      return status;
    }
    dmsCdsObject child;
    for (int32_t index = start; index < start + number; ++index) {
      if (!childAt(handle, children, order, index, child)) {
        DMS_TRACE(OSAL_TRACE_ERR, "Content entry not available\n");
        continue;  // a virtual item whose file has just gone
      }
      if ((status = dmsCdsWriteObject(request, child, buffer)) != DMS_SUCCESS) return status;
      ++written;
    }
  }
  if ((status = dlnaUtil_DIDLAddFooter(buffer)) != 0) {
    return dmsCdsWriterFailure("dlnaUtil_DIDLAddFooter", status);
  }
  return dmsCdsSetResultArguments(respArgs, buffer, written, childCount);
}
