#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace lectern {

class QKNotificationCenter;

// The notifications services collect during a sync pass, delivered together when the pass ends.
// Owned by the sync manager; entries may be added from any thread, delivery is on the main thread.
class QKSyncNotificationCenter {
 public:
  struct Entry {
    std::string title;
    std::string subtitle;
    std::string text;
    bool operator==(const Entry&) const = default;
  };

  explicit QKSyncNotificationCenter(QKNotificationCenter& center) : center_(center) {}

  void addNotificationWithTitle(std::string_view title, std::string_view subtitle, std::string_view text);
  std::vector<Entry> pendingNotifications() const;
  // Hands every entry to the notification centre in the order added, then forgets them.
  void showNotifications();

 private:
  QKNotificationCenter& center_;
  mutable std::mutex mutex_;  // guards entries_
  std::vector<Entry> entries_;
};

}  // namespace lectern
