// The meaning of Search criteria (dmsCdsSearchCriteria.h): one table row per
// property, the operand of each term read once as its property's kind, and
// the test of one object, which folds each value it looks at once into the
// caller's scratch.
#include <charconv>
#include <iterator>
#include <string>
#include <string_view>

#include "services/dmsCdsSearchCriteria.h"
#include "util/dlnaUtil_fold.h"

namespace {

using Subject = dmsCdsSearchSubject;
using Op = dmsCdsSearchOp;

enum class Kind : uint8_t { kText, kClass, kDate, kNumber, kDuration };

// One property: its name in criteria, its kind, and where a subject holds
// it (a text or a number).
struct PropertyRow {
  const char *name;
  Kind kind;
  const char *Subject::*text;
  int64_t Subject::*number;
};

constexpr PropertyRow kProperties[] = {
    // name                        kind            text                     number
    {"dc:title",                   Kind::kText,     &Subject::title,         nullptr},
    {"dc:creator",                 Kind::kText,     &Subject::creator,       nullptr},
    {"upnp:artist",                Kind::kText,     &Subject::artist,        nullptr},
    {"upnp:album",                 Kind::kText,     &Subject::album,         nullptr},
    {"upnp:genre",                 Kind::kText,     &Subject::genre,         nullptr},
    {"upnp:class",                 Kind::kClass,    &Subject::upnpClass,     nullptr},
    {"dc:date",                    Kind::kDate,     &Subject::date,          nullptr},
    {"upnp:originalTrackNumber",   Kind::kNumber,   nullptr,                 &Subject::track},
    {"@id",                        Kind::kNumber,   nullptr,                 &Subject::id},
    {"@parentID",                  Kind::kNumber,   nullptr,                 &Subject::parentId},
    {"@refID",                     Kind::kNumber,   nullptr,                 &Subject::refId},
    {"res@protocolInfo",           Kind::kText,     &Subject::protocolInfo,  nullptr},
    {"res@size",                   Kind::kNumber,   nullptr,                 &Subject::size},
    {"res@duration",               Kind::kDuration, nullptr,                 &Subject::duration},
};
static_assert(std::size(kProperties) == DMS_CDS_SEARCH_PROPERTIES);

constexpr char kClassRow[] = "upnp:class";

int findProperty(std::string_view name) {
  for (size_t row = 0; row < std::size(kProperties); ++row) {
    if (name == kProperties[row].name) return static_cast<int>(row);
  }
  return -1;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// A whole decimal number, sign allowed.
bool readNumber(std::string_view text, int64_t &value) {
  const char *begin = text.data() + (!text.empty() && text[0] == '+' ? 1 : 0);
  const char *end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(begin, end, value);
  return error == std::errc() && stop == end && begin != end;
}

// H+:MM:SS[.fraction] as milliseconds (the fraction cut to three digits).
bool readDuration(std::string_view text, int64_t &milliseconds) {
  const size_t colon = text.find(':');
  int64_t hours = 0;
  if (colon == std::string_view::npos || colon == 0 || colon > 9 || !readNumber(text.substr(0, colon), hours) ||
      !isDigit(text[0])) {
    return false;
  }
  const std::string_view rest = text.substr(colon + 1);
  if (rest.size() < 5 || rest[2] != ':' || !isDigit(rest[0]) || !isDigit(rest[1]) || !isDigit(rest[3]) ||
      !isDigit(rest[4]) || rest[0] > '5' || rest[3] > '5') {
    return false;
  }
  milliseconds = hours * 3600000 + ((rest[0] - '0') * 10 + (rest[1] - '0')) * 60000 +
                 ((rest[3] - '0') * 10 + (rest[4] - '0')) * 1000;
  if (rest.size() == 5) return true;
  if (rest[5] != '.' || rest.size() == 6) return false;
  int64_t scale = 100;
  for (char c : rest.substr(6)) {
    if (!isDigit(c)) return false;
    milliseconds += (c - '0') * scale;
    scale /= 10;
  }
  return true;
}

// A date as "YYYY[-MM[-DD[THH:MM[:SS]]]]", appended to `out`: a blank
// between date and time becomes "T", and a zone or fraction after the
// minutes or seconds is left off.
bool readDate(std::string_view text, std::string &out) {
  constexpr std::string_view kPattern = "0000-00-00T00:00:00";
  size_t at = 0;
  for (; at < kPattern.size() && at < text.size(); ++at) {
    const char want = kPattern[at];
    const char got = text[at];
    const bool fits = want == '0' ? isDigit(got) : want == 'T' ? got == 'T' || got == ' ' : got == want;
    if (!fits) break;
    out.push_back(want == 'T' ? 'T' : got);
  }
  const bool wholeField = at == 4 || at == 7 || at == 10 || at == 16 || at == 19;
  if (!wholeField) return false;
  return at == text.size() || (at >= 16 && std::string_view(".Z+-").find(text[at]) != std::string_view::npos);
}

// `value` in decimal, zero-padded to `width` digits.
void appendNumber(int64_t value, size_t width, std::string &out) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  const auto length = static_cast<size_t>(end - digits);
  if (length < width) out.append(width - length, '0');
  out.append(digits, end);
}

// H:MM:SS.mmm, as the DIDL-Lite writes res@duration.
void appendDuration(int64_t milliseconds, std::string &out) {
  appendNumber(milliseconds / 3600000, 1, out);
  out.push_back(':');
  appendNumber(milliseconds % 3600000 / 60000, 2, out);
  out.push_back(':');
  appendNumber(milliseconds % 60000 / 1000, 2, out);
  out.push_back('.');
  appendNumber(milliseconds % 1000, 3, out);
}

bool holdsProperty(const PropertyRow &row, const Subject &subject) {
  if (row.text != nullptr) {
    const char *text = subject.*row.text;
    return text != nullptr && text[0] != '\0';
  }
  return subject.*row.number != DMS_CDS_SEARCH_ABSENT;
}

// The value of property `row` as the DIDL-Lite writes it, folded; made once
// per subject in the scratch.
std::string_view foldedValue(size_t row, const Subject &subject, dmsCdsSearchScratch &scratch) {
  const uint32_t bit = 1u << row;
  if ((scratch.ready & bit) == 0) {
    const PropertyRow &property = kProperties[row];
    const size_t start = scratch.folded.size();
    if (property.text != nullptr) {
      dlnaUtil_foldCase(subject.*property.text, scratch.folded);
    } else if (property.kind == Kind::kDuration) {
      appendDuration(subject.*property.number, scratch.folded);
    } else {
      appendNumber(subject.*property.number, 1, scratch.folded);
    }
    scratch.start[row] = static_cast<uint32_t>(start);
    scratch.length[row] = static_cast<uint32_t>(scratch.folded.size() - start);
    scratch.ready |= bit;
  }
  return std::string_view(scratch.folded).substr(scratch.start[row], scratch.length[row]);
}

bool orderHolds(Op op, int order) {
  switch (op) {
    case Op::kEqual: return order == 0;
    case Op::kNotEqual: return order != 0;
    case Op::kLess: return order < 0;
    case Op::kLessEqual: return order <= 0;
    case Op::kGreater: return order > 0;
    case Op::kGreaterEqual: return order >= 0;
    default: return false;
  }
}

template <typename Value>
int compare(const Value &left, const Value &right) {
  return left < right ? -1 : right < left ? 1 : 0;
}

bool termHolds(const dmsCdsSearchNode &term, std::string_view operand, const Subject &subject,
               dmsCdsSearchScratch &scratch) {
  if (!term.decidable) return false;
  const size_t row = static_cast<size_t>(term.property);
  const PropertyRow &property = kProperties[row];
  const bool held = holdsProperty(property, subject);
  if (term.op == Op::kExists) return held == term.existsTrue;
  if (!held) return false;
  if (term.op == Op::kContains || term.op == Op::kDoesNotContain) {
    const bool found = foldedValue(row, subject, scratch).find(operand) != std::string_view::npos;
    return found == (term.op == Op::kContains);
  }
  if (term.op == Op::kDerivedFrom) {
    const std::string_view value = foldedValue(row, subject, scratch);
    return value.substr(0, operand.size()) == operand &&
           (value.size() == operand.size() || value[operand.size()] == '.');
  }
  switch (property.kind) {
    case Kind::kNumber:
    case Kind::kDuration:
      return orderHolds(term.op, compare(subject.*property.number, term.number));
    case Kind::kDate:
      return orderHolds(term.op, compare(std::string_view(subject.*property.text), operand));
    default:
      return orderHolds(term.op, compare(foldedValue(row, subject, scratch), operand));
  }
}

// Evaluates node `index`; "and" and "or" stop at the first operand that
// decides them.  Recursion is bounded by the parser's depth bound.
bool nodeHolds(const dmsCdsCriteria &criteria, uint32_t index, const Subject &subject,
               dmsCdsSearchScratch &scratch) {
  const dmsCdsSearchNode &node = criteria.nodes[index];
  if (node.kind == dmsCdsSearchNode::kTerm) {
    const std::string_view operand = std::string_view(criteria.texts).substr(node.textStart, node.textLength);
    return termHolds(node, operand, subject, scratch);
  }
  const bool conjunction = node.kind == dmsCdsSearchNode::kAnd;
  for (uint32_t child = node.firstChild; child != DMS_CDS_NO_NODE; child = criteria.nodes[child].next) {
    if (nodeHolds(criteria, child, subject, scratch) != conjunction) return !conjunction;
  }
  return conjunction;
}

void resetScratch(dmsCdsSearchScratch &scratch) {
  scratch.folded.clear();
  scratch.ready = 0;
}

}  // namespace

