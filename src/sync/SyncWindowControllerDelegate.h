#pragma once

#include <vector>

#include "store/EntitySchema.h"

namespace lectern {

// What the main window offers the sync machinery: progress, the stories on screen, the network
// state. Implemented by the front end; called on the main thread.
class SyncWindowControllerDelegate {
 public:
  virtual ~SyncWindowControllerDelegate() = default;
  virtual void startSyncProgressIndicator() {}
  virtual void stopSyncProgressIndicator() {}
  // The stories selected in the article list: clean-up never deletes what is on screen.
  virtual std::vector<ObjectId> selectedBookmarks() { return {}; }
  // The toolbar's sync button follows reachability.
  virtual void setSyncEnabled(bool enabled) { (void)enabled; }
  virtual void networkStatusDidChanged() {}
};

}  // namespace lectern
