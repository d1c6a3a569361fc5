#include "services/pocket/PocketService.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "accounts/AccountErrors.h"
#include "core/Log.h"
#include "core/Strings.h"
#include "core/UserDefaults.h"
#include "services/pocket/QKPocketClient.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Folder.h"
#include "store/ObjectContext.h"
#include "store/StoreEnvironment.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kLogCategory = "PocketService";

Error notOffered(std::string_view title, std::string_view reason) {
  return Error::make(kAccountErrorDomain, kChangeNotOffered, title, reason);
}

std::vector<std::string> itemIdsOf(const std::vector<std::shared_ptr<Bookmark>>& bookmarks) {
  std::vector<std::string> ids;
  for (const auto& bookmark : bookmarks) {
    if (auto id = bookmark->bookmark_id(); id && !id->empty()) ids.push_back(*id);
  }
  return ids;
}

}  // namespace

Result<std::string> PocketService::consumerKey(const UserDefaults& defaults) {
  const std::string key = trim(defaults.stringForKey(kConsumerKeyDefaultsKey));
  if (key.empty()) {
    return fail(kAccountErrorDomain, kInvalidAccountSettings, "Pocket: Failed to sign in",
                fmt::format("Lectern has no Pocket consumer key: set it with `lectern config set {} KEY`, then "
                            "add the account again.",
                            kConsumerKeyDefaultsKey));
  }
  return key;
}

std::shared_ptr<AFHTTPClient> PocketService::makeApiClient() {
  auto owner = account();
  if (!owner || dependencies().session == nullptr) return nullptr;
  auto key = consumerKey(owner->managedObjectContext().environment().defaults());
  auto token = storedSecret();
  if (!key || !token) return nullptr;
  auto client = std::make_shared<QKPocketClient>(
      *dependencies().session, serviceBaseURL(kApiEndpointDefaultsKey, QKPocketClient::kDefaultBaseURL), *key,
      *token, dependencies().clock);
  // One request at a time per account: Pocket sees the changes in the order they were made.
  client->operationQueue().setMaxConcurrentOperationCount(1);
  return client;
}

std::shared_ptr<QKPocketClient> PocketService::pocketClient() {
  return std::static_pointer_cast<QKPocketClient>(apiClient());
}

std::string PocketService::unavailableReason() const {
  auto owner = account();
  if (owner && !consumerKey(owner->managedObjectContext().environment().defaults())) {
    return fmt::format("Lectern has no Pocket consumer key: set it with `lectern config set {} KEY`.",
                       kConsumerKeyDefaultsKey);
  }
  return "Lectern has no Pocket access token for this account: remove the account and add it again.";
}

void PocketService::authenticate(ServiceCompletion onCompleted) {
  if (auto client = clientOrFail<QKPocketClient>("sign in", onCompleted))
    client->checkAccessToken(holdingAccount(onCompleted));
}

ServiceCompletion PocketService::holdingAccount(ServiceCompletion onCompleted) const {
  // The client lives as long as the account that owns this service: a caller that lets go of the
  // account before the answer would otherwise see the call cancelled.
  return [owner = account(), onCompleted = std::move(onCompleted)](std::optional<Error> error) {
    if (onCompleted) onCompleted(std::move(error));
  };
}

void PocketService::markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account&,
                                  bool archived, ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKPocketClient>(archived ? "mark items read" : "mark items unread", onCompleted);
  if (client) client->markBookmarksWithIdsArchived(itemIdsOf(bookmarks), archived, holdingAccount(onCompleted));
}

void PocketService::markBookmarkFavorited(Bookmark& bookmark, bool favorited, ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKPocketClient>(favorited ? "favorite item" : "unfavorite item", onCompleted);
  if (client)
    client->markBookmarkWithIdFavorited(bookmark.bookmark_id().value_or(""), favorited, holdingAccount(onCompleted));
}

void PocketService::deleteBookmark(Account&, const std::string& bookmarkId, const std::optional<std::string>&,
                                   ServiceCompletion onCompleted) {
  if (auto client = clientOrFail<QKPocketClient>("delete item", onCompleted))
    client->deleteBookmarkWithId(bookmarkId, holdingAccount(onCompleted));
}

void PocketService::updateTags(Bookmark& bookmark, ServiceCompletion onCompleted) {
  if (auto client = clientOrFail<QKPocketClient>("update tags", onCompleted)) {
    client->updateBookmarkWithIdTags(bookmark.bookmark_id().value_or(""), bookmark.tags().value_or(""),
                                     holdingAccount(onCompleted));
  }
}

