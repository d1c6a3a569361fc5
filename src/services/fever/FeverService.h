#pragma once

#include "accounts/FeedService.h"

namespace lectern {

// Fever's service object: capabilities and built-in folders. Its client comes in a later version;
// until then every call that needs it fails with kServiceClientUnavailable. Owned by one Account object.
class FeverService final : public FeedService {
 public:
  using FeedService::FeedService;

  ServiceType serviceType() const override { return ServiceType::kFever; }
  std::string_view descriptionName() const override { return "Fever"; }
  std::string_view serviceIcon() const override { return "feverTemplate"; }
};

}  // namespace lectern
