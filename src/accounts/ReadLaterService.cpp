#include "accounts/ReadLaterService.h"

namespace lectern {

void ReadLaterService::addBookmarkWithUrl(std::string, std::optional<std::string>, std::optional<std::string>,
                                          ServiceCompletion onCompleted) {
  completeWithoutClient("add bookmark", std::move(onCompleted));
}

}  // namespace lectern
