#pragma once

#include <string>
#include <vector>

#include "store/MigrationManager.h"

namespace lectern {

// The three custom policies of the step into "Lectern 2.41". Each does its own work only when
// its mapping's "modelVersion" is 2.41; for any other version it copies as the default does.

// Bookmarks: the HTML moves into a new Content row; the stored preview comes along, or is
// computed from the HTML when there was none.
class QKBookmarkToBookmarkPolicy : public EntityMigrationPolicy {
 public:
  Result<void> createDestinationInstancesForSourceInstance(const SourceInstance& source,
                                                           const EntityMapping& mapping,
                                                           MigrationManager& manager) override;
};

// Feed stories: the same, with the preview always computed from the moved HTML.
class QKFeedStoryToFeedStoryPolicy : public EntityMigrationPolicy {
 public:
  Result<void> createDestinationInstancesForSourceInstance(const SourceInstance& source,
                                                           const EntityMapping& mapping,
                                                           MigrationManager& manager) override;
};

// Smart folders: those of accounts of unknown services stay behind; comparisons on "html" compare
// "content.preview_text" instead; the badge setting becomes 1.
class QKSmartFolderToSmartFolderPolicy : public EntityMigrationPolicy {
 public:
  Result<void> createDestinationInstancesForSourceInstance(const SourceInstance& source,
                                                           const EntityMapping& mapping,
                                                           MigrationManager& manager) override;
  static std::vector<std::string> extractPredicatesFromCompoundPredicate(const std::string& predicate);
};

// The step mappings Lectern ships: "Lectern 2.4" to "Lectern 2.41", and on one version at a time
// to the current one.
std::vector<MappingModel> builtInMappingModels();
// Every entity mapped to itself with the given "modelVersion" and the custom policies.
MappingModel makeMappingModel(std::string sourceModelName, std::string destinationModelName,
                              std::string modelVersion);

}  // namespace lectern
