// The Search criteria grammar (dmsCdsSearchCriteria.h): a tokenizer and a
// recursive descent whose depth is bounded by the open parentheses.
#include <strings.h>

#include <cstring>
#include <string>
#include <string_view>

#include "services/dmsCdsMgrApi.h"
#include "services/dmsCdsSearchCriteria.h"

namespace {

bool isBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Characters that end a word: blanks, and the first characters of the
// other tokens.
bool endsWord(char c) { return isBlank(c) || std::strchr("()\"=!<>", c) != nullptr; }

bool sameWord(std::string_view word, std::string_view keyword) {
  return word.size() == keyword.size() && strncasecmp(word.data(), keyword.data(), word.size()) == 0;
}

struct Token {
  enum Kind { kEnd, kOpen, kClose, kQuoted, kSymbol, kWord, kBad };
  Kind kind = kEnd;
  std::string_view text;  // kQuoted: between the quotes, escapes as written
};

class Tokenizer {
 public:
  explicit Tokenizer(std::string_view text) : text_(text) {}

  Token next() {
    while (at_ < text_.size() && isBlank(text_[at_])) ++at_;
    if (at_ == text_.size()) return {};
    const size_t begin = at_;
    const char c = text_[at_++];
    if (c == '(') return {Token::kOpen, text_.substr(begin, 1)};
    if (c == ')') return {Token::kClose, text_.substr(begin, 1)};
    if (c == '"') return quoted();
    if (c == '=' || c == '!' || c == '<' || c == '>') {
      if (at_ < text_.size() && text_[at_] == '=' && c != '=') ++at_;
      const std::string_view symbol = text_.substr(begin, at_ - begin);
      return {symbol == "!" ? Token::kBad : Token::kSymbol, symbol};
    }
    while (at_ < text_.size() && !endsWord(text_[at_])) ++at_;
    return {Token::kWord, text_.substr(begin, at_ - begin)};
  }

 private:
  // After the opening quote: up to the closing one; a backslash escapes
  // only a quote or a backslash.
  Token quoted() {
    const size_t begin = at_;
    for (; at_ < text_.size(); ++at_) {
      if (text_[at_] == '"') return {Token::kQuoted, text_.substr(begin, at_++ - begin)};
      if (text_[at_] != '\\') continue;
      if (++at_ == text_.size() || (text_[at_] != '"' && text_[at_] != '\\')) break;
    }
    return {Token::kBad, {}};
  }

  std::string_view text_;
  size_t at_ = 0;
};

// Binary operators by their spelling.
struct OperatorRow {
  const char *spelling;
  dmsCdsSearchOp op;
};

constexpr OperatorRow kOperators[] = {
    // spelling          operator
    {"=",                dmsCdsSearchOp::kEqual},
    {"!=",               dmsCdsSearchOp::kNotEqual},
    {"<",                dmsCdsSearchOp::kLess},
    {"<=",               dmsCdsSearchOp::kLessEqual},
    {">",                dmsCdsSearchOp::kGreater},
    {">=",               dmsCdsSearchOp::kGreaterEqual},
    {"contains",         dmsCdsSearchOp::kContains},
    {"doesNotContain",   dmsCdsSearchOp::kDoesNotContain},
    {"derivedfrom",      dmsCdsSearchOp::kDerivedFrom},
    {"exists",           dmsCdsSearchOp::kExists},
};

const OperatorRow *findOperator(const Token &token) {
  if (token.kind != Token::kSymbol && token.kind != Token::kWord) return nullptr;
  for (const OperatorRow &row : kOperators) {
    if (sameWord(token.text, row.spelling)) return &row;
  }
  return nullptr;
}

class Parser {
 public:
  Parser(std::string_view text, dmsCdsCriteria &out) : tokens_(text), out_(out) { take(); }

