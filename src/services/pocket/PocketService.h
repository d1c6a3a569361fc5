#pragma once

#include "accounts/ReadLaterService.h"

namespace lectern {

// Pocket's service object: capabilities and built-in folders. Its client comes in a later version;
// until then every call that needs it fails with kServiceClientUnavailable. Owned by one Account object.
class PocketService final : public ReadLaterService {
 public:
  using ReadLaterService::ReadLaterService;

  ServiceType serviceType() const override { return ServiceType::kPocket; }
  std::string_view descriptionName() const override { return "Pocket"; }
  std::string_view serviceIcon() const override { return "pocketTemplate"; }
  bool isTagAccount() const override { return true; }
};

}  // namespace lectern
