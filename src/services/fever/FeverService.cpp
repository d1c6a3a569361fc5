#include "services/fever/FeverService.h"

#include <fmt/format.h>

#include <algorithm>

#include "core/Log.h"
#include "core/MainQueue.h"
#include "services/fever/QKFeverClient.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/FeedFolder.h"

namespace lectern {
namespace {

constexpr int kLoginFailedCode = 100;

// Sends one mark per item, one after the other; the first failure ends them.
void markEach(const std::shared_ptr<QKFeverClient>& client, std::vector<std::string> ids, bool readed,
              ServiceCompletion onCompleted) {
  if (ids.empty()) {
    if (onCompleted) onCompleted(std::nullopt);
    return;
  }
  // Taken from the back: the caller hands the list over reversed.
  const std::string id = ids.back();
  ids.pop_back();
  std::weak_ptr<QKFeverClient> weak = client;
  client->markStory(id, readed,
                    [weak, ids = std::move(ids), readed, onCompleted](std::optional<Error> error) mutable {
                      auto held = weak.lock();
                      if (error || !held) {
                        if (onCompleted) onCompleted(std::move(error));
                        return;
                      }
                      markEach(held, std::move(ids), readed, std::move(onCompleted));
                    });
}

}  // namespace

std::shared_ptr<AFHTTPClient> FeverService::makeApiClient() {
  auto owner = account();
  auto password = storedSecret();
  if (!owner || !password || dependencies().session == nullptr) return nullptr;
  // The endpoint is the person's own server: there is no public host to fall back on.
  auto client =
      std::make_shared<QKFeverClient>(*dependencies().session, serviceBaseURL("feverApiEndpoint", ""),
                                      owner->username().value_or(""), *password);
  client->operationQueue().setMaxConcurrentOperationCount(1);
  return client;
}

std::string FeverService::unavailableReason() const {
  return "Lectern has no Fever password for this account: remove the account and add it again.";
}

void FeverService::authenticate(ServiceCompletion onCompleted) {
  if (serviceBaseURL("feverApiEndpoint", "").empty()) {
    // There is no public Fever: the address of the person's own server is needed.
    return complete(
        std::move(onCompleted),
        Error::make(kLecternErrorDomain, kLoginFailedCode, "Failed to login",
                    "A Fever account needs the address of its server: lectern account add fever "
                    "--username U --password-stdin --endpoint URL (Miniflux: https://host/fever/, "
                    "FreshRSS: https://host/api/fever.php)."));
  }
  if (auto client = clientOrFail<QKFeverClient>("sign in", onCompleted))
    client->login(std::move(onCompleted));
}

void FeverService::markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account&,
                                 bool archived, ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKFeverClient>(archived ? "mark items read" : "mark items unread", onCompleted);
  if (!client) return;
  auto ids = bookmarkIdsOf(bookmarks);
  if (ids.empty()) return complete(std::move(onCompleted), std::nullopt);
  std::reverse(ids.begin(), ids.end());
  markEach(client, std::move(ids), archived, std::move(onCompleted));
}

void FeverService::markBookmarkFavorited(Bookmark& bookmark, bool favorited, ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKFeverClient>(favorited ? "star item" : "unstar item", onCompleted);
  if (client)
    client->markStoryStarred(bookmark.bookmark_id().value_or(""), favorited, std::move(onCompleted));
}

void FeverService::deleteBookmark(Account&, const std::string& bookmarkId, const std::optional<std::string>&,
                                  ServiceCompletion onCompleted) {
  if (auto client = clientOrFail<QKFeverClient>("delete item", onCompleted)) {
    client->markStory(bookmarkId, /*readed=*/true, std::move(onCompleted));
  }
}

std::string FeverService::changeNotOfferedReason(SubscriptionChange change) const {
  const char* what = change == SubscriptionChange::kRenameFolder ? "groups" : "feeds";
  return fmt::format(
      "The Fever API cannot change {}: add, move or remove them on your Fever server (its web page), then "
      "`lectern sync`.",
      what);
}

void FeverService::addFeedWithUrl(std::string, FeedFolder* folder, FeedCompletion) { checkFolder(folder); }

void FeverService::deleteFeed(Feed& feed, ServiceCompletion) { checkFeed(feed); }

void FeverService::moveFeed(Feed& feed, FeedFolder* folder, ServiceCompletion) {
  checkFeed(feed);
  checkFolder(folder);
}

void FeverService::addOrRenameFolder(std::string, FeedFolder* originalFolder, FolderCompletion) {
  checkFolder(originalFolder);
}

}  // namespace lectern
