#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdlib>

#include "core/Strings.h"
#include "smart/Predicate.h"

namespace lectern {

namespace {

// Words that are syntax, never key paths (a key path component spelled like one is written "#word").
constexpr std::array<std::string_view, 22> kReservedWords = {
    "AND",   "OR",        "NOT",     "ANY",        "ALL",      "SOME",           "NONE",
    "IN",    "CONTAINS",  "LIKE",    "BEGINSWITH", "ENDSWITH", "BETWEEN",        "MATCHES",
    "TRUE",  "FALSE",     "YES",     "NO",         "NIL",      "NULL",           "SELF",
    "TRUEPREDICATE"};

bool isReserved(std::string_view word) {
  const std::string upper = toUpperASCII(word);
  if (upper == "FALSEPREDICATE" || upper == "CAST") return true;
  return std::find(kReservedWords.begin(), kReservedWords.end(), upper) != kReservedWords.end();
}

bool isIdentifierStart(char c) { return std::isalpha(static_cast<unsigned char>(c)) || c == '_'; }
bool isIdentifierChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

// Characters, not bytes, so that a message points where a person counts.
size_t characterPosition(std::string_view text, size_t byteOffset) {
  size_t count = 0;
  for (size_t i = 0; i < byteOffset && i < text.size(); ++i) {
    if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) ++count;
  }
  return count + 1;
}

class Parser {
 public:
  Parser(std::string_view text, const PredicateArguments& arguments) : text_(text), arguments_(arguments) {}

  Result<Predicate> parse() {
    auto predicate = parseOr();
    if (!predicate) return predicate;
    skipSpace();
    if (pos_ < text_.size()) return error("expected AND, OR or the end of the condition");
    return predicate;
  }

 private:
  std::unexpected<Error> error(std::string_view what) const {
    return error(what, pos_);
  }
  std::unexpected<Error> error(std::string_view what, size_t at) const {
    Error e = Error::make(kPredicateErrorDomain, 1,
                          fmt::format("Cannot read the condition at character {}: {}", characterPosition(text_, at),
                                      what));
    e.userInfo["position"] = std::to_string(characterPosition(text_, at));
    return std::unexpected<Error>(std::move(e));
  }

