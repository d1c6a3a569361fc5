#include "store/OfflineOperation.h"

#include "store/Account.h"

namespace lectern {

using namespace OfflineOperationColumn;

OfflineOperationType oppositeOfflineOperationType(OfflineOperationType type) {
  switch (type) {
    case OfflineOperationType::kStar:
      return OfflineOperationType::kUnstar;
    case OfflineOperationType::kUnstar:
      return OfflineOperationType::kStar;
    case OfflineOperationType::kMarkRead:
      return OfflineOperationType::kMarkUnread;
    case OfflineOperationType::kMarkUnread:
      return OfflineOperationType::kMarkRead;
    default:
      return OfflineOperationType::kNone;
  }
}

OfflineOperationType OfflineOperation::type() const {
  return static_cast<OfflineOperationType>(integerValue(kType));
}
void OfflineOperation::setType(OfflineOperationType type) {
  setInteger(kType, static_cast<std::int64_t>(type));
}
std::optional<std::string> OfflineOperation::bookmark_id() const { return textValue(kBookmarkId); }
void OfflineOperation::setBookmark_id(std::optional<std::string> bookmarkId) {
  setText(kBookmarkId, std::move(bookmarkId));
}
std::optional<std::string> OfflineOperation::feed_id() const { return textValue(kFeedId); }
void OfflineOperation::setFeed_id(std::optional<std::string> feedId) { setText(kFeedId, std::move(feedId)); }
std::optional<Date> OfflineOperation::created_at() const { return dateValue(kCreatedAt); }
void OfflineOperation::setCreated_at(std::optional<Date> date) { setDate(kCreatedAt, date); }

std::optional<ObjectId> OfflineOperation::accountID() const {
  const auto row = referenceValue(kAccount);
  return row ? std::optional<ObjectId>(ObjectId{Entity::kAccount, *row}) : std::nullopt;
}

void OfflineOperation::setAccount(const Account& account) { setReference(kAccount, account.objectID().row); }

}  // namespace lectern
