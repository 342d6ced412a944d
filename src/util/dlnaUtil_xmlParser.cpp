#include "util/dlnaUtil_xmlParser.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "util/dmsErrors.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dlnaUtil_xmlParser";

namespace {

// Stores a heap copy of `text` in `*valueOut`.  A value stored by an earlier
// match further down the tree is being replaced, so it is released first.
int32_t storeCopy(const char *text, char **valueOut) {
  char *copy = strdup(text);
  if (copy == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", DLNA_UTIL_ERR_NO_MEMORY, "strdup");
    return DLNA_UTIL_ERR_NO_MEMORY;
  }
  std::free(*valueOut);
  *valueOut = copy;
  return 0;
}

// Depth-first search below `node` for the element `keyName`.  Leaves
// `*valueOut` untouched when nothing matches; returns non-zero only for bad
// arguments or an allocation failure.
int32_t dlnaUtil_xmlParserRecursive(IXML_Node *node, const char *keyName, char **valueOut) {
  if (node == nullptr || keyName == nullptr || valueOut == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DLNA_UTIL_ERR_INVALID_PARAM;
  }
  for (IXML_Node *child = ixmlNode_getFirstChild(node); child != nullptr;
       child = ixmlNode_getNextSibling(child)) {
    const char *name = ixmlNode_getNodeName(child);
    if (name != nullptr && std::strcmp(name, keyName) == 0) {
      // A direct match ends the search at this level.  Without a text node
      // (empty element, or element content) the value is the empty string.
      IXML_Node *content = ixmlNode_getFirstChild(child);
      const char *text = content != nullptr ? ixmlNode_getNodeValue(content) : nullptr;
      return storeCopy(text != nullptr ? text : "", valueOut);
    }
    if (ixmlNode_getFirstChild(child) != nullptr) {
      // A match inside this subtree is kept only until a later sibling (or a
      // later subtree) matches too.
      int32_t status = dlnaUtil_xmlParserRecursive(child, keyName, valueOut);
      if (status != 0) return status;
    }
  }
  return 0;
}

}  // namespace

int32_t dlnaUtil_xmlParserGetString(IXML_Document *document, const char *keyName,
                                    char **valueOut) {
  if (document == nullptr || keyName == nullptr || valueOut == nullptr ||
      *valueOut != nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DLNA_UTIL_ERR_INVALID_PARAM;
  }
  int32_t status = dlnaUtil_xmlParserRecursive(&document->n, keyName, valueOut);
  if (status != 0) {
    DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n",
              "dlnaUtil_xmlParserRecursive", status);
    // Do not hand a partial result back with a failure code.
    std::free(*valueOut);
    *valueOut = nullptr;
    return status;
  }
  if (*valueOut == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "KeyName (%s) is not found in the given XML document\n", keyName);
    return DLNA_UTIL_ERR_KEY_NOT_FOUND;
  }
  return 0;
}

int32_t dlnaUtil_xmlParserGetInteger(IXML_Document *document, const char *keyName,
                                     int32_t *valueOut) {
  if (document == nullptr || keyName == nullptr || valueOut == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DLNA_UTIL_ERR_INVALID_PARAM;
  }
  *valueOut = -1;
  char *text = nullptr;
  int32_t status = dlnaUtil_xmlParserGetString(document, keyName, &text);
  if (status != 0) {
    DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n",
              "dlnaUtil_xmlParserGetString", status);
    std::free(text);
    return status;
  }
  if (text == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Value for the KeyName is NULL. Set Value to 0\n");
    return 0;
  }
  // As atoi reads it, but the same on every platform: a number past the
  // 32-bit range is held at its end instead of wrapping where long is wider.
  const long long value = std::strtoll(text, nullptr, 10);
  *valueOut = static_cast<int32_t>(std::clamp<long long>(value, INT32_MIN, INT32_MAX));
  std::free(text);
  return 0;
}

int32_t dlnaUtil_xmlParserPrintXmlDocument(IXML_Document *document) {
  if (document == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DLNA_UTIL_ERR_INVALID_PARAM;
  }
  // A place to look at the document in a debugger.  Rendering a large
  // answer costs, so it is only done while debug tracing is on.
  if ((g_u32_osalTraceLevel.load(std::memory_order_relaxed) & OSAL_TRACE_DBG) == 0) return 0;
  DOMString text = ixmlPrintDocument(document);
  ixmlFreeDOMString(text);
  return 0;
}
