// ContentDirectory objects: lookup and listing over the content list and
// the views, and the one place an object becomes an item or a container.
#include "services/dmsCdsObjects.h"

#include <cstring>
#include <limits>

#include "dlna_dms.h"
#include "clients/dmsClients.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsCdsMgrResponseHandler";

namespace {

int32_t clampCount(size_t count) {
  return count > static_cast<size_t>(std::numeric_limits<int32_t>::max()) ? std::numeric_limits<int32_t>::max()
                                                                          : static_cast<int32_t>(count);
}

}  // namespace

bool dmsCdsFindObject(const dmsCdsMgrHandle *handle, uint32_t id, dmsCdsObject &out) {
  out = dmsCdsObject{};
  if (const dmsViews *views = handle->views.load(std::memory_order_acquire);
      views != nullptr && dmsViewIds::isViewId(id)) {
    if (!views->find(id, out.view)) return false;
    if (out.view.fileId == 0) return true;
    dmsClmGetContentEntryById(handle->contentList, &out.entry, out.view.fileId);
    return out.entry != nullptr && out.entry->type == DMS_CLM_TYPE_ITEM;
  }
  dmsClmGetContentEntryById(handle->contentList, &out.entry, id);
  return out.entry != nullptr;
}

dmsCdsChildren::dmsCdsChildren(const dmsCdsMgrHandle *handle, const dmsCdsObject &container, bool withViews)
    : handle_(handle) {
  const dmsViews *views = handle->views.load(std::memory_order_acquire);
  if (container.view.id != 0) {
    if (views != nullptr) views_ = views->children(container.view.id);
    return;
  }
  folder_ = container.entry;
  if (!withViews || views == nullptr) return;
  if (folder_->type == DMS_CLM_TYPE_ROOT) leading_ = std::size(dmsViews::kTop);
  playlists_ = views->playlistsIn(folder_->id);
}

size_t dmsCdsChildren::size() const {
  if (folder_ != nullptr) return leading_ + dmsClmChildren(folder_).size() + (playlists_ != nullptr ? playlists_->size() : 0);
  return views_ != nullptr ? views_->size() : 0;
}

bool dmsCdsChildren::at(size_t index, dmsCdsObject &out) const {
  if (folder_ == nullptr) return dmsCdsFindObject(handle_, (*views_)[index], out);
  if (index < leading_) return dmsCdsFindObject(handle_, dmsViews::kTop[index], out);
  const auto &children = dmsClmChildren(folder_);
  if (index - leading_ >= children.size()) {
    return dmsCdsFindObject(handle_, (*playlists_)[index - leading_ - children.size()], out);
  }
  out = dmsCdsObject{};
  out.entry = children[index - leading_];
  return out.entry != nullptr;
}

bool dmsCdsObject::isPlaylist() const {
  return view.id != 0 && view.fileId == 0 && view.upnpClass != nullptr &&
         std::strcmp(view.upnpClass, DMS_VIEW_PLAYLIST_CLASS) == 0;
}

int32_t dmsCdsBuildValidItem(const dmsCdsObjectRequest &request, const dmsCdsObject &object,
                             dmsCdsItemRecord &record) {
  const int32_t status = dmsCdsBuildItem(&request, object.entry, &record);
  if (status != DMS_SUCCESS) return status;
  if (object.view.id != 0) {
    record.item.id = static_cast<int32_t>(object.view.id);
    record.item.parentID = static_cast<int32_t>(object.view.parentId);
    record.item.refID = static_cast<int32_t>(object.entry->id);
  }
  if (dmsCdsItemIsValid(record.item)) return DMS_SUCCESS;
  DMS_TRACE(OSAL_TRACE_ERR, "Item detail information is not valid\n");
  return DMS_ERR_INVALID_PARAM;
}

// A container of the views: its name and class, and the Filter's childCount
// and searchable.
static int32_t buildViewContainer(const dmsCdsObjectRequest &request, const dmsViewObject &view,
                                  dmsCdsContainerRecord &record) {
  return dmsGuard("dmsCdsBuildContainer", DMS_ERR_NO_MEMORY, [&] {
    record.title.assign(view.titleText());
    dlnaUtilDidlContainer &container = record.container;
    container = dlnaUtilDidlContainer{};
    container.id = static_cast<int32_t>(view.id);
    container.parentID = static_cast<int32_t>(view.parentId);
    container.childCount = request.containerChildCount ? clampCount(view.childCount) : -1;
    container.restricted = 1;
    container.searchable = request.containerSearchable ? 1 : static_cast<uint32_t>(-1);
    container.title = record.title.c_str();
    // A player that lists only storage folders sees the views' containers as such.
    container.upnpClass = request.quirks & DMS_QUIRK_STORAGE_FOLDERS ? DMS_CDS_FOLDER_CLASS : view.upnpClass;
    return DMS_SUCCESS;
  });
}

int32_t dmsCdsBuildValidContainer(const dmsCdsObjectRequest &request, const dmsCdsObject &object,
                                  dmsCdsContainerRecord &record) {
  const int32_t status = object.view.id != 0 ? buildViewContainer(request, object.view, record)
                                             : dmsCdsBuildContainer(&request, object.entry, &record);
  if (status != DMS_SUCCESS) return status;
  // With the views a folder also lists its playlists, and the root the views.
  if (object.view.id == 0 && request.containerChildCount && request.handle != nullptr &&
      request.handle->views.load(std::memory_order_acquire) != nullptr) {
    record.container.childCount = clampCount(dmsCdsChildren(request.handle, object, true).size());
  }
  if (dmsCdsContainerIsValid(record.container)) return DMS_SUCCESS;
  DMS_TRACE(OSAL_TRACE_ERR, "Container detail information is not valid\n");
  return DMS_ERR_INVALID_PARAM;
}

int32_t dmsCdsWriteObject(const dmsCdsObjectRequest &request, const dmsCdsObject &object,
                          dlnaUtilBuffer *buffer) {
  if (object.isItem()) {
    dmsCdsItemRecord record;
    int32_t status = dmsCdsBuildValidItem(request, object, record);
    if (status != DMS_SUCCESS) return status;
    status = dlnaUtil_DIDLAddItem(buffer, &record.item);
    return status == 0 ? DMS_SUCCESS : dmsCdsWriterFailure("dlnaUtil_DIDLAddItem", status);
  }
  dmsCdsContainerRecord record;
  int32_t status = dmsCdsBuildValidContainer(request, object, record);
  if (status != DMS_SUCCESS) return status;
  status = dlnaUtil_DIDLAddContainer(buffer, &record.container);
  return status == 0 ? DMS_SUCCESS : dmsCdsWriterFailure("dlnaUtil_DIDLAddContainer", status);
}
