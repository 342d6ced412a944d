// Case folding for comparisons that ignore case, such as Search criteria
// matched against titles, artists and albums.
//
// Two texts are equal ignoring case exactly when their folds are equal
// bytes, and one contains the other ignoring case when its fold contains the
// other's fold.  The fold:
//  - lower-cases every character the C.UTF-8 locale knows a lower case of
//    (Latin, Greek, Cyrillic and the other cased scripts), so "É" folds to
//    "é", "Ω" to "ω" and "Б" to "б";
//  - writes "ss" for "ß" and "ẞ", and "σ" for the final sigma "ς", so that
//    "STRASSE" and "Straße" fold alike;
//  - copies a byte that is not part of well-formed UTF-8 as it is.
// Where the C.UTF-8 locale cannot be loaded, only ASCII letters are folded.
#ifndef DMS_UTIL_DLNAUTIL_FOLD_H
#define DMS_UTIL_DLNAUTIL_FOLD_H

#include <string>
#include <string_view>

// Appends the fold of `text` to `out`; allocates only when `out` must grow.
// May throw std::bad_alloc.
void dlnaUtil_foldCase(std::string_view text, std::string &out);

// Compares two folded texts as people sort names: byte by byte, except that
// runs of digits compare as numbers (leading zeros skipped, then the longer
// run is the larger, then the digits decide), so "track 2" goes before
// "track 10".  Negative, 0 or positive.
int dlnaUtil_compareNatural(std::string_view a, std::string_view b);

#endif  // DMS_UTIL_DLNAUTIL_FOLD_H
