#pragma once

namespace lectern {

class SmartFolder;

// Re-runs a smart folder whose condition depends on the time ("added in the last 2 days").
// Implemented by the smart-folder module; called on the main thread after each sync pass.
class SmartFolderRearranging {
 public:
  virtual ~SmartFolderRearranging() = default;
  // Does nothing for a folder without a date condition.
  virtual void rearrangeIfHasDatePredicate(SmartFolder& folder) = 0;
};

}  // namespace lectern
