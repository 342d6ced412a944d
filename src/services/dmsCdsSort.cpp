// SortCriteria: the key table, the parser and the sorted order of a list of
// objects (see dmsCdsSort.h for the contract).
#include "services/dmsCdsSort.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "dlna_dms.h"
#include "services/dmsCdsMgrResponseHandler.h"
#include "services/dmsCdsMgrSearch.h"
#include "util/dlnaUtil_fold.h"

const char DMS_CDS_SORT_CAPABILITIES[] =
    "dc:title,dc:creator,upnp:artist,upnp:album,upnp:genre,upnp:originalTrackNumber,dc:date,"
    "upnp:class,res@size,res@duration";

namespace {

using Subject = dmsCdsSearchSubject;

// One key's value for one object.
struct SortValue {
  bool present = false;
  int64_t number = 0;
  std::string text;
};

// How a key is read from an object, and how two values compare.
void readFolded(const char *text, SortValue &value) { dlnaUtil_foldCase(text, value.text); }
void readAsIs(const char *text, SortValue &value) { value.text = text; }

int compareNumbers(const SortValue &a, const SortValue &b) {
  return a.number < b.number ? -1 : b.number < a.number ? 1 : 0;
}

int compareBytes(const SortValue &a, const SortValue &b) { return a.text.compare(b.text); }

int compareNatural(const SortValue &a, const SortValue &b) { return dlnaUtil_compareNatural(a.text, b.text); }

struct SortKeyRow {
  const char *name;
  const char *Subject::*text;   // a text key, or
  int64_t Subject::*number;     // a number key
  void (*read)(const char *, SortValue &);  // texts only
  int (*compare)(const SortValue &, const SortValue &);
};

// One row per key GetSortCapabilities names, in its order.
constexpr SortKeyRow kSortKeys[] = {
    // name                        text                 number            read        compare
    {"dc:title",                   &Subject::title,     nullptr,          readFolded, compareNatural},
    {"dc:creator",                 &Subject::creator,   nullptr,          readFolded, compareNatural},
    {"upnp:artist",                &Subject::artist,    nullptr,          readFolded, compareNatural},
    {"upnp:album",                 &Subject::album,     nullptr,          readFolded, compareNatural},
    {"upnp:genre",                 &Subject::genre,     nullptr,          readFolded, compareNatural},
    {"upnp:originalTrackNumber",   nullptr,             &Subject::track,  nullptr,    compareNumbers},
    {"dc:date",                    &Subject::date,      nullptr,          readAsIs,   compareBytes},
    {"upnp:class",                 &Subject::upnpClass, nullptr,          readAsIs,   compareBytes},
    {"res@size",                   nullptr,             &Subject::size,   nullptr,    compareNumbers},
    {"res@duration",               nullptr,             &Subject::duration, nullptr,  compareNumbers},
};

constexpr std::string_view kBlanks = " \t\n\v\f\r";

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

int findKey(std::string_view name) {
  for (size_t row = 0; row < std::size(kSortKeys); ++row) {
    if (name == kSortKeys[row].name) return static_cast<int>(row);
  }
  return -1;
}

// Reads one key ("+name", "-name" or "name", already trimmed); false when
// it is not one.
bool readKey(std::string_view piece, dmsCdsSortKey &key) {
  key.descending = !piece.empty() && piece[0] == '-';
  if (!piece.empty() && (piece[0] == '-' || piece[0] == '+')) piece.remove_prefix(1);
  const int row = findKey(piece);
  key.row = static_cast<uint8_t>(row);
  return row >= 0;
}

// Reads one object's key values into `values` (one per key).
void readValues(const Subject &subject, const dmsCdsSortCriteria &criteria, SortValue *values) {
  for (size_t k = 0; k < criteria.keys.size(); ++k) {
    const SortKeyRow &row = kSortKeys[criteria.keys[k].row];
    SortValue &value = values[k];
    if (row.text != nullptr) {
      const char *text = subject.*row.text;
      value.present = text != nullptr && text[0] != '\0';
      if (value.present) row.read(text, value);
    } else {
      value.number = subject.*row.number;
      value.present = value.number != DMS_CDS_SEARCH_ABSENT;
    }
  }
}

// Every key's value of every object, `keys` values per object.  An item
// that cannot be built counts as lacking every property.
std::vector<SortValue> readAllValues(const dmsCdsMgrHandle *handle, const dmsCdsSortCriteria &criteria,
                                     const std::vector<dmsCdsObject> &objects) {
  static constexpr uint8_t kEveryProperty[DMS_CDS_FILTER_COUNT] = {0};
  const dmsCdsObjectRequest request{handle, "*", kEveryProperty, false, false, true};
  const size_t keys = criteria.keys.size();
  std::vector<SortValue> values(objects.size() * keys);
  dmsCdsItemRecord item;
  dmsCdsContainerRecord folder;
  for (size_t i = 0; i < objects.size(); ++i) {
    const dmsCdsObject &object = objects[i];
    Subject subject;
    if (object.isItem()) {
      if (dmsCdsBuildValidItem(request, object, item) == DMS_SUCCESS) subject = dmsCdsItemSubject(item.item);
    } else if (dmsCdsBuildValidContainer(request, object, folder) == DMS_SUCCESS) {
      subject = dmsCdsContainerSubject(folder.container);
    }
    readValues(subject, criteria, &values[i * keys]);
  }
  return values;
}

// -1, 0 or 1 as object a goes before, ties with or goes after object b.
int compareObjects(const dmsCdsSortCriteria &criteria, const SortValue *a, const SortValue *b) {
  for (size_t k = 0; k < criteria.keys.size(); ++k) {
    int order = a[k].present == b[k].present ? 0 : a[k].present ? 1 : -1;
    if (order == 0 && a[k].present) order = kSortKeys[criteria.keys[k].row].compare(a[k], b[k]);
    if (order != 0) return criteria.keys[k].descending ? -order : order;
  }
  return 0;
}

std::vector<uint32_t> sortObjects(const dmsCdsMgrHandle *handle, const dmsCdsSortCriteria &criteria,
                                  const std::vector<dmsCdsObject> &objects) {
  const std::vector<SortValue> values = readAllValues(handle, criteria, objects);
  const size_t keys = criteria.keys.size();
  std::vector<size_t> positions(objects.size());
  for (size_t i = 0; i < positions.size(); ++i) positions[i] = i;
  std::stable_sort(positions.begin(), positions.end(), [&](size_t a, size_t b) {
    return compareObjects(criteria, &values[a * keys], &values[b * keys]) < 0;
  });
  std::vector<uint32_t> ids;
  ids.reserve(positions.size());
  for (size_t position : positions) ids.push_back(objects[position].id());
  return ids;
}

}  // namespace

