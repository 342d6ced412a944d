// ContentDirectory Search: the request's criteria (parsed once, see
// dmsCdsSearchCriteria.h for the grammar and its meaning), the walk below the
// requested container, and the recursive browse that reuses the walk.
//
// The walk meets every object below the container once, in stored order, a
// container before its contents: below a folder or the root the folder tree
// only (so each file once, never again as a virtual item of the views),
// below a container of the views that view's containers and virtual items
// (below Music, Pictures or Video, whose lists show each file several times,
// a file's items are those of its All list only).
// It tests every item, and every container too when the criteria asks for
// containers by class (a upnp:class term that holds for a folder's or a
// view container's class, such as derivedfrom "object.container" or
// "object"); so '*' and criteria on titles or artists find items only.  An item is tested on all its properties,
// whatever the Filter, and written with those the Filter asks for.  Matches
// are counted over the whole walk and StartingIndex/RequestedCount pick the
// page that is written.  The walk reuses one item record, one folder record
// and one fold buffer, so it allocates nothing per object once they have
// grown to the largest.  With SortCriteria (dmsCdsSort.h) the walk collects
// the matches instead, and the page is taken from their sorted order, which
// the service's cache keeps for the next pages.
#ifndef DMS_SERVICES_DMS_CDS_MGR_SEARCH_H
#define DMS_SERVICES_DMS_CDS_MGR_SEARCH_H

#include <cstdint>
#include <vector>

#include "content/dmsClmApi.h"
#include "services/dmsCdsMgrApi.h"
#include "services/dmsCdsMgrResponseHandler.h"
#include "services/dmsCdsObjects.h"
#include "services/dmsCdsSearchCriteria.h"
#include "services/dmsCdsSort.h"
#include "util/dlnaUtil_buffer.h"
#include "util/dlnaUtil_didl.h"

// What one Search keeps besides its analysed arguments.
struct dmsCdsSearchState {
  dmsCdsSearchArgs *searchArgs = nullptr;
  uint8_t filterFlags[DMS_CDS_FILTER_COUNT] = {0};
  dmsCdsCriteria criteria;          // no root: every item
  bool containersWanted = false;    // the criteria asks for folders by class
  bool eachFileOnce = false;        // below Music, Pictures or Video: only the All lists' items
  dmsCdsSortCriteria sort;          // no keys: the walk's order
  // Set while a sorted Search walks: matches are put here, not written.
  std::vector<dmsCdsObject> *collected = nullptr;
  dmsCdsObjectRequest objects;      // the page's objects, as the Filter asks
  dmsCdsObjectRequest everything;   // every property, for the test
  // Reused from object to object by the walk.
  dmsCdsItemRecord item;
  dmsCdsContainerRecord container;
  dmsCdsSearchScratch scratch;
};

// Matches met so far (the page is taken from them) and objects written.
struct dmsCdsSearchCounters {
  int64_t matches = 0;
  int32_t written = 0;
};

// What a test or a sort reads of a built item or folder; the texts are
// borrowed from the record.
dmsCdsSearchSubject dmsCdsItemSubject(const dlnaUtilDidlItem &item);
dmsCdsSearchSubject dmsCdsContainerSubject(const dlnaUtilDidlContainer &container);

// Parses `searchCriteria` into the state's criteria and containers flag.
// 0, -100 for NULL arguments, DMS_CDS_ERR_INVALID_SEARCH_CRITERIA for
// criteria that do not parse, -97.
int32_t parseSearchCapabilities(const char *searchCriteria, dmsCdsSearchState *state);

// 1 when `subject` satisfies the state's criteria, 0 when not, -100 for NULL
// arguments, -97.  Uses the state's fold buffer.
int32_t dmsCdsCheckForContentMatch(dmsCdsSearchState *state, const dmsCdsSearchSubject *subject);

// Looks the container up, writes the page of matches below it and sets
// "Result", "NumberReturned" and "TotalMatches".  Read lock held by the caller.
int32_t dmsCdsCreateRespSearchItems(dmsCdsMgrHandle *handle, dmsCdsSearchState *state,
                                    dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer);

// Walks everything below `container`, counting matches and writing those in
// the page.  The walk keeps its own stack, so a deep folder tree costs heap,
// not call depth.
int32_t dmsCdsCreateRespSearchRecursive(dmsCdsMgrHandle *handle, dmsCdsSearchState *state,
                                        dmsCdsRespArgs *respArgs, const dmsCdsObject &container,
                                        dmsCdsSearchCounters *counters, dlnaUtilBuffer *buffer);

// Browse flag 3: every item below the object, paged like Search.  Read lock
// held by the caller (dmsCdsCreateRespBrowse).
int32_t dmsCdsCreateRespBrowseRecursive(dmsCdsMgrHandle *handle, dmsCdsBrowseArgs *browseArgs,
                                        dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer);

#endif  // DMS_SERVICES_DMS_CDS_MGR_SEARCH_H
