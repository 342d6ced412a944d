// Text as XML 1.0 character data, whatever bytes it arrives in.
//
// File names come from disks written by other systems: they may hold bytes
// that are not UTF-8 (Latin-1 names from old USB drives and network shares)
// or control characters XML forbids.  One such name must not make a whole
// answer unreadable, so every text the server sends goes through here:
//  - & < > " ' become &amp; &lt; &gt; &quot; &apos;;
//  - well-formed UTF-8 is copied as it is;
//  - a byte that does not start or continue a well-formed UTF-8 sequence is
//    read as Latin-1 (0xE9 becomes "é"), except 0x80-0x9F, which Latin-1
//    leaves as controls and which become U+FFFD;
//  - characters XML 1.0 forbids (controls other than tab, line feed and
//    carriage return, U+FFFE and U+FFFF) are dropped.
// Output never exceeds kXmlTextMaxGrowth bytes per input byte.
#ifndef DMS_UTIL_DLNAUTIL_XMLTEXT_H
#define DMS_UTIL_DLNAUTIL_XMLTEXT_H

#include <cstddef>
#include <string>
#include <string_view>

// "&quot;" is the longest output for one input byte.
inline constexpr size_t kXmlTextMaxGrowth = 6;

// Writes the escaped form of `text` to `out`, which has room for
// kXmlTextMaxGrowth * text.size() bytes; returns the bytes written (no NUL).
size_t dlnaUtil_xmlEscapeInto(std::string_view text, char *out);

// The escaped form of `text` as a string.  May throw std::bad_alloc.
std::string dlnaUtil_xmlEscaped(std::string_view text);

#endif  // DMS_UTIL_DLNAUTIL_XMLTEXT_H
