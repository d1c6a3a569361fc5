#include "sync/UserNotificationPresenter.h"

#include "core/Log.h"

namespace lectern {

void LogNotificationPresenter::deliverNotification(std::string_view title, std::string_view subtitle,
                                                   std::string_view text) {
  logInfo("QKNotificationCenter", "Notification: {} - {}: {}", title, subtitle, text);
}

}  // namespace lectern
