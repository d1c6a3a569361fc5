#include "store/PredicateText.h"

#include <array>
#include <cctype>

#include "core/Strings.h"

namespace lectern {
namespace {

enum class TokenKind { kSpace, kWord, kString, kNumber, kOperator, kOpen, kClose, kOther };

struct Token {
  TokenKind kind;
  std::string_view text;
};

bool isWordStart(char c) {
  return std::isalpha(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '@' || c == '#';
}
bool isWordPart(char c) {
  return isWordStart(c) || std::isdigit(static_cast<unsigned char>(c)) != 0 || c == '.';
}

std::vector<Token> tokenize(std::string_view text) {
  std::vector<Token> tokens;
  size_t i = 0;
  while (i < text.size()) {
    const size_t start = i;
    const char c = text[i];
    TokenKind kind = TokenKind::kOther;
    if (std::isspace(static_cast<unsigned char>(c)) != 0) {
      while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])) != 0) ++i;
      kind = TokenKind::kSpace;
    } else if (c == '"' || c == '\'') {
      ++i;
      while (i < text.size() && text[i] != c) i += text[i] == '\\' ? 2 : 1;
      i = std::min(i + 1, text.size());
      kind = TokenKind::kString;
    } else if (std::isdigit(static_cast<unsigned char>(c)) != 0) {
      while (i < text.size() && (std::isalnum(static_cast<unsigned char>(text[i])) != 0 || text[i] == '.'))
        ++i;
      kind = TokenKind::kNumber;
    } else if (c == '$') {  // a variable is never a key path
      ++i;
      while (i < text.size() && isWordPart(text[i])) ++i;
      kind = TokenKind::kOther;
    } else if (isWordStart(c)) {
      while (i < text.size() && isWordPart(text[i])) ++i;
      kind = TokenKind::kWord;
    } else if (c == '=' || c == '!' || c == '<' || c == '>' || c == '&' || c == '|') {
      while (i < text.size() && std::string_view("=!<>&|").find(text[i]) != std::string_view::npos) ++i;
      kind = TokenKind::kOperator;
    } else if (c == '(') {
      ++i;
      kind = TokenKind::kOpen;
    } else if (c == ')') {
      ++i;
      kind = TokenKind::kClose;
    } else {
      ++i;
    }
    tokens.push_back(Token{kind, text.substr(start, i - start)});
  }
  return tokens;
}

bool wordIs(const Token& token, std::string_view word) {
  return token.kind == TokenKind::kWord && equalsIgnoringASCIICase(token.text, word);
}

bool opensOperand(const Token& token) {
  if (token.kind == TokenKind::kOpen) return true;
  if (token.kind == TokenKind::kOperator)
    return token.text == "&&" || token.text == "||" || token.text == "!";
  for (auto word : {"AND", "OR", "NOT", "ANY", "ALL", "SOME", "NONE"}) {
    if (wordIs(token, word)) return true;
  }
  return false;
}

bool isComparisonOperator(const Token& token) {
  if (token.kind == TokenKind::kOperator)
    return token.text != "&&" && token.text != "||" && token.text != "!";
  for (auto word : {"CONTAINS", "BEGINSWITH", "ENDSWITH", "LIKE", "MATCHES", "IN", "BETWEEN"}) {
    if (wordIs(token, word)) return true;
  }
  return false;
}

// The next token that is not white space, from `i` on; the end when there is none.
size_t significant(const std::vector<Token>& tokens, size_t i) {
  while (i < tokens.size() && tokens[i].kind == TokenKind::kSpace) ++i;
  return i;
}

bool isCompoundWord(const Token& token) {
  return wordIs(token, "AND") || wordIs(token, "OR") ||
         (token.kind == TokenKind::kOperator && (token.text == "&&" || token.text == "||"));
}

// The predicate without parentheses that enclose all of it.
std::string_view unwrap(std::string_view text) {
  for (;;) {
    text = trimView(text);
    if (text.size() < 2 || text.front() != '(' || text.back() != ')') return text;
    const auto tokens = tokenize(text);
    int depth = 0;
    size_t offset = 0;
    bool enclosesAll = true;
    for (size_t i = 0; i < tokens.size(); ++i) {
      if (tokens[i].kind == TokenKind::kOpen) ++depth;
      if (tokens[i].kind == TokenKind::kClose) --depth;
      offset += tokens[i].text.size();
      if (depth == 0 && offset < text.size()) {
        enclosesAll = false;
        break;
      }
    }
    if (!enclosesAll) return text;
    text = text.substr(1, text.size() - 2);
  }
}

}  // namespace

std::string rewriteComparisonKeyPath(std::string_view predicate, std::string_view from, std::string_view to) {
  const auto tokens = tokenize(predicate);
  std::string out;
  out.reserve(predicate.size() + 16);
  const Token* previous = nullptr;  // the last significant token
  for (size_t i = 0; i < tokens.size(); ++i) {
    const Token& token = tokens[i];
    bool replace = false;
    if (token.kind == TokenKind::kWord && token.text == from &&
        (previous == nullptr || opensOperand(*previous))) {
      const size_t next = significant(tokens, i + 1);
      replace = next < tokens.size() && isComparisonOperator(tokens[next]);
    }
    out += replace ? to : token.text;
    if (token.kind != TokenKind::kSpace) previous = &token;
  }
  return out;
}

std::vector<std::string> extractPredicatesFromCompoundPredicate(std::string_view predicate) {
  const std::string_view body = unwrap(predicate);
  const auto tokens = tokenize(body);
  std::vector<std::string> parts;
  std::string current;
  int depth = 0;
  bool compound = false;
  for (const auto& token : tokens) {
    if (token.kind == TokenKind::kOpen) ++depth;
    if (token.kind == TokenKind::kClose) --depth;
    if (depth == 0 && isCompoundWord(token)) {
      parts.emplace_back(unwrap(current));
      current.clear();
      compound = true;
      continue;
    }
    current += token.text;
  }
  if (!compound) return {std::string(body)};
  parts.emplace_back(unwrap(current));
  return parts;
}

}  // namespace lectern
