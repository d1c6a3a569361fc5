#pragma once

#include <string_view>

namespace lectern {

// Shows a notification to the user: the desktop's notification service in a graphical front end,
// the log otherwise. Implemented by the program; called on the main thread.
class UserNotificationPresenter {
 public:
  virtual ~UserNotificationPresenter() = default;
  // An active application shows news itself: notifications are only for when it is not.
  virtual bool isApplicationActive() const { return false; }
  virtual void deliverNotification(std::string_view title, std::string_view subtitle,
                                   std::string_view text) = 0;
};

// The presenter used when the program gives none: one log line per notification.
class LogNotificationPresenter final : public UserNotificationPresenter {
 public:
  void deliverNotification(std::string_view title, std::string_view subtitle, std::string_view text) override;
};

}  // namespace lectern
