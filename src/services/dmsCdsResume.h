// Resume and plays in the ContentDirectory: the properties an item carries
// from the facts players left (dmsFacts), the two ways a player sets its
// resume position (Samsung's X_SetBookmark, and UpdateObject of
// upnp:lastPlaybackPosition alone: every other UpdateObject is refused as
// an unknown action), and Samsung's X_GetFeatureList.  The last three are
// rows of the action table.
#ifndef DMS_SERVICES_DMS_CDS_RESUME_H
#define DMS_SERVICES_DMS_CDS_RESUME_H

#include <cstdint>

#include "services/dmsCdsMgrResponseHandler.h"

// The analysed arguments of X_SetBookmark and UpdateObject.
struct dmsCdsBookmarkArgs {
  int32_t objectId = -1;
  int64_t positionMs = 0;
};

// Sets record.extraMetadata to the resume properties of file `fileId` that
// the request's Filter asks for (upnp:lastPlaybackPosition as H:MM:SS,
// upnp:playbackCount), and for clients with DMS_QUIRK_SEC_DIDL its
// sec:dcmInfo.  May throw std::bad_alloc.
void dmsCdsAddResume(const dmsCdsObjectRequest &request, uint32_t fileId, dmsCdsItemRecord &record);

// "H:MM:SS" or "H:MM:SS.F..." into milliseconds; false when it is neither.
bool dmsCdsParsePosition(const char *text, int64_t &milliseconds);

int32_t dmsCdsAnalyzeReqSetBookmark(dmsCdsMgrHandle *handle, dmsActionRequest *actionRequest,
                                    dmsCdsBookmarkArgs *args);
int32_t dmsCdsAnalyzeReqUpdateObject(dmsCdsMgrHandle *handle, dmsActionRequest *actionRequest,
                                     dmsCdsBookmarkArgs *args);
int32_t dmsCdsAnalyzeReqFeatureList(dmsCdsMgrHandle *handle, dmsActionRequest *actionRequest,
                                    dmsCdsBookmarkArgs *args);
int32_t dmsCdsReleaseReqArgsBookmark(dmsCdsBookmarkArgs *args);
// Stores the position for the file the object is or stands for; 701 when
// there is no such item.
int32_t dmsCdsCreateRespBookmark(dmsCdsMgrHandle *handle, void *requestArgs, dmsCdsRespArgs *respArgs,
                                 dlnaUtilBuffer *buffer);
int32_t dmsCdsCreateRespXFeatureList(dmsCdsMgrHandle *handle, void *requestArgs, dmsCdsRespArgs *respArgs,
                                     dlnaUtilBuffer *buffer);

#endif  // DMS_SERVICES_DMS_CDS_RESUME_H
