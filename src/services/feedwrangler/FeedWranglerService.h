#pragma once

#include "accounts/FeedService.h"

namespace lectern {

// Feed Wrangler's service object: capabilities and built-in folders. Its client comes in a later version;
// until then every call that needs it fails with kServiceClientUnavailable. Owned by one Account object.
class FeedWranglerService final : public FeedService {
 public:
  using FeedService::FeedService;

  ServiceType serviceType() const override { return ServiceType::kFeedWrangler; }
  std::string_view descriptionName() const override { return "Feed Wrangler"; }
  std::string_view serviceIcon() const override { return "feedWranglerTemplate"; }
};

}  // namespace lectern
