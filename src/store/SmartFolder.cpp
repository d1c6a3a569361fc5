#include "store/SmartFolder.h"

namespace lectern {

using namespace FolderColumn;

std::optional<std::string> SmartFolder::predicate() const { return textValue(kPredicate); }
void SmartFolder::setPredicate(std::optional<std::string> predicate) {
  setText(kPredicate, std::move(predicate));
}
bool SmartFolder::showNotification() const { return boolValue(kShowNotification); }
void SmartFolder::setShowNotification(bool show) { setBool(kShowNotification, show); }
std::int64_t SmartFolder::badgeIndex() const { return integerValue(kBadgeIndex); }
void SmartFolder::setBadgeIndex(std::int64_t index) { setInteger(kBadgeIndex, index); }
std::int64_t SmartFolder::groupIndex() const { return integerValue(kGroupIndex); }
void SmartFolder::setGroupIndex(std::int64_t index) { setInteger(kGroupIndex, index); }
std::int64_t SmartFolder::sortIndex() const { return integerValue(kSortIndex); }
void SmartFolder::setSortIndex(std::int64_t index) { setInteger(kSortIndex, index); }

}  // namespace lectern
