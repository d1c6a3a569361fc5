#include "content/QKContentCandidates.h"

namespace lectern {

QKContentCandidate& QKContentCandidates::addContentCandidate(QKContentCandidate candidate) {
  byElement_.try_emplace(candidate.element(), candidates_.size());
  return candidates_.emplace_back(candidate);
}

QKContentCandidate* QKContentCandidates::candidateForElement(const _xmlNode* element) {
  const auto found = byElement_.find(element);
  return found == byElement_.end() ? nullptr : &candidates_[found->second];
}

const QKContentCandidate* QKContentCandidates::candidateForElement(const _xmlNode* element) const {
  const auto found = byElement_.find(element);
  return found == byElement_.end() ? nullptr : &candidates_[found->second];
}

bool QKContentCandidates::containsElement(const _xmlNode* element) const {
  return byElement_.contains(element);
}

const QKContentCandidate* QKContentCandidates::selectBestCandidate() const {
  const QKContentCandidate* best = nullptr;
  for (const auto& candidate : candidates_) {
    if (!best || candidate.score() > best->score()) best = &candidate;
  }
  return best;
}

}  // namespace lectern
