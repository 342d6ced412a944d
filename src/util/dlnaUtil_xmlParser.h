// Reading the input arguments of a UPnP action request.  The SDK hands every
// action to the services as an ixml document; the handlers pick arguments out
// of it by element name.
//
// Element names are compared exactly (strcmp, whole name including any
// namespace prefix), so callers pass the bare argument names of the service
// description: "ObjectID", "BrowseFlag", "StartingIndex" ...
//
// Where the same name occurs more than once, the search is depth first: a
// direct child that matches ends the search at its level, while a match found
// inside a nested element may still be replaced by a later sibling (or by a
// match inside a later sibling's subtree).
#ifndef DMS_UTIL_DLNAUTIL_XMLPARSER_H
#define DMS_UTIL_DLNAUTIL_XMLPARSER_H

#include <cstdint>

#include <ixml.h>

// Looks up the element `keyName` in `document` and hands back a heap copy of
// its text in `*valueOut`, entities decoded; the caller releases it with
// free().  An element without content (`<Filter/>`) or whose first child is
// another element yields "".
// `*valueOut` must be NULL on entry.  Returns 0; -250 when document, keyName
// or valueOut is NULL or `*valueOut` is not NULL (the old string is left
// alone); -253 when no such element exists (`*valueOut` stays NULL); -251
// when the copy cannot be allocated.
int32_t dlnaUtil_xmlParserGetString(IXML_Document *document, const char *keyName,
                                    char **valueOut);

// Reads the element `keyName` as a decimal integer with atoi() semantics:
// leading white space is skipped, trailing garbage ignored, and text that is
// not a number (or an empty element) reads as 0.
// Sets `*valueOut` to -1 first, so it stays -1 on every failure.  Returns 0,
// -250 for a NULL argument, or the code of dlnaUtil_xmlParserGetString (-253
// for a missing element).
int32_t dlnaUtil_xmlParserGetInteger(IXML_Document *document, const char *keyName,
                                     int32_t *valueOut);

// Debugging hook: renders the document to text and discards it at once;
// nothing is printed.  Returns 0, or -250 for a NULL document.
int32_t dlnaUtil_xmlParserPrintXmlDocument(IXML_Document *document);

#endif  // DMS_UTIL_DLNAUTIL_XMLPARSER_H