  void skipSpace() {
    while (pos_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[pos_]))) ++pos_;
  }

  // The next word (letters, digits, underscores) without consuming it.
  std::string_view peekWord() {
    skipSpace();
    size_t end = pos_;
    while (end < text_.size() && isIdentifierChar(text_[end])) ++end;
    return text_.substr(pos_, end - pos_);
  }

  bool acceptWord(std::string_view word) {
    const std::string_view next = peekWord();
    if (!next.empty() && equalsIgnoringASCIICase(next, word)) {
      pos_ += next.size();
      return true;
    }
    return false;
  }

  bool acceptSymbol(std::string_view symbol) {
    skipSpace();
    if (text_.substr(pos_, symbol.size()) == symbol) {
      pos_ += symbol.size();
      return true;
    }
    return false;
  }

  Result<Predicate> parseOr() {
    auto first = parseAnd();
    if (!first) return first;
    std::vector<Predicate> parts{std::move(*first)};
    while (acceptWord("OR") || acceptSymbol("||")) {
      auto next = parseAnd();
      if (!next) return next;
      parts.push_back(std::move(*next));
    }
    if (parts.size() == 1) return std::move(parts[0]);
    return Predicate::orOf(std::move(parts));
  }

  Result<Predicate> parseAnd() {
    auto first = parseNot();
    if (!first) return first;
    std::vector<Predicate> parts{std::move(*first)};
    while (acceptWord("AND") || acceptSymbol("&&")) {
      auto next = parseNot();
      if (!next) return next;
      parts.push_back(std::move(*next));
    }
    if (parts.size() == 1) return std::move(parts[0]);
    return Predicate::andOf(std::move(parts));
  }

  Result<Predicate> parseNot() {
    skipSpace();
    if (acceptWord("NOT") || (text_.substr(pos_, 1) == "!" && text_.substr(pos_, 2) != "!=" && acceptSymbol("!"))) {
      auto inner = parseNot();
      if (!inner) return inner;
      return Predicate::notOf(std::move(*inner));
    }
    return parsePrimary();
  }

  Result<Predicate> parsePrimary() {
    skipSpace();
    if (pos_ >= text_.size()) return error("expected a condition");
    if (acceptSymbol("(")) {
      auto inner = parseOr();
      if (!inner) return inner;
      if (!acceptSymbol(")")) return error("expected \")\"");
      return inner;
    }
    if (acceptWord("TRUEPREDICATE")) return Predicate::truePredicate();
    if (acceptWord("FALSEPREDICATE")) {
      Predicate p;
      p.kind = Predicate::Kind::kFalse;
      return p;
    }
    return parseComparison();
  }

  Result<Predicate> parseComparison() {
    ComparisonModifier modifier = ComparisonModifier::kDirect;
    bool none = false;
    if (acceptWord("ANY") || acceptWord("SOME")) {
      modifier = ComparisonModifier::kAny;
    } else if (acceptWord("ALL")) {
      modifier = ComparisonModifier::kAll;
    } else if (acceptWord("NONE")) {
      modifier = ComparisonModifier::kAny;
      none = true;
    }
    auto left = parseExpression();
    if (!left) return fail(left.error());
    const size_t operatorAt = (skipSpace(), pos_);
    auto op = parseOperator();
    if (!op) return error("expected a comparison operator (==, !=, <, <=, >, >=, CONTAINS, BEGINSWITH, "
                          "ENDSWITH, LIKE, IN, BETWEEN)",
                          operatorAt);
    auto options = parseOptions();
    if (!options) return fail(options.error());
    auto right = parseExpression();
    if (!right) return fail(right.error());
    if (*op == ComparisonOperator::kBetween) {
      const auto* list = right->kind == Expression::Kind::kConstant ? right->constant.list() : nullptr;
      if (list == nullptr || list->size() != 2) return error("BETWEEN needs a list of two values", operatorAt);
    }
    Predicate p = Predicate::comparison(std::move(*left), *op, std::move(*right), *options, modifier);
    if (none) return Predicate::notOf(std::move(p));
    return p;
  }

  std::optional<ComparisonOperator> parseOperator() {
    skipSpace();
    struct Symbol {
      std::string_view text;
      ComparisonOperator op;
    };
    // Longest first.
    static constexpr Symbol kSymbols[] = {
        {"==", ComparisonOperator::kEqual},          {"!=", ComparisonOperator::kNotEqual},
        {"<>", ComparisonOperator::kNotEqual},       {"<=", ComparisonOperator::kLessOrEqual},
        {"=<", ComparisonOperator::kLessOrEqual},    {">=", ComparisonOperator::kGreaterOrEqual},
        {"=>", ComparisonOperator::kGreaterOrEqual}, {"=", ComparisonOperator::kEqual},
        {"<", ComparisonOperator::kLess},            {">", ComparisonOperator::kGreater},
    };
    for (const auto& symbol : kSymbols) {
      if (acceptSymbol(symbol.text)) return symbol.op;
    }
    static constexpr Symbol kWords[] = {
        {"CONTAINS", ComparisonOperator::kContains}, {"BEGINSWITH", ComparisonOperator::kBeginsWith},
        {"ENDSWITH", ComparisonOperator::kEndsWith}, {"LIKE", ComparisonOperator::kLike},
        {"IN", ComparisonOperator::kIn},             {"BETWEEN", ComparisonOperator::kBetween},
    };
    for (const auto& word : kWords) {
      if (acceptWord(word.text)) return word.op;
    }
    return std::nullopt;
  }

  Result<ComparisonOptions> parseOptions() {
    ComparisonOptions options;
    if (pos_ >= text_.size() || text_[pos_] != '[') return options;
    const size_t start = pos_++;
    while (pos_ < text_.size() && text_[pos_] != ']') {
      const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(text_[pos_])));
      if (c == 'c') {
        options.caseInsensitive = true;
      } else if (c == 'd') {
        options.diacriticInsensitive = true;
      } else {
        return error("expected the options c and d inside [ ]");
      }
      ++pos_;
    }
    if (pos_ >= text_.size()) return error("expected \"]\"", start);
    ++pos_;
    return options;
  }

  // additive := unary (("+" | "-") unary)*
  Result<Expression> parseExpression() {
    auto left = parseUnary();
    if (!left) return left;
    while (true) {
      skipSpace();
      if (pos_ < text_.size() && (text_[pos_] == '+' || text_[pos_] == '-')) {
        const bool add = text_[pos_] == '+';
        ++pos_;
        auto right = parseUnary();
        if (!right) return right;
        std::vector<Expression> args{std::move(*left), std::move(*right)};
        left = Expression::ofFunction(add ? "add:to:" : "from:subtract:", std::move(args));
      } else {
        return left;
      }
    }
  }

  Result<Expression> parseUnary() {
    skipSpace();
    if (pos_ >= text_.size()) return error("expected a value or a key path");
    const char c = text_[pos_];
    if (c == '(') {
      ++pos_;
      auto inner = parseExpression();
      if (!inner) return inner;
      if (!acceptSymbol(")")) return error("expected \")\"");
      return inner;
    }
    if (c == '"' || c == '\'') {
      auto text = parseString();
      if (!text) return fail(text.error());
      return Expression::ofConstant(std::move(*text));
    }
    if (std::isdigit(static_cast<unsigned char>(c)) ||
        ((c == '-' || c == '.') && pos_ + 1 < text_.size() &&
         (std::isdigit(static_cast<unsigned char>(text_[pos_ + 1])) || text_[pos_ + 1] == '.'))) {
      return parseNumber();
    }
    if (c == '{') return parseList();
    if (c == '%') return parseArgument();
    if (c == '$') return error("variables ($name) are not supported");
    if (isIdentifierStart(c) || c == '#' || c == '@') return parseWordExpression();
    return error("expected a value or a key path");
  }

  Result<Expression> parseWordExpression() {
    const size_t start = pos_;
    const std::string_view word = peekWord();
    const std::string upper = toUpperASCII(word);
    if (!word.empty()) {
      if (upper == "YES" || upper == "TRUE") {
        pos_ += word.size();
        return Expression::ofConstant(true);
      }
      if (upper == "NO" || upper == "FALSE") {
        pos_ += word.size();
        return Expression::ofConstant(false);
      }
      if (upper == "NIL" || upper == "NULL") {
        pos_ += word.size();
        return Expression::ofConstant(Value());
      }
      if (upper == "SELF") {
        pos_ += word.size();
        return Expression::ofSelf();
      }
      if (upper == "CAST") return parseCast();
      if (word == "now" && text_.substr(pos_ + word.size()).starts_with("(")) {
        pos_ += word.size() + 1;
        if (!acceptSymbol(")")) return error("expected \")\" after now(");
        return Expression::ofFunction("now", {});
      }
      if (isReserved(word)) return error(fmt::format("\"{}\" is a keyword, not a key path", word), start);
    }
    auto path = parseKeyPath();
    if (!path) return fail(path.error());
    skipSpace();
    if (pos_ < text_.size() && text_[pos_] == '(') return error("unknown function", start);
    return Expression::ofKeyPath(std::move(*path));
  }

  Result<std::string> parseKeyPath() {
    std::string path;
    while (true) {
      if (pos_ < text_.size() && text_[pos_] == '#') ++pos_;
      const size_t start = pos_;
      if (pos_ < text_.size() && text_[pos_] == '@') ++pos_;
      if (pos_ >= text_.size() || !isIdentifierStart(text_[pos_])) return error("expected a key path");
      while (pos_ < text_.size() && isIdentifierChar(text_[pos_])) ++pos_;
      path += text_.substr(start, pos_ - start);
      if (pos_ < text_.size() && text_[pos_] == '.' && pos_ + 1 < text_.size() &&
          (isIdentifierStart(text_[pos_ + 1]) || text_[pos_ + 1] == '@' || text_[pos_ + 1] == '#')) {
        path += '.';
        ++pos_;
        continue;
      }
      return path;
    }
  }

  Result<Expression> parseCast() {
    pos_ += 4;  // CAST
    if (!acceptSymbol("(")) return error("expected \"(\" after CAST");
    auto value = parseExpression();
    if (!value) return value;
    if (!acceptSymbol(",")) return error("expected \",\" in CAST");
    skipSpace();
    auto type = parseExpression();
    if (!type) return type;
    if (!acceptSymbol(")")) return error("expected \")\" to close CAST");
    if (type->kind != Expression::Kind::kConstant || !type->constant.isText()) {
      return error("CAST needs a type name in quotes");
    }
    // A number cast to a date is how a date constant is written.
    if (*type->constant.text() == "NSDate" && value->kind == Expression::Kind::kConstant &&
        std::holds_alternative<double>(value->constant.data)) {
      return Expression::ofConstant(DateValue{*value->constant.number()});
    }
    std::vector<Expression> args{std::move(*value), std::move(*type)};
    return Expression::ofFunction("castObject:toType:", std::move(args));
  }

  Result<std::string> parseString() {
    const size_t start = pos_;
    const char quote = text_[pos_++];
    std::string out;
    while (pos_ < text_.size() && text_[pos_] != quote) {
      char c = text_[pos_++];
      if (c == '\\' && pos_ < text_.size()) {
        const char escaped = text_[pos_++];
        switch (escaped) {
          case 'n': c = '\n'; break;
          case 't': c = '\t'; break;
          case 'r': c = '\r'; break;
          default: c = escaped; break;
        }
      }
      out += c;
    }
    if (pos_ >= text_.size()) return error("the quoted text is not closed", start);
    ++pos_;
    return out;
  }

  Result<Expression> parseNumber() {
    const size_t start = pos_;
    if (text_[pos_] == '-') ++pos_;
    while (pos_ < text_.size() &&
           (std::isdigit(static_cast<unsigned char>(text_[pos_])) || text_[pos_] == '.' || text_[pos_] == 'e' ||
            text_[pos_] == 'E' ||
            ((text_[pos_] == '+' || text_[pos_] == '-') && (text_[pos_ - 1] == 'e' || text_[pos_ - 1] == 'E')))) {
      ++pos_;
    }
    const std::string literal(text_.substr(start, pos_ - start));
    double number = 0;
    const auto [end, ec] = fromChars(literal.data(), literal.data() + literal.size(), number);
    if (ec != std::errc() || end != literal.data() + literal.size()) return error("not a number", start);
    return Expression::ofConstant(number);
  }

  Result<Expression> parseList() {
    ++pos_;  // {
    std::vector<Value> items;
    skipSpace();
    if (acceptSymbol("}")) return Expression::ofConstant(std::move(items));
    while (true) {
      auto item = parseExpression();
      if (!item) return item;
      if (item->kind != Expression::Kind::kConstant) return error("a list holds constants only");
      items.push_back(std::move(item->constant));
      if (acceptSymbol("}")) break;
      if (!acceptSymbol(",")) return error("expected \",\" or \"}\" in the list");
    }
    return Expression::ofConstant(std::move(items));
  }

  Result<Expression> parseArgument() {
    const size_t start = pos_;
    const std::string_view placeholder = text_.substr(pos_, 2);
    if (placeholder != "%@" && placeholder != "%K") return error("expected %@ or %K");
    pos_ += 2;
    if (nextArgument_ >= arguments_.size()) return error(fmt::format("no argument given for {}", placeholder), start);
    const Value& argument = arguments_[nextArgument_++];
    if (placeholder == "%@") return Expression::ofConstant(argument);
    const std::string* path = argument.text();
    if (path == nullptr || path->empty()) return error("%K needs a key path as text", start);
    // The argument must itself be a plain key path.
    PredicateArguments none;
    Parser inner(*path, none);
    auto parsed = inner.parseKeyPath();
    if (!parsed || inner.pos_ != path->size()) return error("%K needs a key path as text", start);
    return Expression::ofKeyPath(std::move(*parsed));
  }

  std::string_view text_;
  const PredicateArguments& arguments_;
  size_t pos_ = 0;
  size_t nextArgument_ = 0;
};

}  // namespace

std::string formatKeyPath(std::string_view path) {
  std::string out;
  for (const auto& component : split(path, ".")) {
    if (!out.empty()) out += '.';
    if (isReserved(component) || component == "now") out += '#';
    out += component;
  }
  return out;
}

Result<Predicate> parsePredicate(std::string_view text, const PredicateArguments& arguments) {
  return Parser(text, arguments).parse();
}

}  // namespace lectern
