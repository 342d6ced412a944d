// SortCriteria of Browse (direct children) and Search: the text a control
// point sends, parsed once per request, and the sorted order of a list of
// objects, kept in the service's cache (dmsCdsSortCache.h).
//
// Text: keys separated by commas, each a property name with a '+'
// (ascending) or '-' (descending) before it, or no sign (ascending); blanks
// around a key are ignored.  An empty or blank text asks for no sorting.
// The keys are those GetSortCapabilities names: dc:title, dc:creator,
// upnp:artist, upnp:album, upnp:genre, upnp:originalTrackNumber, dc:date,
// upnp:class, res@size and res@duration.  An unknown key, an empty key, a
// sign alone or more than DMS_CDS_SORT_MAX_KEYS keys are refused with
// DMS_CDS_ERR_INVALID_SORT_CRITERIA (SOAP fault 709).
//
// Order: the first key decides, the next breaks its ties, and so on; the
// order the objects came in (the folder's, or the Search walk's) breaks the
// last ties, so equal requests give equal answers.  Texts compare ignoring
// case (util/dlnaUtil_fold.h) with runs of digits compared as numbers
// ("Track 2" before "Track 10"); the track number, size and playing time
// compare as numbers; the date compares as its ISO 8601 text; the class as
// its text.  An object without the property comes first ascending, last
// descending.  Folders and items sort together: a folder has a title and a
// class and lacks the rest.
#ifndef DMS_SERVICES_DMS_CDS_SORT_H
#define DMS_SERVICES_DMS_CDS_SORT_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "content/dmsClmApi.h"
#include "services/dmsCdsMgrApi.h"
#include "services/dmsCdsObjects.h"
#include "services/dmsCdsSortCache.h"

inline constexpr size_t DMS_CDS_SORT_MAX_KEYS = 16;

// The keys GetSortCapabilities answers, in the order of the sort key table.
extern const char DMS_CDS_SORT_CAPABILITIES[];

struct dmsCdsSortKey {
  uint8_t row = 0;          // row of the sort key table
  bool descending = false;
};

// A parsed SortCriteria; no keys: no sorting.  `normalised` is the keys
// written back with their signs ("+dc:title,-dc:date"), for the cache key.
struct dmsCdsSortCriteria {
  std::vector<dmsCdsSortKey> keys;
  std::string normalised;
};

// Parses `text` (NULL: no sorting) into `out` (which starts empty).  0 or
// DMS_CDS_ERR_INVALID_SORT_CRITERIA.  May throw std::bad_alloc.
int32_t dmsCdsParseSortCriteria(const char *text, dmsCdsSortCriteria &out);

// Puts the objects the caller lists, in their order, into `objects`.  0 or
// a failure code.
using dmsCdsSortCollect = std::function<int32_t(std::vector<dmsCdsObject> &objects)>;

// The ids of the objects `collect` lists, sorted by `criteria`: from the
// handle's cache when an order under `cacheKey` is there for the list as it
// is, else collected, sorted and stored.  The caller holds the content
// list's read lock.  0 with *order set, or collect's failure code.  May
// throw std::bad_alloc.
int32_t dmsCdsSortedOrder(dmsCdsMgrHandle *handle, const std::string &cacheKey,
                          const dmsCdsSortCriteria &criteria, const dmsCdsSortCollect &collect,
                          dmsCdsSortCache::Order *order);

#endif  // DMS_SERVICES_DMS_CDS_SORT_H
