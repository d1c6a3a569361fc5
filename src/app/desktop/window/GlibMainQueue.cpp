#include "app/desktop/window/GlibMainQueue.h"

#include <algorithm>
#include <chrono>

#include "core/MainQueue.h"

namespace lectern::desktop {
namespace {

struct QueueSource {
  GSource base;
  MainQueue* queue;
};

// Milliseconds until the queue's next task, -1 for none.
gint timeoutUntilDue(MainQueue& queue) {
  const auto due = queue.nextDue();
  if (!due) return -1;
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(*due - MainQueue::Clock::now()).count();
  return static_cast<gint>(std::clamp<long long>(wait, 0, 60'000));
}

gboolean prepare(GSource* source, gint* timeout) {
  *timeout = timeoutUntilDue(*reinterpret_cast<QueueSource*>(source)->queue);
  return *timeout == 0;
}

gboolean check(GSource* source) { return timeoutUntilDue(*reinterpret_cast<QueueSource*>(source)->queue) == 0; }

gboolean dispatch(GSource* source, GSourceFunc, gpointer) {
  reinterpret_cast<QueueSource*>(source)->queue->drain();
  return G_SOURCE_CONTINUE;
}

GSourceFuncs kFunctions = {prepare, check, dispatch, nullptr, nullptr, nullptr};

}  // namespace

GlibMainQueue::GlibMainQueue(MainQueue& queue) : queue_(queue) {
  source_ = g_source_new(&kFunctions, sizeof(QueueSource));
  reinterpret_cast<QueueSource*>(source_)->queue = &queue_;
  g_source_set_name(source_, "Lectern main queue");
  g_source_attach(source_, nullptr);
  // g_main_context_wakeup is safe from any thread: the loop then runs prepare() again.
  queue_.setWakeUp([] { g_main_context_wakeup(nullptr); });
}

GlibMainQueue::~GlibMainQueue() {
  queue_.setWakeUp(nullptr);
  g_source_destroy(source_);
  g_source_unref(source_);
}

}  // namespace lectern::desktop
