#pragma once

#include <cstddef>
#include <deque>
#include <unordered_map>

#include "content/QKContentCandidate.h"

namespace lectern {

// The scored elements of one page, in the order they were first scored.
// Owned by one QKContentParser; used by its thread only.
class QKContentCandidates {
 public:
  // Adds `candidate` and returns it (references stay valid while the set lives).
  QKContentCandidate& addContentCandidate(QKContentCandidate candidate);
  // The candidate of `element` (the first one added for it), or null.
  QKContentCandidate* candidateForElement(const _xmlNode* element);
  const QKContentCandidate* candidateForElement(const _xmlNode* element) const;
  bool containsElement(const _xmlNode* element) const;
  const std::deque<QKContentCandidate>& allContentCandidates() const { return candidates_; }
  std::deque<QKContentCandidate>& allContentCandidates() { return candidates_; }
  // The highest score, the earliest added among equal scores; null when there is none.
  const QKContentCandidate* selectBestCandidate() const;

 private:
  std::deque<QKContentCandidate> candidates_;
  std::unordered_map<const _xmlNode*, size_t> byElement_;  // index into candidates_
};

}  // namespace lectern
