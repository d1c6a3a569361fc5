#pragma once

#include "accounts/BookmarkService.h"

namespace lectern {

// Pinboard's service object: capabilities and built-in folders. Its client comes in a later version;
// until then every call that needs it fails with kServiceClientUnavailable. Owned by one Account object.
class PinboardService final : public BookmarkService {
 public:
  using BookmarkService::BookmarkService;

  ServiceType serviceType() const override { return ServiceType::kPinboard; }
  std::string_view descriptionName() const override { return "Pinboard"; }
  std::string_view serviceIcon() const override { return "pinboardTemplate"; }
  bool isTagAccount() const override { return true; }
};

}  // namespace lectern
