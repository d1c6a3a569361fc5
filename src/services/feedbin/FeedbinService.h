#pragma once

#include "accounts/FeedService.h"

namespace lectern {

// Feedbin's service object: capabilities and built-in folders. Its client comes in a later version;
// until then every call that needs it fails with kServiceClientUnavailable. Owned by one Account object.
class FeedbinService final : public FeedService {
 public:
  using FeedService::FeedService;

  ServiceType serviceType() const override { return ServiceType::kFeedbin; }
  std::string_view descriptionName() const override { return "Feedbin"; }
  std::string_view serviceIcon() const override { return "feedbinTemplate"; }
};

}  // namespace lectern
