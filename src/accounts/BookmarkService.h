#pragma once

#include "accounts/ServiceBase.h"

namespace lectern {

// The base of the bookmark services (public and private bookmarks, tags).
// Owned by one Account object; its context's thread.
class BookmarkService : public ServiceBase {
 public:
  using ServiceBase::ServiceBase;

  bool isBookmarkService() const override { return true; }
};

}  // namespace lectern
