#pragma once

#include <string_view>

namespace lectern {

class UserDefaults;
class UserNotificationPresenter;

// Decides whether a user notification is shown ("NotificationCenterIndex" not 0, a presenter, the
// application not active) and hands it to the presenter. Owned by the sync manager; main thread.
class QKNotificationCenter {
 public:
  // Without a presenter nothing is ever shown.
  QKNotificationCenter(UserDefaults& defaults, UserNotificationPresenter* presenter);

  void setPresenter(UserNotificationPresenter* presenter) { presenter_ = presenter; }
  // True when the notification was handed to the presenter.
  bool userNotificationIfInactiveWithTitle(std::string_view title, std::string_view subtitle,
                                           std::string_view text);

 private:
  UserDefaults& defaults_;
  UserNotificationPresenter* presenter_;
};

}  // namespace lectern
