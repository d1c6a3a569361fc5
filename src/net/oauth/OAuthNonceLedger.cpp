#include "net/oauth/OAuthNonceLedger.h"

#include <cmath>

#include "core/Error.h"

namespace lectern {

OAuthNonceLedger::Stamp OAuthNonceLedger::next(const Clock& clock, NonceSource& nonces) {
  // A nonce source that repeats this often is broken, not unlucky.
  constexpr int kMaxAttempts = 64;
  std::lock_guard lock(mutex_);
  for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
    const auto seconds = static_cast<std::int64_t>(std::floor(secondsSince1970(clock.now())));
    std::string nonce = nonces.nonce();
    if (seconds == lastTimestamp_ && usedNonces_.contains(nonce)) continue;
    if (seconds != lastTimestamp_) {
      usedNonces_.clear();
      lastTimestamp_ = seconds;
    }
    usedNonces_.insert(nonce);
    return Stamp{std::to_string(seconds), std::move(nonce)};
  }
  throw InternalInconsistency("OAuth nonce source keeps repeating the same nonce");
}

}  // namespace lectern
