// ContentDirectory Search: criteria parsing, matching, and the walk below
// the requested container that writes one page of the matches.
#include "services/dmsCdsMgrSearch.h"

#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "dlna_dms.h"
#include "util/dmsErrors.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsCdsMgrSearch";

namespace {

constexpr char kContainerClassName[] = "object.container";
constexpr char kUnknownCreator[] = "Unknown";

// A upnp:class term: the first class the criteria text names decides which
// items match.
struct ClassCriterion {
  const char *named;        // found anywhere in the criteria text
  const char *itemClass;    // the item's class must contain this
};

constexpr ClassCriterion kClassCriteria[] = {
    // criteria names            item class contains
    {"object.item.imageItem",    "object.item.imageItem.photo"},
    {"object.item.audioItem",    "object.item.audioItem.musicTrack"},
    {"object.item.videoItem",    "object.item.videoItem"},
};

// Splits at single blanks; single quotes and grouping parentheses (which
// control points put around a whole criteria) are dropped and empty tokens
// skipped.
std::vector<std::string> tokensOf(const char *criteria) {
  std::vector<std::string> tokens;
  std::string token;
  for (const char *cursor = criteria;; ++cursor) {
    if (*cursor == ' ' || *cursor == '\0') {
      if (!token.empty()) tokens.push_back(std::move(token));
      token.clear();
      if (*cursor == '\0') break;
    } else if (*cursor != '\'' && *cursor != '(' && *cursor != ')') {
      token.push_back(*cursor);
    }
  }
  return tokens;
}

// Reads the operator after a property at tokens[next]; returns how many
// tokens it took.
size_t readOperator(const std::vector<std::string> &tokens, size_t next,
                    dmsCdsSearchOperator &searchOperator) {
  if (next >= tokens.size()) return 0;
  const std::string &name = tokens[next];
  const std::string operand = next + 1 < tokens.size() ? tokens[next + 1] : std::string();
  const size_t taken = next + 1 < tokens.size() ? 2 : 1;
  if (name == "contains") {
    searchOperator.containsSet = 1;
    searchOperator.containsOperand = operand;
  } else if (name == "=") {
    searchOperator.equalsSet = 1;
    searchOperator.equalsOperand = operand;
  } else if (name == "exists") {
    searchOperator.existsSet = 1;
    searchOperator.existsTrue = operand == "true" ? 1 : 0;
  } else {
    return 0;
  }
  return taken;
}

// The text an operand compares: without its opening quote and cut at its
// last double quote.
std::string operandText(const std::string &operand) {
  const size_t begin = !operand.empty() && operand.front() == '"' ? 1 : 0;
  const size_t lastQuote = operand.rfind('"');
  const size_t end = lastQuote != std::string::npos && lastQuote >= begin ? lastQuote
                                                                          : operand.size();
  return operand.substr(begin, end - begin);
}

uint8_t matchText(const dmsCdsSearchOperator &searchOperator, const char *text) {
  const std::string *operand = nullptr;
  if (searchOperator.containsSet != 0) {
    operand = &searchOperator.containsOperand;
  } else if (searchOperator.existsSet != 0 && searchOperator.existsTrue != 0) {
    return 1;
  } else if (searchOperator.equalsSet != 0) {
    operand = &searchOperator.equalsOperand;
  } else {
    return 0;
  }
  const std::string prefix = operandText(*operand);
  return text != nullptr && std::strncmp(text, prefix.c_str(), prefix.size()) == 0 ? 1 : 0;
}

uint8_t matchClass(const dmsCdsSearchOperator &searchOperator, const char *criteria,
                   const char *itemClass) {
  if (searchOperator.existsSet != 0 && searchOperator.existsTrue != 0) return 1;
  if (criteria == nullptr || itemClass == nullptr) return 0;
  for (const ClassCriterion &criterion : kClassCriteria) {
    if (std::strstr(criteria, criterion.named) != nullptr) {
      return std::strstr(itemClass, criterion.itemClass) != nullptr ? 1 : 0;
    }
  }
  return 0;
}

// Folds the terms left to right: "and" entries narrow, plain terms widen.
// No terms (an empty or "*" criteria) match every item.
bool itemMatches(dmsCdsSearchState &state, const dlnaUtilDidlItem &item) {
  if (state.terms.empty()) return true;
  const char *criteria = state.searchArgs->searchCriteria;
  for (dmsCdsSearchTermEntry &entry : state.terms) {
    entry.term.match =
        static_cast<uint8_t>(dmsCdsCheckForContentMatch(&item, criteria, &entry.term));
  }
  bool result = state.terms.front().term.match != 0;
  for (size_t index = 1; index < state.terms.size(); ++index) {
    const dmsCdsSearchTermEntry &entry = state.terms[index];
    if (entry.entryType == DMS_CDS_SEARCH_ENTRY_AND) {
      result = result && entry.term.match != 0;
    } else if (entry.entryType == DMS_CDS_SEARCH_ENTRY_TERM) {
      result = result || entry.term.match != 0;
    } else {
      DMS_TRACE(OSAL_TRACE_ERR, "Invalid Operator in Search Criteria %s\n", criteria);
    }
  }
  return result;
}

// Counts one match; true when it falls in the requested page.
bool countMatch(const dmsCdsSearchArgs &args, dmsCdsSearchCounters &counters) {
  const int64_t index = counters.matches++;
  if (index < args.startingIndex || counters.written == INT32_MAX) return false;
  return args.requestedCount == 0 || index - args.startingIndex < args.requestedCount;
}

int32_t traceWriterFailure(const char *callee, int32_t code) {
  DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n", callee, code);
  return dmsUtilErrMapToDmsErr(code);
}

int32_t visitItem(dmsCdsSearchState &state, dmsContentEntry *entry,
                  dmsCdsSearchCounters &counters, dlnaUtilBuffer *buffer) {
  dmsCdsItemRecord record;
  int32_t status = dmsCdsBuildItem(&state.objects, entry, &record);
  if (status != DMS_SUCCESS) return status;
  if (!dmsCdsItemIsValid(record.item)) {
    DMS_TRACE(OSAL_TRACE_ERR, "Item detail information is not valid\n");
    return DMS_ERR_INVALID_PARAM;
  }
  dlnaUtilDidlItem matched = record.item;
  if (record.artist != nullptr) matched.creator = record.artist;
  if (!itemMatches(state, matched) || !countMatch(*state.searchArgs, counters)) {
    return DMS_SUCCESS;
  }
  if ((status = dlnaUtil_DIDLAddItem(buffer, &record.item)) != 0) {
    return traceWriterFailure("dlnaUtil_DIDLAddItem", status);
  }
  ++counters.written;
  return DMS_SUCCESS;
}

int32_t visitContainer(dmsCdsSearchState &state, dmsContentEntry *entry,
                       dmsCdsSearchCounters &counters, dlnaUtilBuffer *buffer) {
  if (!state.containersWanted) return DMS_SUCCESS;
  dmsCdsContainerRecord record;
  int32_t status = dmsCdsBuildContainer(&state.objects, entry, &record);
  if (status != DMS_SUCCESS) return status;
  if (!dmsCdsContainerIsValid(record.container)) {
    DMS_TRACE(OSAL_TRACE_ERR, "Container detail information is not valid\n");
    return DMS_ERR_INVALID_PARAM;
  }
  if (!countMatch(*state.searchArgs, counters)) return DMS_SUCCESS;
  if ((status = dlnaUtil_DIDLAddContainer(buffer, &record.container)) != 0) {
    return traceWriterFailure("dlnaUtil_DIDLAddContainer", status);
  }
  ++counters.written;
  return DMS_SUCCESS;
}

// The walk's stack frame: a container and the next child to look at.
struct WalkFrame {
  dmsContentEntry *container;
  size_t next;
};

}  // namespace

