#include "services/instapaper/InstapaperService.h"

#include <fmt/format.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "accounts/AccountErrors.h"
#include "accounts/TokenSignIn.h"
#include "core/Clock.h"
#include "core/Log.h"
#include "core/MainQueue.h"
#include "core/Strings.h"
#include "core/UserDefaults.h"
#include "services/instapaper/QKInstapaperClient.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Folder.h"
#include "store/ObjectContext.h"
#include "store/ServiceIdentifiers.h"
#include "store/StoreEnvironment.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kLogCategory = "InstapaperService";
constexpr std::string_view kLoginFailed = "Instapaper: Failed to login";
constexpr std::string_view kAddBookmarkFailed = "Instapaper: Failed to add bookmark";

Error signInError(std::string_view reason) {
  return Error::make(kAccountErrorDomain, kInvalidAccountSettings, kLoginFailed, reason);
}

std::optional<Error> errorOf(const Result<json>& answer) {
  return answer ? std::nullopt : std::optional<Error>(answer.error());
}

// The first bookmark object of an answer.
const json* firstBookmark(const json& answer) {
  if (!answer.is_array()) return nullptr;
  for (const auto& object : answer) {
    if (object.is_object() && safeStringValue(object, "type") == "bookmark" &&
        Bookmark::isValidForInstapaperMapping(object)) {
      return &object;
    }
  }
  return nullptr;
}

bool isBuiltIn(std::string_view folderId) {
  return folderId == kUnreadFolderId || folderId == kStarredFolderId || folderId == kArchiveFolderId;
}

}  // namespace

std::string InstapaperService::tokenPairSecret(const std::string& token, const std::string& secret) {
  return fmt::format("oauth_token={}&oauth_token_secret={}", percentEscape(token, "&=+?#/:;,@$!'()*"),
                     percentEscape(secret, "&=+?#/:;,@$!'()*"));
}

std::optional<std::pair<std::string, std::string>> InstapaperService::tokenPairFromSecret(std::string_view text) {
  if (!text.starts_with("oauth_token=")) return std::nullopt;
  auto [token, secret] = QKXAuthClient::tokenPairFromResponseBody(text);
  if (!token || !secret || token->empty() || secret->empty()) return std::nullopt;
  return std::make_pair(std::move(*token), std::move(*secret));
}

std::optional<std::pair<std::string, std::string>> InstapaperService::consumerPair() const {
  auto owner = account();
  if (!owner) return std::nullopt;
  auto& defaults = owner->managedObjectContext().environment().defaults();
  std::string key = trim(defaults.stringForKey(kConsumerKeyDefaultsKey));
  std::string secret = trim(defaults.stringForKey(kConsumerSecretDefaultsKey));
  if (key.empty() || secret.empty()) return std::nullopt;
  return std::make_pair(std::move(key), std::move(secret));
}

std::shared_ptr<AFHTTPClient> InstapaperService::makeApiClient() {
  if (dependencies().session == nullptr) return nullptr;
  auto consumer = consumerPair();
  if (!consumer) return nullptr;
  auto stored = storedSecret();
  auto pair = stored ? tokenPairFromSecret(*stored) : std::nullopt;
  if (!pair) return nullptr;
  auto client = std::make_shared<QKInstapaperClient>(
      *dependencies().session, serviceBaseURL(kApiEndpointDefaultsKey, QKInstapaperClient::kDefaultBaseURL),
      consumer->first, consumer->second, QKInstapaperClient::TokenPair{pair->first, pair->second});
  // One request at a time per account: Instapaper sees the changes in the order they were made.
  client->operationQueue().setMaxConcurrentOperationCount(1);
  return client;
}

std::shared_ptr<QKInstapaperClient> InstapaperService::instapaperClient() {
  return std::static_pointer_cast<QKInstapaperClient>(apiClient());
}

std::string InstapaperService::unavailableReason() const {
  if (!consumerPair()) {
    return fmt::format("Lectern has no Instapaper consumer key: set it with `lectern config set {} KEY` and "
                       "`lectern config set {} SECRET`.",
                       kConsumerKeyDefaultsKey, kConsumerSecretDefaultsKey);
  }
  return "Lectern has no Instapaper access token for this account: remove the account and add it again.";
}

