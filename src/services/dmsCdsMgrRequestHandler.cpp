// ContentDirectory request analysis: reads the input arguments of Browse and
// Search out of the request document into their records, and parses the
// Filter argument into the flags that decide which optional DIDL-Lite
// properties an answer carries.
//
// Every code of the XML argument reader is mapped into the server's codes
// first, so a missing argument reads as DMS_ERR_NOT_FOUND (-69), which the
// event manager answers with SOAP 402 "Invalid Args".
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "dlna_dms.h"
#include "clients/dmsClients.h"
#include "services/dmsCdsMgrApi.h"
#include "services/dmsCdsQuirks.h"
#include "views/dmsViewIds.h"
#include "util/dlnaUtil_didl.h"
#include "util/dlnaUtil_xmlParser.h"
#include "util/dmsErrors.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsCdsMgrRequestHandler";

namespace {

// Browse's ContainerID fallback maps ids below the first allocated entry id
// to the root; Search maps ids below this one, one lower, to the root.
constexpr int32_t kBrowseFirstObjectId = 1001;
constexpr int32_t kSearchFirstContainerId = 1000;

struct FreeDeleter {
  void operator()(char *text) const { std::free(text); }
};
using MallocText = std::unique_ptr<char, FreeDeleter>;

void freeText(char *&text) {
  std::free(text);
  text = nullptr;
}

bool containsIgnoringCase(std::string_view text, std::string_view wanted) {
  if (wanted.size() > text.size()) return false;
  for (size_t start = 0; start + wanted.size() <= text.size(); ++start) {
    size_t i = 0;
    while (i < wanted.size() &&
           std::tolower(static_cast<unsigned char>(text[start + i])) ==
               std::tolower(static_cast<unsigned char>(wanted[i]))) {
      ++i;
    }
    if (i == wanted.size()) return true;
  }
  return false;
}

bool equalsIgnoringCase(std::string_view text, std::string_view wanted) {
  return text.size() == wanted.size() && containsIgnoringCase(text, wanted);
}

bool contains(std::string_view text, std::string_view wanted) {
  return text.find(wanted) != std::string_view::npos;
}

// Calls `visit` for each comma-separated token of `text`, cutting the text at
// every comma.  Blanks are kept: " upnp:album" is a token of its own.
template <typename Visit>
void forEachFilterToken(char *text, Visit visit) {
  char *token = text;
  while (token != nullptr) {
    char *comma = std::strchr(token, ',');
    if (comma != nullptr) *comma = '\0';
    visit(std::string_view(token));
    token = comma != nullptr ? comma + 1 : nullptr;
  }
}

// Reads one integer argument; failures are traced and mapped.
// One answer holds at most DMS_CDS_MAX_OBJECTS objects, however many are
// asked for (0 asks for all): a server may return fewer than requested, and
// control points page on by TotalMatches.  This bounds the memory and time
// of one answer whatever the folder's size.
int32_t capRequestedCount(int32_t requested) {
  return requested == 0 || requested > DMS_CDS_MAX_OBJECTS ? DMS_CDS_MAX_OBJECTS : requested;
}

int32_t readInteger(IXML_Document *document, const char *name, int32_t *value) {
  int32_t result = dmsUtilErrMapToDmsErr(dlnaUtil_xmlParserGetInteger(document, name, value));
  if (result != DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n",
              "dlnaUtil_xmlParserGetInteger", result);
  }
  return result;
}

// Reads one text argument (a heap copy, freed by the caller); failures are
// traced and mapped.
int32_t readString(IXML_Document *document, const char *name, char **value) {
  int32_t result = dmsUtilErrMapToDmsErr(dlnaUtil_xmlParserGetString(document, name, value));
  if (result != DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n",
              "dlnaUtil_xmlParserGetString", result);
  }
  return result;
}

// Whether `id`, below the first entry id, names a container of the views
// (shown): such ids are not taken for the root.
bool namesView(const dmsCdsMgrHandle *handle, int32_t id) {
  return id > 0 && handle->views.load(std::memory_order_acquire) != nullptr &&
         dmsViewIds::isViewId(static_cast<uint32_t>(id));
}

// An Xbox 360's own fixed container id in argument `name`, as the container
// it means; false when the argument is absent or another id.
bool readXboxContainer(const dmsCdsMgrHandle *handle, IXML_Document *document, const char *name, int32_t *id) {
  char *text = nullptr;
  if (dlnaUtil_xmlParserGetString(document, name, &text) != 0) return false;
  MallocText owned(text);
  return dmsCdsXboxContainer(text, handle->views.load(std::memory_order_acquire) != nullptr, *id);
}