int32_t parseSearchCapabilities(const char *searchCriteria, dmsCdsSearchState *state) {
  if (searchCriteria == nullptr || state == nullptr) return DMS_ERR_INVALID_PARAM;
  return dmsGuard("parseSearchCapabilities", DMS_ERR_NO_MEMORY, [&] {
    const std::vector<std::string> tokens = tokensOf(searchCriteria);
    bool andPending = false;  // a doubled "and" counts once; a leading one not at all
    for (size_t index = 0; index < tokens.size(); ++index) {
      const std::string &token = tokens[index];
      if (token == "and") {
        andPending = !state->terms.empty();
        continue;
      }
      dmsCdsSearchTermEntry entry;
      if (token == "dc:title" || token == "dc:creator") {
        entry.term.property =
            token == "dc:title" ? DMS_CDS_SEARCH_PROPERTY_TITLE : DMS_CDS_SEARCH_PROPERTY_CREATOR;
        index += readOperator(tokens, index + 1, entry.term.searchOperator);
      } else if (token == "upnp:class") {
        entry.term.property = DMS_CDS_SEARCH_PROPERTY_CLASS;
        if (index + 1 < tokens.size() && tokens[index + 1] == "exists") {
          index += readOperator(tokens, index + 1, entry.term.searchOperator);
        }
      } else {
        continue;  // operators of other properties and unknown words
      }
      entry.entryType = andPending ? DMS_CDS_SEARCH_ENTRY_AND : DMS_CDS_SEARCH_ENTRY_TERM;
      andPending = false;
      state->terms.push_back(std::move(entry));
    }
    state->containersWanted = std::strstr(searchCriteria, kContainerClassName) != nullptr;
    return DMS_SUCCESS;
  });
}

