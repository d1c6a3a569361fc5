#pragma once

// Smart folders as library calls for the front ends. Main context, main thread.

#include <memory>
#include <string>
#include <vector>

#include "core/Error.h"
#include "smart/Predicate.h"

namespace lectern {

class ObjectContext;
class SmartFolder;

// The smart folders in sidebar order (the smart-folders account is made when missing).
Result<std::vector<std::shared_ptr<SmartFolder>>> librarySmartFolders(ObjectContext& mainContext);

// A new smart folder holding what `predicate` matches, last in the sidebar, its badge showing
// the count; saved.
Result<std::shared_ptr<SmartFolder>> addSmartFolderToLibrary(ObjectContext& mainContext, const std::string& title,
                                                             const Predicate& predicate);

}  // namespace lectern