void InstapaperService::authenticate(ServiceCompletion onCompleted) {
  auto owner = account();
  if (!owner || dependencies().session == nullptr) {
    completeWithoutClient("login", std::move(onCompleted));
    return;
  }
  auto consumer = consumerPair();
  if (!consumer) {
    complete(std::move(onCompleted),
             signInError(fmt::format("Lectern has no Instapaper consumer key and secret: set them with `lectern "
                                     "config set {} KEY` and `lectern config set {} SECRET`, then add the account "
                                     "again.",
                                     kConsumerKeyDefaultsKey, kConsumerSecretDefaultsKey)));
    return;
  }
  const auto username = owner->username();
  if (!username || trim(*username).empty()) {
    complete(std::move(onCompleted), signInError("Instapaper needs the account's user name (--username) to sign in."));
    return;
  }
  // Until the sign-in, the account's secret is the password the person typed. Instapaper has
  // accounts without one, so an empty password is sent as it is.
  auto password = owner->tokenSecret();
  if (!password) {
    complete(std::move(onCompleted), signInError(password.error().message()));
    return;
  }
  auto client = std::make_shared<QKInstapaperClient>(
      *dependencies().session, serviceBaseURL(kApiEndpointDefaultsKey, QKInstapaperClient::kDefaultBaseURL),
      consumer->first, consumer->second, QKInstapaperClient::Credentials{*username, password->value_or("")});
  signingIn_ = client;
  client->authenticate([self = std::static_pointer_cast<InstapaperService>(shared_from_this()), signIn = client.get(),
                        onCompleted](Result<std::pair<std::string, std::string>> pair) {
    self->finishSignIn(signIn, std::move(pair), onCompleted);
  });
}

void InstapaperService::finishSignIn(const QKInstapaperClient* client, Result<std::pair<std::string, std::string>> pair,
                                     ServiceCompletion onCompleted) {
  // The sign-in's client is inside its own callback here: it goes once that has returned.
  if (signingIn_.get() == client) dependencies().mainQueue.post([done = std::move(signingIn_)] {});
  // The password is forgotten: from now on the client signs its calls with the token pair.
  Result<std::string> secret = pair ? Result<std::string>(tokenPairSecret(pair->first, pair->second))
                                    : Result<std::string>(fail(pair.error()));
  auto error = keepSignInSecret(*this, std::move(secret), kLoginFailed);
  if (onCompleted) onCompleted(std::move(error));
}

void InstapaperService::addBookmark(const PageToSave& page, ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKInstapaperClient>("add bookmark", onCompleted);
  if (!client) return;
  const std::optional<std::string> folderId =
      page.folderId && !trim(*page.folderId).empty() ? std::optional<std::string>(trim(*page.folderId)) : std::nullopt;
  // The built-in folders are no folders to Instapaper: a page is added unread, then starred or archived.
  const std::optional<std::string> sentFolder = folderId && !isBuiltIn(*folderId) ? folderId : std::nullopt;
  auto self = std::static_pointer_cast<InstapaperService>(shared_from_this());
  auto keep = [self, folderId, onCompleted](Result<json> answer) {
    std::optional<Error> error = errorOf(answer);
    if (!error) error = self->keepAddedBookmark(*answer, folderId);
    if (onCompleted) onCompleted(std::move(error));
  };
  client->addBookmarkWithUrl(
      page.url, page.title, page.description, sentFolder,
      [client = std::weak_ptr<QKInstapaperClient>(client), folderId, keep](Result<json> added) {
        const json* bookmark = added ? firstBookmark(*added) : nullptr;
        auto alive = client.lock();
        if (!added || bookmark == nullptr || !alive || !folderId ||
            (*folderId != kStarredFolderId && *folderId != kArchiveFolderId)) {
          keep(std::move(added));
          return;
        }
        const std::string id = safeStringValue(*bookmark, "bookmark_id").value_or("");
        if (*folderId == kStarredFolderId) {
          alive->starBookmarkWithId(id, keep);
        } else {
          alive->archiveBookmarkWithId(id, keep);
        }
      });
}

std::optional<Error> InstapaperService::keepAddedBookmark(const json& answer, const std::optional<std::string>& folderId) {
  const json* item = firstBookmark(answer);
  if (item == nullptr) {
    return Error::make(kLecternLowercaseErrorDomain, 100, kAddBookmarkFailed,
                       "Instapaper's answer named no bookmark.");
  }
  auto owner = account();
  if (!owner || owner->isDeleted()) return signInError("The account was removed.");
  const std::string id = safeStringValue(*item, "bookmark_id").value_or("");
  auto found = owner->findBookmarkWithId(id);
  if (!found) return found.error();
  auto bookmark = *found;
  const bool isNew = bookmark == nullptr;
  if (isNew) {
    bookmark = owner->managedObjectContext().insertNewObject<Bookmark>();
    bookmark->setAccount(*owner);
  }
  // A page saved again is the bookmark Instapaper already had: it stays where it lies unless a
  // folder was named.
  const bool place = isNew || (folderId && *folderId != kStarredFolderId);
  if (place) {
    auto folder = owner->findFolderWithId(folderId && *folderId != kStarredFolderId ? *folderId : kUnreadFolderId);
    if (!folder) return folder.error();
    bookmark->removeFromAllFolder();
    if (*folder) {
      bookmark->addToFolder(**folder);
    } else if (auto unread = owner->unreadFolder(); unread && *unread) {
      // A folder made at Instapaper since the last sync: the item waits in Unread until then.
      bookmark->addToFolder(**unread);
    }
  }
  bookmark->mapFromInstapaperDictionary(*item);
  if (auto saved = owner->managedObjectContext().save(); !saved) return saved.error();
  return std::nullopt;
}

