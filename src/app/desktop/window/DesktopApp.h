#pragma once

#include <gtk/gtk.h>

#include <memory>

#include "app/AppEnvironment.h"
#include "core/Error.h"

namespace lectern {
class QKApplicationController;
}

namespace lectern::desktop {

class DesktopWindow;
class GlibMainQueue;
class DesktopNotifications;

// The window's process: the environment, the library opened through the start-up path, the sync
// manager with its timer (the daemon's work, in this process), the desktop's notifications and
// the window. The program makes one; the window tests make one each.
class DesktopSession {
 public:
  struct Options {
    AppOptions app;
    bool schedule = true;  // the start-up sync and the timer
  };
  static Result<std::unique_ptr<DesktopSession>> open(GtkApplication* application, const Options& options);
  // Cancels running syncs (waiting for them), saves the library, then closes the window.
  ~DesktopSession();
  DesktopSession(const DesktopSession&) = delete;
  DesktopSession& operator=(const DesktopSession&) = delete;

  AppEnvironment& environment() { return *environment_; }
  QKApplicationController& app() { return *app_; }
  DesktopWindow& window() { return *window_; }

  // A URI handed to the program: feed:, feeds: and web addresses open the subscribe dialog;
  // lectern:// is the answer of a browser sign-in.
  void open(const std::string& uri);

 private:
  DesktopSession() = default;

  std::unique_ptr<AppEnvironment> environment_;
  std::unique_ptr<GlibMainQueue> queue_;
  std::unique_ptr<DesktopNotifications> notifications_;
  std::unique_ptr<QKApplicationController> app_;
  std::unique_ptr<DesktopWindow> window_;
};

// `lectern-desktop`: parses the options and runs the application.
int runDesktop(int argc, char** argv);

}  // namespace lectern::desktop