int32_t dmsCdsCheckForContentMatch(const dlnaUtilDidlItem *item, const char *searchCriteria,
                                   const dmsCdsSearchTerm *term) {
  if (item == nullptr || term == nullptr) return 0;
  return dmsGuard("dmsCdsCheckForContentMatch", 0, [&]() -> int32_t {
    switch (term->property) {
      case DMS_CDS_SEARCH_PROPERTY_TITLE:
        return matchText(term->searchOperator, item->title);
      case DMS_CDS_SEARCH_PROPERTY_CREATOR:
        return matchText(term->searchOperator,
                         item->creator != nullptr ? item->creator : kUnknownCreator);
      case DMS_CDS_SEARCH_PROPERTY_CLASS:
        return matchClass(term->searchOperator, searchCriteria, item->upnpClass);
      default:
        return 0;
    }
  });
}

int32_t dmsCdsCreateRespSearchRecursive(dmsCdsMgrHandle *handle, dmsCdsSearchState *state,
                                        dmsCdsRespArgs *respArgs, dmsContentEntry *container,
                                        dmsCdsSearchCounters *counters, dlnaUtilBuffer *buffer) {
  if (handle == nullptr || state == nullptr || state->searchArgs == nullptr ||
      respArgs == nullptr || container == nullptr || counters == nullptr || buffer == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsGuard("dmsCdsCreateRespSearchRecursive", DMS_ERR_NO_MEMORY, [&] {
    std::vector<WalkFrame> stack{{container, 0}};
    while (!stack.empty()) {
      WalkFrame &frame = stack.back();
      if (frame.next >= dmsClmChildren(frame.container).size()) {
        stack.pop_back();
        continue;
      }
      dmsContentEntry *child = dmsClmChildren(frame.container)[frame.next++];
      if (child == nullptr) {
        DMS_TRACE(OSAL_TRACE_ERR, "Content entry not available\n");
        return DMS_ERR_NO_SUCH_OBJECT;
      }
      const bool isItem = child->type >= DMS_CLM_TYPE_ITEM;
      const int32_t status = isItem ? visitItem(*state, child, *counters, buffer)
                                    : visitContainer(*state, child, *counters, buffer);
      if (status != DMS_SUCCESS) return status;
      if (!isItem) stack.push_back({child, 0});  // `frame` is not used past this point
    }
    return DMS_SUCCESS;
  });
}

int32_t dmsCdsCreateRespSearchItems(dmsCdsMgrHandle *handle, dmsCdsSearchState *state,
                                    dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer) {
  if (handle == nullptr || state == nullptr || state->searchArgs == nullptr ||
      respArgs == nullptr || buffer == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  const dmsCdsSearchArgs &args = *state->searchArgs;
  dmsContentEntry *container = nullptr;
  if (args.containerId >= 0) {
    const int32_t status = dmsClmGetContentEntryById(handle->contentList, &container,
                                                     static_cast<uint32_t>(args.containerId));
    if (status != DMS_SUCCESS) {
      DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n",
                "dmsClmGetContentEntryById", status);
      return status;
    }
  }
  if (container == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR,
              "Container object for the Requested Container ID(%d) is not available\n",
              args.containerId);
    return DMS_ERR_NO_SUCH_OBJECT;
  }
  if (container->type >= DMS_CLM_TYPE_ITEM) {
    DMS_TRACE(OSAL_TRACE_ERR, "Invalid content entry type %d\n", static_cast<int>(container->type));
    return DMS_ERR_INVALID_PARAM;
  }
  if (args.startingIndex < 0 || args.requestedCount < 0) {
    DMS_TRACE(OSAL_TRACE_ERR,
              "Invalid value: StartingIndex = %d: RequestedCount = %d: ChildCount = %d\n",
              args.startingIndex, args.requestedCount,
              static_cast<int>(dmsClmChildren(container).size()));
    return DMS_ERR_INVALID_PARAM;
  }
  int32_t status = dmsCdsPrepareObjectRequest(handle, args.filter, state->filterFlags, false,
                                              &state->objects);
  if (status != DMS_SUCCESS) return status;
  if ((status = dlnaUtil_DIDLAddHeader(buffer)) != 0) {
    return traceWriterFailure("dlnaUtil_DIDLAddHeader", status);
  }
  dmsCdsSearchCounters counters;
  status = dmsCdsCreateRespSearchRecursive(handle, state, respArgs, container, &counters, buffer);
  if (status != DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n",
              "dmsCdsCreateRespSearchRecursive", status);
    return status;
  }
  if ((status = dlnaUtil_DIDLAddFooter(buffer)) != 0) {
    return traceWriterFailure("dlnaUtil_DIDLAddFooter", status);
  }
  return dmsCdsSetResultArguments(respArgs, buffer, counters.written, counters.matches);
}

