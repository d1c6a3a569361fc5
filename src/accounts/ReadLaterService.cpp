#include "accounts/ReadLaterService.h"

namespace lectern {

void ReadLaterService::addBookmarkWithUrl(std::string url, std::optional<std::string> title,
                                          std::optional<std::string> description, ServiceCompletion onCompleted) {
  addBookmark(PageToSave{std::move(url), std::move(title), std::move(description), {}, std::nullopt},
              std::move(onCompleted));
}

}  // namespace lectern
