// The ContentDirectory:1 service: its instance, the records one request
// passes between its steps, and the entry points the server and content
// management call.
//
// Requests arrive on the front door's threads, several at once; each works on
// its own records and buffer.  Browse and Search read the content list under
// its shared lock (dmsClmReadLock) for as long as they look at entries.
#ifndef DMS_SERVICES_DMS_CDS_MGR_API_H
#define DMS_SERVICES_DMS_CDS_MGR_API_H

#include "services/dmsActionRequest.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "services/dmsCdsEventModerator.h"
#include "services/dmsCdsSortCache.h"

#include "services/dmsDeviceEventMgr.h"
#include "util/dlnaUtil_buffer.h"

struct dmsContentListInfo;
class dmsArtCache;
class dmsFacts;
class dmsViews;

inline constexpr char DMS_CDS_SERVICE_TYPE[] = "urn:schemas-upnp-org:service:ContentDirectory:1";

// The service instance (one per server).
struct dmsCdsMgrHandle {
  dmsDevEventMgr *eventMgr = nullptr;         // borrowed: outlives the service
  dmsContentListInfo *contentList = nullptr;  // borrowed: outlives the service
  char serverAddress[256] = {0};
  std::atomic<int32_t> serverPort{0};  // the media port; set while Browse may run
  std::atomic<uint32_t> notifyCount{0};  // content changes evented; Browse's UpdateID
  std::unique_ptr<dmsCdsEventModerator> moderator;  // sends the change events
  const dmsArtCache *artCache = nullptr;  // borrowed: pictures found unmakeable are not offered
  dmsFacts *facts = nullptr;  // borrowed: resume positions and plays; set before the first request
  dmsCdsSortCache sortCache;  // sorted orders of recent sorted answers (its own lock)
  // The views shown beside the folders; NULL: none.  Borrowed: they outlive
  // the service once set.
  std::atomic<const dmsViews *> views{nullptr};
};

// Indexes of the Filter flags; a flag of 1 leaves the property out.
enum dmsCdsFilterFlag : int {
  DMS_CDS_FILTER_RES = 0,
  DMS_CDS_FILTER_SIZE,
  DMS_CDS_FILTER_ALBUM,
  DMS_CDS_FILTER_RESOLUTION,
  DMS_CDS_FILTER_DATE,
  DMS_CDS_FILTER_DURATION,
  DMS_CDS_FILTER_BITRATE,
  DMS_CDS_FILTER_CREATOR,
  DMS_CDS_FILTER_GENRE,
  DMS_CDS_FILTER_ARTIST,
  DMS_CDS_FILTER_TRACK,
  DMS_CDS_FILTER_ALBUMART,  // upnp:albumArtURI, of items and folders
  DMS_CDS_FILTER_RESUME,    // upnp:lastPlaybackPosition
  DMS_CDS_FILTER_PLAYCOUNT, // upnp:playbackCount
  DMS_CDS_FILTER_COUNT
};

// Search criteria that do not parse (dmsCdsSearchCriteria.h); answered
// with SOAP fault 708.
inline constexpr int32_t DMS_CDS_ERR_INVALID_SEARCH_CRITERIA = -81;

// Sort criteria that do not parse or name a key not sortable
// (dmsCdsSort.h); answered with SOAP fault 709.
inline constexpr int32_t DMS_CDS_ERR_INVALID_SORT_CRITERIA = -82;

// The most objects one Browse or Search answer holds.
inline constexpr int32_t DMS_CDS_MAX_OBJECTS = 1000;

// Browse flags.
inline constexpr uint32_t DMS_CDS_BROWSE_METADATA = 1;
inline constexpr uint32_t DMS_CDS_BROWSE_DIRECT_CHILDREN = 2;
inline constexpr uint32_t DMS_CDS_BROWSE_RECURSIVE = 3;

// Browse arguments as analysed.  Texts are malloc'ed (the XML argument
// reader's copies) and released by dmsCdsReleaseReqArgsBrowse.
struct dmsCdsBrowseArgs {
  int32_t objectId = -1;
  int32_t startingIndex = 0;
  int32_t requestedCount = 0;
  char *sortCriteria = nullptr;
  char *filter = nullptr;
  uint32_t browseFlag = 0;
  uint8_t filterFlags[DMS_CDS_FILTER_COUNT] = {0};
  uint32_t quirks = 0;  // the client's profile flags
};

// Search arguments as analysed; texts as for Browse.
struct dmsCdsSearchArgs {
  int32_t containerId = -1;
  int32_t startingIndex = 0;
  int32_t requestedCount = 0;
  char *searchCriteria = nullptr;
  char *filter = nullptr;
  char *sortCriteria = nullptr;
  uint32_t quirks = 0;  // the client's profile flags
};

