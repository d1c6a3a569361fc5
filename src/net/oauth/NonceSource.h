#pragma once

#include <string>

#include "core/Strings.h"

namespace lectern {

// Where OAuth nonces come from. The program uses fresh UUIDs; tests give fixed sequences.
class NonceSource {
 public:
  virtual ~NonceSource() = default;
  virtual std::string nonce() = 0;
};

class UUIDNonceSource final : public NonceSource {
 public:
  std::string nonce() override { return UUIDString(); }
};

}  // namespace lectern
