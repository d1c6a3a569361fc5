#pragma once

#include "accounts/ReadLaterService.h"

namespace lectern {

// Instapaper's service object: capabilities and built-in folders. Its client comes in a later version;
// until then every call that needs it fails with kServiceClientUnavailable. Owned by one Account object.
class InstapaperService final : public ReadLaterService {
 public:
  using ReadLaterService::ReadLaterService;

  ServiceType serviceType() const override { return ServiceType::kInstapaper; }
  std::string_view descriptionName() const override { return "Instapaper"; }
  std::string_view serviceIcon() const override { return "instapaperTemplate"; }
};

}  // namespace lectern