// A player's SortCriteria as it meant it (services/dmsCdsQuirks.h).
void fitSortCriteria(uint32_t quirks, char *&sortCriteria) {
  if (sortCriteria == nullptr || (quirks & (DMS_QUIRK_SORT_TITLE | DMS_QUIRK_SORT_DROP_UNKNOWN)) == 0) return;
  char *fitted = strdup(dmsCdsFitSortCriteria(quirks, sortCriteria).c_str());
  if (fitted == nullptr) return;  // the criteria as sent
  std::free(sortCriteria);
  sortCriteria = fitted;
}

// The object to browse: ObjectID, or, when a control point sent none, its
// ContainerID (ids below the first entry id mean the root, but for those of
// the views).
int32_t readBrowseObjectId(const dmsCdsMgrHandle *handle, IXML_Document *document, uint32_t quirks,
                           int32_t *objectId) {
  if ((quirks & DMS_QUIRK_XBOX_CONTAINERS) &&
      (readXboxContainer(handle, document, "ObjectID", objectId) ||
       readXboxContainer(handle, document, "ContainerID", objectId))) {
    return DMS_SUCCESS;
  }
  int32_t result = readInteger(document, "ObjectID", objectId);
  if (result != DMS_ERR_NOT_FOUND) return result;
  DMS_TRACE(OSAL_TRACE_WARN, "If ObjectID is not found, Try getting ContentID\n");
  int32_t containerId = -1;
  result = readInteger(document, "ContainerID", &containerId);
  if (result != DMS_SUCCESS) return result;
  *objectId = containerId < kBrowseFirstObjectId && !namesView(handle, containerId) ? 0 : containerId;
  return DMS_SUCCESS;
}

// Reads the Browse arguments in their fixed order; stops at the first failure.
int32_t readBrowseArguments(const dmsCdsMgrHandle *handle, IXML_Document *document, dmsCdsBrowseArgs *browseArgs,
                            MallocText &browseFlag) {
  int32_t result = readBrowseObjectId(handle, document, browseArgs->quirks, &browseArgs->objectId);
  if (result != DMS_SUCCESS) return result;
  char *flagText = nullptr;
  result = readString(document, "BrowseFlag", &flagText);
  browseFlag.reset(flagText);
  if (result != DMS_SUCCESS) return result;
  result = readString(document, "Filter", &browseArgs->filter);
  if (result != DMS_SUCCESS) return result;
  result = readInteger(document, "StartingIndex", &browseArgs->startingIndex);
  if (result != DMS_SUCCESS) return result;
  result = readInteger(document, "RequestedCount", &browseArgs->requestedCount);
  if (result != DMS_SUCCESS) return result;
  result = readString(document, "SortCriteria", &browseArgs->sortCriteria);
  if (result == DMS_SUCCESS) fitSortCriteria(browseArgs->quirks, browseArgs->sortCriteria);
  return result;
}

int32_t checkBrowseArguments(dmsCdsBrowseArgs *browseArgs, const char *browseFlag) {
  if (browseFlag != nullptr && std::strcmp(browseFlag, "BrowseMetadata") == 0) {
    browseArgs->browseFlag = DMS_CDS_BROWSE_METADATA;
  } else if (browseFlag != nullptr && std::strcmp(browseFlag, "BrowseDirectChildren") == 0) {
    browseArgs->browseFlag = DMS_CDS_BROWSE_DIRECT_CHILDREN;
  } else {
    DMS_TRACE(OSAL_TRACE_ERR, "Extracted Browse Flag value (%s) is not valid\n",
              browseFlag != nullptr ? browseFlag : "");
    browseArgs->browseFlag = 0;
    return DMS_ERR_INVALID_BROWSE_FLAG;
  }
  if (browseArgs->objectId < 0) browseArgs->objectId = 0;
  if (browseArgs->startingIndex < 0 || browseArgs->requestedCount < 0 ||
      browseArgs->filter == nullptr || browseArgs->sortCriteria == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Extracted Browse Request Argument value is not valid\n");
    return DMS_ERR_INVALID_BROWSE_FLAG;
  }
  browseArgs->requestedCount = capRequestedCount(browseArgs->requestedCount);
  return DMS_SUCCESS;
}

