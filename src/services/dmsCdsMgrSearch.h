// ContentDirectory Search: the SearchCriteria terms, the walk below the
// requested container and the recursive browse that reuses it.
//
// The criteria language is small: the properties dc:title, dc:creator and
// upnp:class, the operators "contains", "=" and "exists", and the connective
// "and".  Title and creator operands are compared with the beginning of the
// item's text, case-sensitively; a upnp:class term is decided by which class
// the criteria text names.  Matches are counted over the whole walk and
// StartingIndex/RequestedCount pick the page that is written.
#ifndef DMS_SERVICES_DMS_CDS_MGR_SEARCH_H
#define DMS_SERVICES_DMS_CDS_MGR_SEARCH_H

#include <cstdint>
#include <string>
#include <vector>

#include "content/dmsClmApi.h"
#include "services/dmsCdsMgrApi.h"
#include "services/dmsCdsMgrResponseHandler.h"
#include "util/dlnaUtil_buffer.h"
#include "util/dlnaUtil_didl.h"

// Property kinds of a term.
inline constexpr uint32_t DMS_CDS_SEARCH_PROPERTY_TITLE = 1;    // dc:title
inline constexpr uint32_t DMS_CDS_SEARCH_PROPERTY_CLASS = 2;    // upnp:class
inline constexpr uint32_t DMS_CDS_SEARCH_PROPERTY_CREATOR = 3;  // dc:creator

// Entry types of the term list: a term joined by "or" to what came before,
// or one joined by "and".
inline constexpr uint32_t DMS_CDS_SEARCH_ENTRY_TERM = 1;
inline constexpr uint32_t DMS_CDS_SEARCH_ENTRY_AND = 17;

// The operator that follows a property in the criteria.  Operands are kept
// as written, quote included ("Song" arrives as "\"Song\"").
struct dmsCdsSearchOperator {
  uint32_t containsSet = 0;
  std::string containsOperand;
  uint32_t equalsSet = 0;
  std::string equalsOperand;
  uint8_t existsSet = 0;
  uint8_t existsTrue = 0;  // the token after "exists" is "true"
};

struct dmsCdsSearchTerm {
  dmsCdsSearchOperator searchOperator;
  uint32_t property = 0;  // DMS_CDS_SEARCH_PROPERTY_*
  uint8_t match = 0;      // result for the item being looked at
};

struct dmsCdsSearchTermEntry {
  dmsCdsSearchTerm term;
  uint32_t entryType = DMS_CDS_SEARCH_ENTRY_TERM;
};

// What one Search keeps besides its analysed arguments.
struct dmsCdsSearchState {
  dmsCdsSearchArgs *searchArgs = nullptr;
  uint8_t filterFlags[DMS_CDS_FILTER_COUNT] = {0};
  std::vector<dmsCdsSearchTermEntry> terms;
  bool containersWanted = false;  // the criteria names object.container
  dmsCdsObjectRequest objects;    // filled by dmsCdsCreateRespSearchItems
};

// Matches met so far (the page is taken from them) and objects written.
struct dmsCdsSearchCounters {
  int64_t matches = 0;
  int32_t written = 0;
};

// Turns `searchCriteria` into the state's term list and containers flag.
// 0 or -97.
int32_t parseSearchCapabilities(const char *searchCriteria, dmsCdsSearchState *state);

// 1 when `item` satisfies `term`, else 0.  `searchCriteria` is the whole
// criteria text, which decides upnp:class terms.
int32_t dmsCdsCheckForContentMatch(const dlnaUtilDidlItem *item, const char *searchCriteria,
                                   const dmsCdsSearchTerm *term);

// Looks the container up, writes the page of matches below it and sets
// "Result", "NumberReturned" and "TotalMatches".  Read lock held by the caller.
int32_t dmsCdsCreateRespSearchItems(dmsCdsMgrHandle *handle, dmsCdsSearchState *state,
                                    dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer);

// Walks everything below `container` in stored order, a folder before its
// contents, counting matches and writing those in the page.  The walk keeps
// its own stack, so a deep folder tree costs heap, not call depth.
int32_t dmsCdsCreateRespSearchRecursive(dmsCdsMgrHandle *handle, dmsCdsSearchState *state,
                                        dmsCdsRespArgs *respArgs, dmsContentEntry *container,
                                        dmsCdsSearchCounters *counters, dlnaUtilBuffer *buffer);

// Browse flag 3: every item below the object, paged like Search.  Read lock
// held by the caller (dmsCdsCreateRespBrowse).
int32_t dmsCdsCreateRespBrowseRecursive(dmsCdsMgrHandle *handle, dmsCdsBrowseArgs *browseArgs,
                                        dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer);

#endif  // DMS_SERVICES_DMS_CDS_MGR_SEARCH_H
