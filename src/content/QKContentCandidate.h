#pragma once

#include <cstdint>
#include <string>
#include <string_view>

struct _xmlNode;  // libxml2's node; the extractor's elements are nodes of its documents

namespace lectern {

inline constexpr std::string_view kMustUseInitWithElementScore = "Must use initWithElement:score:.";

// An element of a page with the score the extractor gave it.
// A plain value held by the QKContentCandidates of one parser; the element belongs to that parser's page.
class QKContentCandidate {
 public:
  // A candidate without an element is a programming error: throws InternalInconsistency.
  QKContentCandidate();
  QKContentCandidate(_xmlNode* element, std::int64_t score) : element_(element), score_(score) {}

  _xmlNode* element() const { return element_; }
  std::int64_t score() const { return score_; }
  void setScore(std::int64_t score) { score_ = score; }

  // "Element: <the element as XML>... [Score: 42]", for the log.
  std::string description() const;

 private:
  _xmlNode* element_ = nullptr;
  std::int64_t score_ = 0;
};

}  // namespace lectern
