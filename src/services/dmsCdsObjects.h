// The objects the ContentDirectory shows, under one lookup and one listing:
// the content list's root, folders and items and, when the views are on,
// the views' containers and virtual items (views/dmsViews.h).  With views
// the root lists Music, Pictures and Video before the shared folders.
//
// Everything here reads the list and the views: the caller holds the
// list's read lock (dmsClmReadLock) for as long as it uses what it gets.
// None of these functions throws unless it says so.
#ifndef DMS_SERVICES_DMS_CDS_OBJECTS_H
#define DMS_SERVICES_DMS_CDS_OBJECTS_H

#include <cstddef>
#include <cstdint>

#include "content/dmsClmApi.h"
#include "services/dmsCdsMgrApi.h"
#include "services/dmsCdsMgrResponseHandler.h"
#include "views/dmsViews.h"

// One object: a content entry, or an object of the views.
struct dmsCdsObject {
  // The entry shown: the root, a folder or an item; for a virtual item the
  // file it stands for; NULL for a container of the views.
  dmsContentEntry *entry = nullptr;
  dmsViewObject view;  // view.id != 0: an object of the views

  uint32_t id() const { return view.id != 0 ? view.id : entry->id; }
  bool isItem() const { return view.id != 0 ? view.fileId != 0 : entry->type >= DMS_CLM_TYPE_ITEM; }
  // A playlist: Search does not descend into one.
  bool isPlaylist() const;
};

// The object `id` names; false when there is none (a virtual item whose
// file has gone included).
bool dmsCdsFindObject(const dmsCdsMgrHandle *handle, uint32_t id, dmsCdsObject &out);

// The children of one container in their default order: a folder's in its
// order, with, when `withViews`, the views' containers first at the root and
// the folder's playlists last; a container of the views in the order the
// views keep.
class dmsCdsChildren {
 public:
  // May throw std::bad_alloc.
  dmsCdsChildren(const dmsCdsMgrHandle *handle, const dmsCdsObject &container, bool withViews);
  size_t size() const;
  // The child at `index` (< size()); false when it is gone.
  bool at(size_t index, dmsCdsObject &out) const;

 private:
  const dmsCdsMgrHandle *handle_;
  const dmsContentEntry *folder_ = nullptr;  // a content container
  size_t leading_ = 0;                       // the views' containers before a folder's children
  dmsViews::Order views_;                    // a container of the views: its children
  dmsViews::Order playlists_;                // a folder's playlists, after its children
};

// Builds the item or container of `object` (a virtual item is its file's
// item with its own id and parent and refID naming the file) and checks it
// (traced): 0, -100 for an object that is not valid, -77 or -97.
int32_t dmsCdsBuildValidItem(const dmsCdsObjectRequest &request, const dmsCdsObject &object,
                             dmsCdsItemRecord &record);
int32_t dmsCdsBuildValidContainer(const dmsCdsObjectRequest &request, const dmsCdsObject &object,
                                  dmsCdsContainerRecord &record);

// Writes `object` to `buffer` as `request` asks.  0, -100 for an object that
// is not valid, -77, -97 or the writer's code.
int32_t dmsCdsWriteObject(const dmsCdsObjectRequest &request, const dmsCdsObject &object,
                          dlnaUtilBuffer *buffer);

#endif  // DMS_SERVICES_DMS_CDS_OBJECTS_H
