// ContentDirectory Search criteria: the text a control point sends, parsed
// once per request into a compact expression, and the test of one object
// against that expression.
//
// Grammar (keywords in any case, property names as written):
//   criteria   ::= '*' | expression            an empty or blank text is '*'
//   expression ::= conjunct ('or' conjunct)*
//   conjunct   ::= primary ('and' primary)*    "and" binds tighter than "or"
//   primary    ::= '(' expression ')'
//                | property binaryOp quoted
//                | property 'exists' ('true' | 'false')
//   binaryOp   ::= '=' | '!=' | '<' | '<=' | '>' | '>=' | 'contains'
//                | 'doesNotContain' | 'derivedfrom'
//   quoted     ::= '"' (a character but '"' and '\' | '\"' | '\\')* '"'
// Blanks (space, tab, line feed, vertical tab, form feed, carriage return)
// may stand around every token and are needed only between two words.  At
// most DMS_CDS_CRITERIA_MAX_DEPTH parentheses may be open at once and the
// expression may hold at most DMS_CDS_CRITERIA_MAX_NODES nodes, so hostile
// criteria cost neither stack nor time; past either bound a criteria is
// refused like one that does not parse.
//
// Meaning, for one object:
//  - properties: dc:title, dc:creator, upnp:artist, upnp:album, upnp:genre,
//    upnp:class, dc:date, upnp:originalTrackNumber, @id, @parentID, @refID,
//    res@protocolInfo, res@size and res@duration (DMS_CDS_SEARCH_PROPERTIES);
//  - texts compare ignoring case (util/dlnaUtil_fold.h): "=" and "!=" the
//    whole value, "contains" and "doesNotContain" anywhere in it, "<" and the
//    other orderings the folded bytes;
//  - upnp:originalTrackNumber, res@size, @id, @parentID and @refID compare
//    as numbers, dc:date as a date (YYYY[-MM[-DD[THH:MM[:SS]]]], a time zone
//    or fraction after the seconds ignored; "2019" < "2019-07-14" <
//    "2019-07-14T15:30:00"), res@duration as a playing time
//    (H:MM:SS[.mmm]); an operand that is not of that kind makes the term
//    false; "contains" and "doesNotContain" look in the value as the
//    DIDL-Lite writes it;
//  - "derivedfrom" holds for upnp:class when the class is the operand or
//    starts with the operand and a dot; on any other property it is false;
//  - a property the object does not hold makes its term false, except that
//    "exists false" holds; a property name this server does not know makes
//    every term on it false.
#ifndef DMS_SERVICES_DMS_CDS_SEARCH_CRITERIA_H
#define DMS_SERVICES_DMS_CDS_SEARCH_CRITERIA_H

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

inline constexpr size_t DMS_CDS_CRITERIA_MAX_DEPTH = 64;
inline constexpr size_t DMS_CDS_CRITERIA_MAX_NODES = 256;
inline constexpr size_t DMS_CDS_SEARCH_PROPERTIES = 14;

inline constexpr uint32_t DMS_CDS_NO_NODE = std::numeric_limits<uint32_t>::max();

enum class dmsCdsSearchOp : uint8_t {
  kEqual, kNotEqual, kLess, kLessEqual, kGreater, kGreaterEqual,
  kContains, kDoesNotContain, kDerivedFrom, kExists,
};

// One node: a term, or an "and"/"or" group whose operands are its first
// child and that child's chain of `next` siblings.
struct dmsCdsSearchNode {
  enum Kind : uint8_t { kTerm, kAnd, kOr };
  Kind kind = kTerm;
  dmsCdsSearchOp op = dmsCdsSearchOp::kEqual;
  bool existsTrue = false;      // "exists true" rather than "exists false"
  bool decidable = false;       // known property, operand of its kind
  int8_t property = -1;         // row of the property table
  uint32_t firstChild = DMS_CDS_NO_NODE;
  uint32_t next = DMS_CDS_NO_NODE;
  uint32_t textStart = 0;       // the operand as compared, in dmsCdsCriteria::texts
  uint32_t textLength = 0;
  int64_t number = 0;           // the operand of numbers and playing times
};

// A parsed criteria; `root` DMS_CDS_NO_NODE stands for '*'.
struct dmsCdsCriteria {
  std::vector<dmsCdsSearchNode> nodes;
  uint32_t root = DMS_CDS_NO_NODE;
  std::string texts;
};

inline constexpr int64_t DMS_CDS_SEARCH_ABSENT = std::numeric_limits<int64_t>::min();

// What a test reads of one object.  A NULL or empty text and a number
// DMS_CDS_SEARCH_ABSENT are properties the object does not hold.  Texts are
// borrowed for the test.
struct dmsCdsSearchSubject {
  const char *title = nullptr;
  const char *upnpClass = nullptr;
  const char *creator = nullptr;
  const char *artist = nullptr;
  const char *album = nullptr;
  const char *genre = nullptr;
  const char *date = nullptr;          // ISO 8601, as the DIDL-Lite writes it
  const char *protocolInfo = nullptr;
  int64_t id = DMS_CDS_SEARCH_ABSENT;
  int64_t parentId = DMS_CDS_SEARCH_ABSENT;
  int64_t refId = DMS_CDS_SEARCH_ABSENT;
  int64_t track = DMS_CDS_SEARCH_ABSENT;
  int64_t size = DMS_CDS_SEARCH_ABSENT;
  int64_t duration = DMS_CDS_SEARCH_ABSENT;  // milliseconds
};

// Kept by the caller from object to object: the folded values one test
// looked at.  Grows to the largest object once, then allocates no more.
struct dmsCdsSearchScratch {
  std::string folded;
  uint32_t start[DMS_CDS_SEARCH_PROPERTIES] = {};
  uint32_t length[DMS_CDS_SEARCH_PROPERTIES] = {};
  uint32_t ready = 0;  // one bit per property row
};

// Parses `text` into `out` (which starts empty).  0, or
// DMS_CDS_ERR_INVALID_SEARCH_CRITERIA for a text that does not parse or
// passes a bound.  May throw std::bad_alloc.
int32_t dmsCdsParseCriteria(std::string_view text, dmsCdsCriteria &out);

// Fills `node`'s property, decidability and operand for the term
// `property op operand` (the operand unescaped); texts go to out.texts.
// For the parser.  May throw std::bad_alloc.
void dmsCdsPrepareTerm(std::string_view property, std::string_view operand, dmsCdsSearchNode &node,
                       dmsCdsCriteria &out);

// True when `subject` satisfies `criteria` ('*': always).  May throw
// std::bad_alloc (the scratch growing).
bool dmsCdsCriteriaHolds(const dmsCdsCriteria &criteria, const dmsCdsSearchSubject &subject,
                         dmsCdsSearchScratch &scratch);

// True when some upnp:class term of `criteria` that asks for a class ("=",
// the orderings, "contains", "derivedfrom", "exists true") holds for an
// object of class `upnpClass`: the criteria asks for such objects.  False
// for '*'.  May throw std::bad_alloc.
bool dmsCdsCriteriaNamesClass(const dmsCdsCriteria &criteria, const char *upnpClass,
                              dmsCdsSearchScratch &scratch);

#endif  // DMS_SERVICES_DMS_CDS_SEARCH_CRITERIA_H
