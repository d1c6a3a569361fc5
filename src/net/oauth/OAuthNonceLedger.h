#pragma once

#include <cstdint>
#include <mutex>
#include <set>
#include <string>

#include "core/Clock.h"
#include "net/oauth/NonceSource.h"

namespace lectern {

// The last signing second and the nonces used in it, shared by every signing client of the
// program so that no nonce repeats within one second. Owned by the NetworkSession; thread-safe.
class OAuthNonceLedger {
 public:
  struct Stamp {
    std::string timestamp;  // whole seconds since 1970
    std::string nonce;
  };

  // A timestamp from `clock` and a nonce from `nonces` not used before in that second. A source
  // that keeps repeating itself is a caller error (InternalInconsistency).
  Stamp next(const Clock& clock, NonceSource& nonces);

 private:
  std::mutex mutex_;  // guards lastTimestamp_, usedNonces_
  std::int64_t lastTimestamp_ = -1;
  std::set<std::string> usedNonces_;
};

}  // namespace lectern
