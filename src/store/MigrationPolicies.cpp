#include "store/MigrationPolicies.h"

#include <functional>

#include "store/Bookmark.h"
#include "store/PredicateText.h"
#include "store/ServiceIdentifiers.h"

namespace lectern {
namespace {

bool isVersion241(const EntityMapping& mapping) {
  const auto version = modelVersionOf(mapping);
  return version && *version == 2.41;
}

// Copies the row without its HTML and preview, then gives it a Content row holding them.
Result<void> moveHtmlIntoContent(const SourceInstance& source, MigrationManager& manager,
                                 std::optional<std::string> preview,
                                 const std::function<Result<std::int64_t>(const SourceInstance&)>& copy) {
  SourceInstance slim = source;
  slim.values.erase("html");
  slim.values.erase("preview_text");
  auto bookmark = copy(slim);
  if (!bookmark) return fail(bookmark.error());
  const auto html = textOf(source.value("html"));
  if (!preview && html) preview = Bookmark::previewTextFromHtml(*html);
  const std::map<std::string, SqlValue> content = {
      {"bookmark", *bookmark}, {"html", sqlText(html)}, {"preview_text", sqlText(preview)}};
  auto inserted = manager.insertDestinationInstance("Content", content);
  if (!inserted) return fail(inserted.error());
  return {};
}

}  // namespace

Result<void> QKBookmarkToBookmarkPolicy::createDestinationInstancesForSourceInstance(
    const SourceInstance& source, const EntityMapping& mapping, MigrationManager& manager) {
  if (!isVersion241(mapping))
    return EntityMigrationPolicy::createDestinationInstancesForSourceInstance(source, mapping, manager);
  return moveHtmlIntoContent(
      source, manager, textOf(source.value("preview_text")),
      [&](const SourceInstance& slim) { return copyAttributes(slim, mapping, manager); });
}

Result<void> QKFeedStoryToFeedStoryPolicy::createDestinationInstancesForSourceInstance(
    const SourceInstance& source, const EntityMapping& mapping, MigrationManager& manager) {
  if (!isVersion241(mapping))
    return EntityMigrationPolicy::createDestinationInstancesForSourceInstance(source, mapping, manager);
  return moveHtmlIntoContent(source, manager, std::nullopt, [&](const SourceInstance& slim) {
    return copyAttributes(slim, mapping, manager);
  });
}

Result<void> QKSmartFolderToSmartFolderPolicy::createDestinationInstancesForSourceInstance(
    const SourceInstance& source, const EntityMapping& mapping, MigrationManager& manager) {
  if (!isVersion241(mapping))
    return EntityMigrationPolicy::createDestinationInstancesForSourceInstance(source, mapping, manager);
  if (const auto accountRow = integerOf(source.value("account"))) {
    auto service = manager.sourceAccountService(*accountRow);
    if (!service) return fail(service.error());
    if (*service && serviceTypeWithName(**service) == ServiceType::kUnknown) return {};
  }
  std::map<std::string, SqlValue> overrides = {{"badgeIndex", std::int64_t{1}}};
  if (const auto predicate = textOf(source.value("predicate"))) {
    overrides["predicate"] = rewriteComparisonKeyPath(*predicate, "html", "content.preview_text");
  }
  auto copied = copyAttributes(source, mapping, manager, overrides);
  if (!copied) return fail(copied.error());
  return {};
}

std::vector<std::string> QKSmartFolderToSmartFolderPolicy::extractPredicatesFromCompoundPredicate(
    const std::string& predicate) {
  return lectern::extractPredicatesFromCompoundPredicate(predicate);
}

MappingModel makeMappingModel(std::string sourceModelName, std::string destinationModelName,
                              std::string modelVersion) {
  MappingModel model{std::move(sourceModelName), std::move(destinationModelName), {}};
  const std::map<std::string, std::string> userInfo = {{"modelVersion", std::move(modelVersion)}};
  auto add = [&](std::string entity, std::shared_ptr<EntityMigrationPolicy> policy) {
    model.entityMappings.push_back(EntityMapping{entity, entity, userInfo, std::move(policy)});
  };
  add("Account", nullptr);
  add("Folder", nullptr);
  add("FeedFolder", nullptr);
  add("Feed", nullptr);
  add("SmartFolder", std::make_shared<QKSmartFolderToSmartFolderPolicy>());
  add("Bookmark", std::make_shared<QKBookmarkToBookmarkPolicy>());
  add("FeedStory", std::make_shared<QKFeedStoryToFeedStoryPolicy>());
  add("Content", nullptr);
  add("FeedEnclosure", nullptr);
  add("Token", nullptr);
  add("OfflineOperation", nullptr);
  return model;
}

std::vector<MappingModel> builtInMappingModels() {
  return {makeMappingModel("Lectern 2.4", "Lectern 2.41", "2.41"),
          makeMappingModel("Lectern 2.41", "Lectern 2.5", "2.5"),
          makeMappingModel("Lectern 2.5", "Lectern 2.6", "2.6"),
          makeMappingModel("Lectern 2.6", "Lectern 2.7", "2.7"),
          makeMappingModel("Lectern 2.7", "Lectern 2.8", "2.8"),
          makeMappingModel("Lectern 2.8", "Lectern 2.9", "2.9")};
}

}  // namespace lectern
