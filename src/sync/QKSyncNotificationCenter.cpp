#include "sync/QKSyncNotificationCenter.h"

#include "sync/QKNotificationCenter.h"

namespace lectern {

void QKSyncNotificationCenter::addNotificationWithTitle(std::string_view title, std::string_view subtitle,
                                                        std::string_view text) {
  std::lock_guard lock(mutex_);
  entries_.push_back(Entry{std::string(title), std::string(subtitle), std::string(text)});
}

std::vector<QKSyncNotificationCenter::Entry> QKSyncNotificationCenter::pendingNotifications() const {
  std::lock_guard lock(mutex_);
  return entries_;
}

void QKSyncNotificationCenter::showNotifications() {
  std::vector<Entry> entries;
  {
    std::lock_guard lock(mutex_);
    entries.swap(entries_);
  }
  for (const auto& entry : entries)
    center_.userNotificationIfInactiveWithTitle(entry.title, entry.subtitle, entry.text);
}

}  // namespace lectern