int32_t dmsCdsParseSortCriteria(const char *text, dmsCdsSortCriteria &out) {
  if (text == nullptr || trimmed(text).empty()) return DMS_SUCCESS;
  std::string_view rest(text);
  for (;;) {
    const size_t comma = rest.find(',');
    const std::string_view piece = trimmed(rest.substr(0, comma));
    dmsCdsSortKey key;
    if (out.keys.size() == DMS_CDS_SORT_MAX_KEYS || !readKey(piece, key)) {
      out = dmsCdsSortCriteria{};
      return DMS_CDS_ERR_INVALID_SORT_CRITERIA;
    }
    out.keys.push_back(key);
    if (!out.normalised.empty()) out.normalised += ',';
    out.normalised.append(key.descending ? "-" : "+").append(kSortKeys[key.row].name);
    if (comma == std::string_view::npos) return DMS_SUCCESS;
    rest.remove_prefix(comma + 1);
  }
}

int32_t dmsCdsSortedOrder(dmsCdsMgrHandle *handle, const std::string &cacheKey,
                          const dmsCdsSortCriteria &criteria, const dmsCdsSortCollect &collect,
                          dmsCdsSortCache::Order *order) {
  const dmsContentListInfo &list = *handle->contentList;
  const dmsViews *views = handle->views.load(std::memory_order_acquire);
  const dmsCdsListStamp stamp{list.systemUpdateId, list.nextId, list.entryCount,
                              views != nullptr ? views->generation() : 0};
  *order = handle->sortCache.find(cacheKey, stamp);
  if (*order != nullptr) return DMS_SUCCESS;
  std::vector<dmsCdsObject> objects;
  const int32_t status = collect(objects);
  if (status != DMS_SUCCESS) return status;
  *order = std::make_shared<const std::vector<uint32_t>>(sortObjects(handle, criteria, objects));
  handle->sortCache.store(cacheKey, stamp, *order);
  return DMS_SUCCESS;
}