int32_t dmsCdsCreateRespSearch(dmsCdsMgrHandle *handle, void *requestArgs,
                               dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer) {
  auto *searchArgs = static_cast<dmsCdsSearchArgs *>(requestArgs);
  if (handle == nullptr || searchArgs == nullptr || respArgs == nullptr || buffer == nullptr ||
      buffer->data == nullptr || handle->contentList == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  dmsCdsNameResultArguments(respArgs);
  return dmsGuard("dmsCdsCreateRespSearch", DMS_ERR_NO_MEMORY, [&] {
    dmsCdsSearchState state;
    state.searchArgs = searchArgs;
    int32_t status = dmsCdsSetItemFilterFlags(searchArgs->filter, state.filterFlags);
    if (status != DMS_SUCCESS) return status;
    if (searchArgs->searchCriteria != nullptr && searchArgs->searchCriteria[0] != '\0') {
      if ((status = parseSearchCapabilities(searchArgs->searchCriteria, &state)) != DMS_SUCCESS) {
        return status;
      }
    }
    {
      auto reading = dmsClmReadLock(handle->contentList);
      status = dmsCdsCreateRespSearchItems(handle, &state, respArgs, buffer);
    }
    if (status != DMS_SUCCESS) {
      DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n",
                "dmsCdsCreateRespSearchItems", status);
      return status;
    }
    return dmsCdsSetUpdateIdArgument(handle, respArgs);
  });
}

int32_t dmsCdsCreateRespBrowseRecursive(dmsCdsMgrHandle *handle, dmsCdsBrowseArgs *browseArgs,
                                        dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer) {
  if (handle == nullptr || browseArgs == nullptr || respArgs == nullptr || buffer == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsGuard("dmsCdsCreateRespBrowseRecursive", DMS_ERR_NO_MEMORY, [&] {
    char noCriteria[] = "";
    dmsCdsSearchArgs searchArgs;
    searchArgs.containerId = browseArgs->objectId;
    searchArgs.startingIndex = browseArgs->startingIndex;
    searchArgs.requestedCount = browseArgs->requestedCount;
    searchArgs.searchCriteria = noCriteria;
    searchArgs.filter = browseArgs->filter;
    dmsCdsSearchState state;
    state.searchArgs = &searchArgs;
    std::memcpy(state.filterFlags, browseArgs->filterFlags, sizeof state.filterFlags);
    return dmsCdsCreateRespSearchItems(handle, &state, respArgs, buffer);
  });
}
