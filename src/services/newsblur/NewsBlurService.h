#pragma once

#include "accounts/FeedService.h"

namespace lectern {

// NewsBlur's service object: capabilities and built-in folders. Its client comes in a later version;
// until then every call that needs it fails with kServiceClientUnavailable. Owned by one Account object.
class NewsBlurService final : public FeedService {
 public:
  using FeedService::FeedService;

  ServiceType serviceType() const override { return ServiceType::kNewsBlur; }
  std::string_view descriptionName() const override { return "NewsBlur"; }
  std::string_view serviceIcon() const override { return "newsBlurTemplate"; }
};

}  // namespace lectern
