#pragma once

#include <optional>
#include <string>

#include "store/ManagedObject.h"

namespace lectern {

class Account;

// Stored in the library file: never renumber or reuse a value. 0 is no operation.
enum class OfflineOperationType : int {
  kNone = 0,
  kStar = 1,
  kUnstar = 2,
  kMarkRead = 3,
  kMarkUnread = 4,
  kDelete = 99
};

// The operation that undoes `type` (star/unstar, read/unread), or kNone.
OfflineOperationType oppositeOfflineOperationType(OfflineOperationType type);

// A change made while the service could not be reached, replayed at the next sync in ascending
// created_at. Lives in one context.
class OfflineOperation final : public ManagedObject {
 public:
  static constexpr Entity kEntity = Entity::kOfflineOperation;
  OfflineOperation(Key, ObjectContext& context, ObjectId id) : ManagedObject(context, id) {}

  OfflineOperationType type() const;
  void setType(OfflineOperationType type);
  std::optional<std::string> bookmark_id() const;
  void setBookmark_id(std::optional<std::string> bookmarkId);
  std::optional<std::string> feed_id() const;
  void setFeed_id(std::optional<std::string> feedId);
  std::optional<Date> created_at() const;
  void setCreated_at(std::optional<Date> date);
  std::optional<ObjectId> accountID() const;
  void setAccount(const Account& account);
};

}  // namespace lectern