void dmsCdsPrepareTerm(std::string_view property, std::string_view operand, dmsCdsSearchNode &node,
                       dmsCdsCriteria &out) {
  const int row = findProperty(property);
  node.property = static_cast<int8_t>(row);
  const size_t start = out.texts.size();
  node.textStart = static_cast<uint32_t>(start);
  node.decidable = row >= 0;
  if (row < 0 || node.op == Op::kExists) return;
  const Kind kind = kProperties[row].kind;
  const bool textual = node.op == Op::kContains || node.op == Op::kDoesNotContain ||
                       node.op == Op::kDerivedFrom || kind == Kind::kText || kind == Kind::kClass;
  if (node.op == Op::kDerivedFrom) node.decidable = kind == Kind::kClass;
  if (textual) {
    dlnaUtil_foldCase(operand, out.texts);
  } else if (kind == Kind::kDate) {
    node.decidable = readDate(operand, out.texts);
  } else {
    node.decidable = kind == Kind::kNumber ? readNumber(operand, node.number) : readDuration(operand, node.number);
  }
  if (!node.decidable) out.texts.resize(start);
  node.textLength = static_cast<uint32_t>(out.texts.size() - start);
}

bool dmsCdsCriteriaHolds(const dmsCdsCriteria &criteria, const dmsCdsSearchSubject &subject,
                         dmsCdsSearchScratch &scratch) {
  if (criteria.root == DMS_CDS_NO_NODE) return true;
  resetScratch(scratch);
  return nodeHolds(criteria, criteria.root, subject, scratch);
}

bool dmsCdsCriteriaNamesClass(const dmsCdsCriteria &criteria, const char *upnpClass,
                              dmsCdsSearchScratch &scratch) {
  Subject subject;
  subject.upnpClass = upnpClass;
  resetScratch(scratch);
  const std::string_view texts(criteria.texts);
  const int classRow = findProperty(kClassRow);
  for (const dmsCdsSearchNode &node : criteria.nodes) {
    const bool asks = node.op != Op::kNotEqual && node.op != Op::kDoesNotContain &&
                      (node.op != Op::kExists || node.existsTrue);
    if (node.kind == dmsCdsSearchNode::kTerm && node.property == classRow && asks &&
        termHolds(node, texts.substr(node.textStart, node.textLength), subject, scratch)) {
      return true;
    }
  }
  return false;
}
