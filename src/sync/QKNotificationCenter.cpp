#include "sync/QKNotificationCenter.h"

#include "core/UserDefaults.h"
#include "sync/UserNotificationPresenter.h"

namespace lectern {

QKNotificationCenter::QKNotificationCenter(UserDefaults& defaults, UserNotificationPresenter* presenter)
    : defaults_(defaults), presenter_(presenter) {}

bool QKNotificationCenter::userNotificationIfInactiveWithTitle(std::string_view title,
                                                               std::string_view subtitle,
                                                               std::string_view text) {
  if (presenter_ == nullptr || defaults_.integerForKey(kNotificationCenterIndex) == 0) return false;
  if (presenter_->isApplicationActive()) return false;
  presenter_->deliverNotification(title, subtitle, text);
  return true;
}

}  // namespace lectern