void resetBrowseArgs(dmsCdsBrowseArgs *browseArgs) {
  browseArgs->objectId = -1;
  browseArgs->startingIndex = 0;
  browseArgs->requestedCount = 0;
  freeText(browseArgs->filter);
  freeText(browseArgs->sortCriteria);
}

// Reads the Search arguments in their fixed order; stops at the first failure.
int32_t readSearchArguments(const dmsCdsMgrHandle *handle, IXML_Document *document, dmsCdsSearchArgs *searchArgs) {
  int32_t result = DMS_SUCCESS;
  if (!(searchArgs->quirks & DMS_QUIRK_XBOX_CONTAINERS) ||
      !readXboxContainer(handle, document, "ContainerID", &searchArgs->containerId)) {
    result = readInteger(document, "ContainerID", &searchArgs->containerId);
    if (result != DMS_SUCCESS) return result;
    if (searchArgs->containerId < kSearchFirstContainerId && !namesView(handle, searchArgs->containerId)) {
      searchArgs->containerId = 0;
    }
  }
  result = readString(document, "SearchCriteria", &searchArgs->searchCriteria);
  if (result != DMS_SUCCESS) return result;
  result = readString(document, "Filter", &searchArgs->filter);
  if (result != DMS_SUCCESS) return result;
  result = readInteger(document, "StartingIndex", &searchArgs->startingIndex);
  if (result != DMS_SUCCESS) return result;
  result = readInteger(document, "RequestedCount", &searchArgs->requestedCount);
  if (result != DMS_SUCCESS) return result;
  result = readString(document, "SortCriteria", &searchArgs->sortCriteria);
  if (result == DMS_SUCCESS) fitSortCriteria(searchArgs->quirks, searchArgs->sortCriteria);
  return result;
}

void resetSearchArgs(dmsCdsSearchArgs *searchArgs) {
  searchArgs->containerId = -1;
  searchArgs->startingIndex = 0;
  searchArgs->requestedCount = 0;
  freeText(searchArgs->searchCriteria);
  freeText(searchArgs->filter);
  freeText(searchArgs->sortCriteria);
}

// One row of the item Filter table: a token test and the flags it clears.
struct dmsCdsItemFilterRule {
  bool (*matches)(std::string_view token, std::string_view name);
  const char *name;
  int firstFlag;
  int secondFlag;  // -1: none
};

bool ruleContainsIgnoringCase(std::string_view token, std::string_view name) {
  return containsIgnoringCase(token, name);
}
bool ruleEqualsIgnoringCase(std::string_view token, std::string_view name) {
  return equalsIgnoringCase(token, name);
}
bool ruleEquals(std::string_view token, std::string_view name) { return token == name; }
bool ruleContains(std::string_view token, std::string_view name) { return contains(token, name); }

// Tried in this order; the first rule that holds decides the token.  The
// DIDL-Lite creator is switched on by "upnp:creator", and "res@protocolInfo"
// does not switch `res` on.
const dmsCdsItemFilterRule gsa_s_dmsCdsItemFilterRules[] = {
    // token test                 name               flags cleared
    {ruleContainsIgnoringCase,    "dc:date",         DMS_CDS_FILTER_DATE,     -1},
    {ruleEqualsIgnoringCase,      "upnp:genre",      DMS_CDS_FILTER_GENRE,    -1},
    {ruleEquals,                  "upnp:album",      DMS_CDS_FILTER_ALBUM,    -1},
    {ruleEquals,                  "upnp:creator",    DMS_CDS_FILTER_CREATOR,  -1},
    {ruleEquals,                  "res",             DMS_CDS_FILTER_RES,      -1},
    {ruleEquals,                  "res@size",        DMS_CDS_FILTER_RES,      DMS_CDS_FILTER_SIZE},
    {ruleEquals,                  "res@duration",    DMS_CDS_FILTER_RES,      DMS_CDS_FILTER_DURATION},
    {ruleContains,                "res@resolution",  DMS_CDS_FILTER_RES,      DMS_CDS_FILTER_RESOLUTION},
    {ruleContains,                "res@bitrate",     DMS_CDS_FILTER_RES,      DMS_CDS_FILTER_BITRATE},
    {ruleEquals,                  "upnp:artist",     DMS_CDS_FILTER_ARTIST,   -1},
    {ruleEquals,                  "upnp:originalTrackNumber", DMS_CDS_FILTER_TRACK, -1},
    {ruleContains,                "upnp:albumArtURI", DMS_CDS_FILTER_ALBUMART, -1},
    {ruleEquals,                  "upnp:lastPlaybackPosition", DMS_CDS_FILTER_RESUME, -1},
    {ruleEquals,                  "upnp:playbackCount", DMS_CDS_FILTER_PLAYCOUNT, -1},
};