  bool run() {
    if (token_.kind == Token::kEnd) return true;  // blank: every item
    if (token_.kind == Token::kWord && token_.text == "*") {
      take();
      return token_.kind == Token::kEnd;
    }
    out_.root = sequence(dmsCdsSearchNode::kOr, 0);
    return out_.root != DMS_CDS_NO_NODE && token_.kind == Token::kEnd;
  }

 private:
  void take() { token_ = tokens_.next(); }

  // A node at the end of the list; DMS_CDS_NO_NODE past the bound.
  uint32_t add(const dmsCdsSearchNode &node) {
    if (out_.nodes.size() >= DMS_CDS_CRITERIA_MAX_NODES) return DMS_CDS_NO_NODE;
    out_.nodes.push_back(node);
    return static_cast<uint32_t>(out_.nodes.size() - 1);
  }

  // "or" joins conjuncts, "and" joins primaries; a lone operand is returned
  // as it is, several become one group.
  uint32_t sequence(dmsCdsSearchNode::Kind kind, size_t depth) {
    const bool disjunction = kind == dmsCdsSearchNode::kOr;
    const std::string_view joiner = disjunction ? "or" : "and";
    auto operand = [&] { return disjunction ? sequence(dmsCdsSearchNode::kAnd, depth) : primary(depth); };
    uint32_t last = operand();
    if (last == DMS_CDS_NO_NODE || token_.kind != Token::kWord || !sameWord(token_.text, joiner)) return last;
    dmsCdsSearchNode group;
    group.kind = kind;
    group.firstChild = last;
    const uint32_t index = add(group);
    while (index != DMS_CDS_NO_NODE && token_.kind == Token::kWord && sameWord(token_.text, joiner)) {
      take();
      const uint32_t next = operand();
      if (next == DMS_CDS_NO_NODE) return DMS_CDS_NO_NODE;
      out_.nodes[last].next = next;
      last = next;
    }
    return index;
  }

  uint32_t primary(size_t depth) {
    if (token_.kind == Token::kOpen) {
      if (depth >= DMS_CDS_CRITERIA_MAX_DEPTH) return DMS_CDS_NO_NODE;
      take();
      const uint32_t inner = sequence(dmsCdsSearchNode::kOr, depth + 1);
      if (inner == DMS_CDS_NO_NODE || token_.kind != Token::kClose) return DMS_CDS_NO_NODE;
      take();
      return inner;
    }
    if (token_.kind != Token::kWord) return DMS_CDS_NO_NODE;
    const std::string_view property = token_.text;
    take();
    const OperatorRow *row = findOperator(token_);
    if (row == nullptr) return DMS_CDS_NO_NODE;
    take();
    dmsCdsSearchNode term;
    term.op = row->op;
    if (term.op == dmsCdsSearchOp::kExists) {
      const bool isTrue = sameWord(token_.text, "true");
      if (token_.kind != Token::kWord || (!isTrue && !sameWord(token_.text, "false"))) return DMS_CDS_NO_NODE;
      term.existsTrue = isTrue;
    } else if (token_.kind != Token::kQuoted) {
      return DMS_CDS_NO_NODE;
    }
    unescape(term.op == dmsCdsSearchOp::kExists ? std::string_view() : token_.text);
    take();
    dmsCdsPrepareTerm(property, operand_, term, out_);
    return add(term);
  }

  // The quoted text without its escapes (the tokenizer checked them).
  void unescape(std::string_view text) {
    operand_.clear();
    for (size_t at = 0; at < text.size(); ++at) {
      if (text[at] == '\\') ++at;
      operand_.push_back(text[at]);
    }
  }

  Tokenizer tokens_;
  Token token_;
  dmsCdsCriteria &out_;
  std::string operand_;
};

}  // namespace

int32_t dmsCdsParseCriteria(std::string_view text, dmsCdsCriteria &out) {
  out = dmsCdsCriteria{};
  Parser parser(text, out);
  if (parser.run()) return 0;
  out = dmsCdsCriteria{};
  return DMS_CDS_ERR_INVALID_SEARCH_CRITERIA;
}
