#pragma once

#include "accounts/FeedService.h"

namespace lectern {

// Feedly's service object: capabilities and built-in folders. Its client comes in a later version;
// until then every call that needs it fails with kServiceClientUnavailable. Owned by one Account object.
class FeedlyService final : public FeedService {
 public:
  using FeedService::FeedService;

  ServiceType serviceType() const override { return ServiceType::kFeedly; }
  std::string_view descriptionName() const override { return "Feedly"; }
  std::string_view serviceIcon() const override { return "feedlyTemplate"; }
};

}  // namespace lectern
