// ContentDirectory answers built from the content list: the pieces that
// Browse (dmsCdsMgrResponseHandler.cpp) and Search (dmsCdsMgrSearch.cpp)
// share.  The entry points of the action table are declared in
// dmsCdsMgrApi.h; this header adds the Browse sub-answers and the builders
// (dmsCdsMgrResponseObjects.cpp) that turn one content entry into one
// DIDL-Lite record.
//
// Everything here reads entries: the caller holds the content list's shared
// lock (dmsClmReadLock) for the whole answer, taken once by the action's
// create-response operation.  None of these functions throws.
#ifndef DMS_SERVICES_DMS_CDS_MGR_RESPONSE_HANDLER_H
#define DMS_SERVICES_DMS_CDS_MGR_RESPONSE_HANDLER_H

#include <cstdint>
#include <string>

#include "content/dmsClmApi.h"
#include "mfd/mfd_api.h"
#include "services/dmsCdsMgrApi.h"
#include "util/dlnaUtil_buffer.h"
#include "util/dlnaUtil_didl.h"

// Positions of the four output arguments of Browse and Search.
inline constexpr int32_t DMS_CDS_RESP_RESULT = 0;
inline constexpr int32_t DMS_CDS_RESP_NUMBER_RETURNED = 1;
inline constexpr int32_t DMS_CDS_RESP_TOTAL_MATCHES = 2;
inline constexpr int32_t DMS_CDS_RESP_UPDATE_ID = 3;

// What one request asks of every object it writes, worked out once per
// request from its Filter.
struct dmsCdsObjectRequest {
  const dmsCdsMgrHandle *handle = nullptr;
  const char *filter = nullptr;             // the request's Filter as received
  const uint8_t *filterFlags = nullptr;     // DMS_CDS_FILTER_COUNT flags, 1 = leave out
  bool containerChildCount = false;         // write childCount on containers
  bool containerSearchable = false;         // write searchable="1" on containers
  bool pcmAsWav = false;                    // Browse serves ".pcm" files as ".wav"
  uint32_t quirks = 0;                      // the client's profile flags (clients/dmsClients.h)
};

// The class of every folder (and the root).
inline constexpr char DMS_CDS_FOLDER_CLASS[] = "object.container.storageFolder";

// One item with the texts its record points to.  Filled in place by
// dmsCdsBuildItem, which may be handed the same record for one object after
// another (its strings keep their room); not copyable, because `item`
// points into the strings.
struct dmsCdsItemRecord {
  dlnaUtilDidlItem item{};
  std::string title;
  std::string resourceName;
  std::string protocolInfo;    // as the client is told it, when that differs
  std::string extraMetadata;   // resume properties (dmsCdsResume.h), CaptionInfoEx (dmsCdsQuirks.h)
  std::string extraResources;  // subtitles (dmsCdsQuirks.h)

  dmsCdsItemRecord() = default;
  dmsCdsItemRecord(const dmsCdsItemRecord &) = delete;
  dmsCdsItemRecord &operator=(const dmsCdsItemRecord &) = delete;
};

// One container with its title; filled in place by dmsCdsBuildContainer.
struct dmsCdsContainerRecord {
  dlnaUtilDidlContainer container{};
  std::string title;

  dmsCdsContainerRecord() = default;
  dmsCdsContainerRecord(const dmsCdsContainerRecord &) = delete;
  dmsCdsContainerRecord &operator=(const dmsCdsContainerRecord &) = delete;
};

// Sets the nine item filter flags for `filter`: all cleared for "*", else all
// set and then cleared by the item filter parser.  0 or -97.
int32_t dmsCdsSetItemFilterFlags(const char *filter, uint8_t *filterFlags);

// Fills `request` for one answer: handle, filter, flags and the container
// properties the Filter asks for.  0 or -97.
int32_t dmsCdsPrepareObjectRequest(const dmsCdsMgrHandle *handle, const char *filter,
                                   const uint8_t *filterFlags, bool pcmAsWav,
                                   dmsCdsObjectRequest *request);

// Builds the item for `entry` (an item entry with its media info).  0, -100
// for missing arguments or media info, -77 for an unsupported media class,
// -97.  A text the file does not hold (creator, artist, album, genre) stays
// NULL, so the writer leaves its element out.  The record's validity is
// checked separately (dmsCdsItemIsValid).
int32_t dmsCdsBuildItem(const dmsCdsObjectRequest *request, dmsContentEntry *entry,
                        dmsCdsItemRecord *record);

// Builds the storage-folder container for `entry` (root or folder).  0,
// -100 or -97.
int32_t dmsCdsBuildContainer(const dmsCdsObjectRequest *request, dmsContentEntry *entry,
                             dmsCdsContainerRecord *record);

// An item or container may be written when its id is 0 or more, its parent's
// id 0 or more (-1 only for id 0) and it has a title and a class.
bool dmsCdsItemIsValid(const dlnaUtilDidlItem &item);
bool dmsCdsContainerIsValid(const dlnaUtilDidlContainer &container);

// UPnP class of an item from its media info.  0, -100 for NULL arguments,
// -77 (DMS_ERR_UNSUPPORTED_CLASS) for a media class without a mapping.
int32_t dmsCdsGetItemClass(const mfdMediaInfo *mediaInfo, const char **classOut);

// Traces a failure of the DIDL-Lite writer's `callee`; its DMS code.
int32_t dmsCdsWriterFailure(const char *callee, int32_t code);

// Names the four Browse/Search output arguments and sets count 4.
void dmsCdsNameResultArguments(dmsCdsRespArgs *respArgs);

// Sets "Result" to the buffer's text and the two counts (heap copies of
// their decimal text).  0 or -97.
int32_t dmsCdsSetResultArguments(dmsCdsRespArgs *respArgs, const dlnaUtilBuffer *buffer,
                                 int32_t numberReturned, int64_t totalMatches);

// Sets "UpdateID" from the handle's notify count.  0 or -97.
int32_t dmsCdsSetUpdateIdArgument(const dmsCdsMgrHandle *handle, dmsCdsRespArgs *respArgs);

// Browse sub-answers, run by dmsCdsCreateRespBrowse with the read lock held.
int32_t dmsCdsCreateRespBrowseMetaData(dmsCdsMgrHandle *handle, dmsCdsBrowseArgs *browseArgs,
                                       dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer);
int32_t dmsCdsCreateRespBrowseDirectChildren(dmsCdsMgrHandle *handle,
                                             dmsCdsBrowseArgs *browseArgs,
                                             dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer);

#endif  // DMS_SERVICES_DMS_CDS_MGR_RESPONSE_HANDLER_H
