#pragma once

#include <glib.h>

namespace lectern {
class MainQueue;
}

namespace lectern::desktop {

// Runs the program's MainQueue inside GLib's main loop: a source that is ready when a task is
// due, woken from any thread when one is posted. Completions, the sync manager's bookkeeping and
// the window's events then share the one main thread. Attach once; detach before the queue goes.
class GlibMainQueue {
 public:
  explicit GlibMainQueue(MainQueue& queue);
  ~GlibMainQueue();
  GlibMainQueue(const GlibMainQueue&) = delete;
  GlibMainQueue& operator=(const GlibMainQueue&) = delete;

 private:
  MainQueue& queue_;
  GSource* source_ = nullptr;
};

}  // namespace lectern::desktop