// The output arguments of one action, in order.  Values are malloc'ed and
// owned, except the value named "Result", which is the request's buffer text.
struct dmsCdsRespArgs {
  int32_t count = 0;
  const char *names[4] = {nullptr};
  char *values[4] = {nullptr};
};

// What content management hands over with each change.
struct dmsCdsContentChangeInfo {
  const uint32_t *pairs = nullptr;  // container id, update count, ...
  int32_t pairCount = 0;
  int32_t systemUpdateId = 0;
  const char *variableNames[2] = {"ContainerUpdateIDs", "SystemUpdateID"};
};

// Registers with the event manager.  0, -100 for NULL arguments, -97, or the
// event manager's code.  `eventMgr` and `contentList` must outlive the service.
int32_t dmsCdsMgrInit(dmsCdsMgrHandle **handleOut, dmsDevEventMgr *eventMgr,
                      dmsContentListInfo *contentList, const char *serverAddress,
                      int32_t serverPort);
int32_t dmsCdsMgrDeInit(dmsCdsMgrHandle *handle);

// The live SystemUpdateID as text ("0" before any change).
std::string dmsCdsMgrSystemUpdateIdText(const dmsCdsMgrHandle *handle);

// The two callbacks registered with the event manager (context: the handle).
int32_t dmsCdsMgrActionRequestCbf(void *actionRequest, void *handle);
int32_t dmsCdsMgrStateVariableRequestCbf(void *stateVarRequest, void *handle);

// Frees the owned values of `respArgs` and sets count 0; NULL accepted.
int32_t dmsCdsMgrReleaseRespArgs(dmsCdsRespArgs *respArgs);

// Events ContainerUpdateIDs and SystemUpdateID for one change.
int32_t dmsCdsMgrNotifyContentChange(dmsCdsMgrHandle *handle,
                                     const dmsCdsContentChangeInfo *changeInfo);

// The ContainerUpdateIDs text of one change: each pair as "id,count", the
// pairs joined by "," ("1001,2,0,5"); "" without pairs.  May throw
// std::bad_alloc (internal callers catch it).
std::string dmsCdsFormatContainerUpdateIds(const dmsCdsContentChangeInfo &changeInfo);

// Request analysis and release (dmsCdsMgrRequestHandler).
int32_t dmsCdsAnalyzeReqBrowse(dmsCdsMgrHandle *handle, dmsActionRequest *actionRequest,
                               dmsCdsBrowseArgs *browseArgs);
int32_t dmsCdsAnalyzeReqSearch(dmsCdsMgrHandle *handle, dmsActionRequest *actionRequest,
                               dmsCdsSearchArgs *searchArgs);
int32_t dmsCdsReleaseReqArgsBrowse(dmsCdsBrowseArgs *browseArgs);
int32_t dmsCdsReleaseReqArgsSearch(dmsCdsSearchArgs *searchArgs);

// Filter parsers; both cut `filterCopy` (a private copy).
struct dlnaUtilDidlContainer;
int32_t dmsCdsParseContainerFilter(dlnaUtilDidlContainer *container, char *filterCopy);
int32_t dmsCdsParseItemFilter(uint8_t *filterFlags, char *filterCopy);

// Response creators (dmsCdsMgrResponseHandler, dmsCdsMgrSearch).  `buffer` is
// the request's text buffer for Browse and Search, NULL for the others.
int32_t dmsCdsCreateRespGetSearchCaps(dmsCdsMgrHandle *handle, void *requestArgs,
                                      dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer);
int32_t dmsCdsCreateRespGetSortCaps(dmsCdsMgrHandle *handle, void *requestArgs,
                                    dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer);
int32_t dmsCdsCreateRespGetFeatureList(dmsCdsMgrHandle *handle, void *requestArgs,
                                       dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer);
int32_t dmsCdsCreateRespGetSystemUpdateId(dmsCdsMgrHandle *handle, void *requestArgs,
                                          dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer);
int32_t dmsCdsCreateRespGetServiceResetToken(dmsCdsMgrHandle *handle, void *requestArgs,
                                             dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer);
int32_t dmsCdsCreateRespBrowse(dmsCdsMgrHandle *handle, void *requestArgs,
                               dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer);
int32_t dmsCdsCreateRespSearch(dmsCdsMgrHandle *handle, void *requestArgs,
                               dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer);

#endif  // DMS_SERVICES_DMS_CDS_MGR_API_H
