#pragma once

#include <optional>
#include <string>

#include "accounts/ServiceBase.h"

namespace lectern {

// The base of the read-later services: saving a page to read later.
// Owned by one Account object; its context's thread.
class ReadLaterService : public ServiceBase {
 public:
  using ServiceBase::ServiceBase;

  bool isReadLaterService() const override { return true; }

  // addBookmark with no folder and no tags.
  void addBookmarkWithUrl(std::string url, std::optional<std::string> title, std::optional<std::string> description,
                          ServiceCompletion onCompleted);
};

}  // namespace lectern