void InstapaperService::markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account&, bool archived,
                                      ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKInstapaperClient>(archived ? "mark items read" : "mark items unread", onCompleted);
  if (!client) return;
  std::vector<std::string> ids;
  for (const auto& bookmark : bookmarks) {
    if (auto id = bookmark->bookmark_id()) ids.push_back(*id);
  }
  client->markBookmarksArchived(std::move(ids), archived, std::move(onCompleted));
}

void InstapaperService::markBookmarkFavorited(Bookmark& bookmark, bool favorited, ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKInstapaperClient>(favorited ? "star item" : "unstar item", onCompleted);
  if (!client) return;
  client->markBookmarkWithId(bookmark.bookmark_id().value_or(""), favorited,
                             [onCompleted](Result<json> answer) {
                               if (onCompleted) onCompleted(errorOf(answer));
                             });
}

void InstapaperService::deleteBookmark(Account&, const std::string& bookmarkId, const std::optional<std::string>&,
                                       ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKInstapaperClient>("delete item", onCompleted);
  if (!client) return;
  client->deleteBookmarkWithId(bookmarkId, [onCompleted](Result<json> answer) {
    if (onCompleted) onCompleted(errorOf(answer));
  });
}

void InstapaperService::moveBookmark(Bookmark& bookmark, Folder& folder, ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKInstapaperClient>("move item", onCompleted);
  if (!client) return;
  const std::string id = bookmark.bookmark_id().value_or("");
  const std::string folderId = folder.folder_id().value_or("");
  auto done = [onCompleted](Result<json> answer) {
    if (onCompleted) onCompleted(errorOf(answer));
  };
  if (folderId == kArchiveFolderId || folderId == kUnreadFolderId) {
    bookmark.setIs_archived(folderId == kArchiveFolderId);
    client->markBookmarkArchived(id, folderId == kArchiveFolderId, std::move(done));
  } else if (folderId == kStarredFolderId) {
    bookmark.setIs_favorited(true);
    client->starBookmarkWithId(id, std::move(done));
  } else {
    bookmark.setIs_archived(false);
    client->moveBookmarkWithId(id, folderId, std::move(done));
  }
  if (auto saved = managedObjectContext().save(); !saved) {
    logError(kLogCategory, "Failed to save a moved bookmark: {}", saved.error().message());
  }
}

void InstapaperService::updateReadProgress(Bookmark& bookmark, double progress, ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKInstapaperClient>("update read progress", onCompleted);
  if (!client) return;
  // The time of the reading is what Instapaper compares: it travels with the progress and stays
  // with the bookmark, so that the next `have` list says the same.
  const Date now = dependencies().clock.now();
  bookmark.setProgress(progress);
  bookmark.setDate_updated(now);
  if (auto saved = managedObjectContext().save(); !saved) {
    logError(kLogCategory, "Failed to save reading progress: {}", saved.error().message());
  }
  client->updateReadProgressOfBookmark(bookmark.bookmark_id().value_or(""), progress,
                                       std::floor(secondsSince1970(now)), [onCompleted](Result<json> answer) {
                                         if (onCompleted) onCompleted(errorOf(answer));
                                       });
}

void InstapaperService::updateTags(Bookmark&, ServiceCompletion onCompleted) {
  if (!clientOrFail<QKInstapaperClient>("update tags", onCompleted)) return;
  complete(std::move(onCompleted),
           Error::make(kAccountErrorDomain, kChangeNotOffered, "Instapaper: Failed to update tags",
                       "Instapaper keeps no tags: they stay in Lectern only."));
}

void InstapaperService::markBookmarkShared(Bookmark&, bool shared, ServiceCompletion onCompleted) {
  if (!clientOrFail<QKInstapaperClient>(shared ? "share item" : "unshare item", onCompleted)) return;
  complete(std::move(onCompleted),
           Error::make(kAccountErrorDomain, kChangeNotOffered,
                       shared ? "Instapaper: Failed to share item" : "Instapaper: Failed to unshare item",
                       "Instapaper shares nothing from Lectern."));
}

}  // namespace lectern