void applyItemFilterToken(uint8_t *filterFlags, std::string_view token) {
  for (const dmsCdsItemFilterRule &rule : gsa_s_dmsCdsItemFilterRules) {
    if (!rule.matches(token, rule.name)) continue;
    filterFlags[rule.firstFlag] = 0;
    if (rule.secondFlag >= 0) filterFlags[rule.secondFlag] = 0;
    return;
  }
}

}  // namespace

int32_t dmsCdsAnalyzeReqBrowse(dmsCdsMgrHandle *handle, dmsActionRequest *actionRequest,
                               dmsCdsBrowseArgs *browseArgs) {
  if (handle == nullptr || actionRequest == nullptr || browseArgs == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  IXML_Document *document = actionRequest->arguments;
  dlnaUtil_xmlParserPrintXmlDocument(document);

  if (actionRequest->client != nullptr) browseArgs->quirks = actionRequest->client->quirks;
  MallocText browseFlag;  // only needed until the flag is decoded
  int32_t result = readBrowseArguments(handle, document, browseArgs, browseFlag);
  if (result == DMS_SUCCESS) result = checkBrowseArguments(browseArgs, browseFlag.get());
  if (result != DMS_SUCCESS) resetBrowseArgs(browseArgs);
  return result;
}

int32_t dmsCdsAnalyzeReqSearch(dmsCdsMgrHandle *handle, dmsActionRequest *actionRequest,
                               dmsCdsSearchArgs *searchArgs) {
  if (handle == nullptr || actionRequest == nullptr || searchArgs == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  IXML_Document *document = actionRequest->arguments;
  dlnaUtil_xmlParserPrintXmlDocument(document);

  if (actionRequest->client != nullptr) searchArgs->quirks = actionRequest->client->quirks;
  int32_t result = readSearchArguments(handle, document, searchArgs);
  if (result == DMS_SUCCESS &&
      (searchArgs->containerId < 0 || searchArgs->startingIndex < 0 ||
       searchArgs->requestedCount < 0 || searchArgs->searchCriteria == nullptr ||
       searchArgs->filter == nullptr || searchArgs->sortCriteria == nullptr)) {
    DMS_TRACE(OSAL_TRACE_ERR, "Extracted Search Request Argument value is not valid\n");
    result = DMS_ERR_INVALID_BROWSE_FLAG;
  }
  // A player that asks for fewer than it then waits for gets everything.
  if (searchArgs->quirks & DMS_QUIRK_SEARCH_COUNT_ALL) searchArgs->requestedCount = 0;
  if (result == DMS_SUCCESS) searchArgs->requestedCount = capRequestedCount(searchArgs->requestedCount);
  if (result != DMS_SUCCESS) resetSearchArgs(searchArgs);
  return result;
}

int32_t dmsCdsReleaseReqArgsBrowse(dmsCdsBrowseArgs *browseArgs) {
  if (browseArgs == nullptr) return DMS_SUCCESS;
  resetBrowseArgs(browseArgs);
  browseArgs->browseFlag = 0;
  return DMS_SUCCESS;
}

int32_t dmsCdsReleaseReqArgsSearch(dmsCdsSearchArgs *searchArgs) {
  if (searchArgs == nullptr) return DMS_SUCCESS;
  resetSearchArgs(searchArgs);
  return DMS_SUCCESS;
}

int32_t dmsCdsParseItemFilter(uint8_t *filterFlags, char *filterCopy) {
  if (filterFlags == nullptr || filterCopy == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  forEachFilterToken(filterCopy, [filterFlags](std::string_view token) {
    applyItemFilterToken(filterFlags, token);
  });
  return DMS_SUCCESS;
}

int32_t dmsCdsParseContainerFilter(dlnaUtilDidlContainer *container, char *filterCopy) {
  if (container == nullptr || filterCopy == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  // 0 means "write it": the caller fills in the child count, and turns a
  // searchable of 0 into searchable="1".
  forEachFilterToken(filterCopy, [container](std::string_view token) {
    if (containsIgnoringCase(token, "@childCount")) {
      container->childCount = 0;
    } else if (containsIgnoringCase(token, "@searchState")) {
      container->searchable = 0;
    }
  });
  return DMS_SUCCESS;
}