void PocketService::moveBookmark(Bookmark&, Folder&, ServiceCompletion onCompleted) {
  complete(std::move(onCompleted),
           notOffered("Pocket: Failed to move bookmark",
                      "Pocket files items by itself: archive, favourite or tag them instead."));
}

void PocketService::updateReadProgress(Bookmark&, double, ServiceCompletion onCompleted) {
  complete(std::move(onCompleted),
           notOffered("Pocket: Failed to update reading progress", "Pocket keeps no reading position."));
}

void PocketService::addBookmark(const PageToSave& page, ServiceCompletion onCompleted) {
  const std::string folderId = page.folderId.value_or(std::string(kUnreadFolderId));
  if (folderId != kUnreadFolderId && folderId != kStarredFolderId && folderId != kArchiveFolderId) {
    complete(std::move(onCompleted),
             notOffered("Pocket: Failed to add bookmark",
                        fmt::format("Pocket saves pages to its list, its favourites or its archive, not to \"{}\".",
                                    folderId)));
    return;
  }
  auto client = clientOrFail<QKPocketClient>("add bookmark", onCompleted);
  if (!client) return;
  client->addBookmarkWithUrl(
      trim(page.url), page.title, page.tags.empty() ? std::nullopt : std::optional<std::string>(page.tags),
      [self = std::static_pointer_cast<PocketService>(shared_from_this()), owner = account(), page,
       onCompleted](Result<json> answer) {
        if (!answer) {
          if (onCompleted) onCompleted(answer.error());
          return;
        }
        const auto item = answer->is_object() ? answer->find("item") : answer->end();
        if (item == answer->end() || !item->is_object() || !safeStringValue(*item, "item_id")) {
          if (onCompleted)
            onCompleted(Error::make(kLecternErrorDomain, 0, "Pocket: Failed to add bookmark",
                                    "Pocket's answer describes no item."));
          return;
        }
        self->keepAddedItem(*item, page, onCompleted);
      });
}

void PocketService::keepAddedItem(const json& added, const PageToSave& page, ServiceCompletion onCompleted) {
  auto owner = account();
  if (!owner || owner->isDeleted()) {
    if (onCompleted) onCompleted(Error::make(kLecternErrorDomain, 0, "Pocket: Failed to add bookmark",
                                             "The account was removed."));
    return;
  }
  // The answer of "add" describes the page as Pocket resolved it ("title", "resolved_url"): read
  // as a list item, with what the person gave where Pocket said nothing.
  json item = added;
  if (!item.contains("resolved_title") && item.contains("title")) item["resolved_title"] = item["title"];
  item["given_url"] = page.url;
  if (page.title) item["given_title"] = *page.title;
  item["status"] = "0";
  item["time_added"] = fmt::format("{:.0f}", secondsSince1970(dependencies().clock.now()));
  json tags = json::object();
  for (const auto& tag : split(page.tags, ",")) {
    if (auto name = trim(tag); !name.empty()) tags[name] = json{{"tag", name}};
  }
  item["tags"] = tags;

  auto stored = owner->findBookmarkWithId(safeStringValue(item, "item_id").value_or(""));
  if (!stored) {
    if (onCompleted) onCompleted(stored.error());
    return;
  }
  std::shared_ptr<Bookmark> bookmark = *stored;
  if (!bookmark) {
    bookmark = owner->managedObjectContext().insertNewObject<Bookmark>();
    bookmark->setAccount(*owner);
  }
  // A page saved again keeps its favourite: Pocket only brings it back to the list.
  item["favorite"] = bookmark->is_favorited() ? "1" : "0";
  bookmark->mapFromPocketDictionary(item, *owner);
  auto saved = owner->managedObjectContext().save();
  if (!saved) {
    if (onCompleted) onCompleted(saved.error());
    return;
  }
  const std::string folderId = page.folderId.value_or(std::string(kUnreadFolderId));
  if (folderId == kUnreadFolderId) {
    if (onCompleted) onCompleted(std::nullopt);
    return;
  }
  // Favourited or archived once Pocket has it, through the same path as a person's change.
  logInfo(kLogCategory, "Pocket: filing the saved page in {}", folderId);
  if (folderId == kStarredFolderId) {
    Bookmark::markBookmark(*bookmark, Bookmark::Favorited{true}, std::move(onCompleted));
  } else {
    Bookmark::markBookmarks({bookmark}, *owner, /*archived=*/true, std::move(onCompleted));
  }
}

}  // namespace lectern
