#include "services/localrss/LocalRSSService.h"

#include <fmt/format.h>

#include "accounts/AccountErrors.h"
#include "core/Log.h"
#include "core/MainQueue.h"
#include "core/Strings.h"
#include "feeds/QKFeedParserClient.h"
#include "net/URL.h"
#include "store/Account.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/ObjectContext.h"

namespace lectern {

namespace {

constexpr std::string_view kLogCategory = "LocalRSSService";

// Why `url` cannot be subscribed to, or nothing when it can.
std::optional<std::string> unusableAddressReason(std::string_view url) {
  if (url.empty()) return std::string("No address was given.");
  const auto parsed = URL::parse(url);
  if (!parsed || !parsed->isAbsolute()) return fmt::format("\"{}\" is not a web address.", url);
  const std::string scheme = toLowerASCII(parsed->scheme());
  if (scheme != "http" && scheme != "https") {
    return fmt::format("\"{}\" is not an http or https address.", url);
  }
  if (!parsed->hasAuthority() || parsed->host().empty()) return fmt::format("\"{}\" names no host.", url);
  return std::nullopt;
}

// What the user is told went wrong with a fetch: the error's own explanation, else its title.
std::string reasonOf(const Error& error) {
  return error.recoverySuggestion.empty() ? error.description : error.recoverySuggestion;
}

}  // namespace

LocalRSSService::LocalRSSService(Account& account, const ServiceDependencies& dependencies)
    : FeedService(account, dependencies) {}

LocalRSSService::~LocalRSSService() {
  for (auto& [id, pending] : fetches_) {
    completeFeed(std::move(pending.onCompleted),
                 fail(addSubscriptionError("The subscription was abandoned before the feed arrived.")));
  }
  // The clients go here: each cancels its request, and a late answer finds this service gone.
}

Error LocalRSSService::invalidURLError(std::string_view reason) {
  return Error::make(kAccountErrorDomain, kInvalidSubscriptionURL, "Failed to add subscription: invalid url",
                     reason);
}

Error LocalRSSService::addSubscriptionError(std::string_view reason) {
  return Error::make(kAccountErrorDomain, kAddSubscriptionFailed, "Failed to add subscription", reason);
}

void LocalRSSService::addFeedWithUrl(std::string url, FeedFolder* folder, FeedCompletion onCompleted) {
  checkFolder(folder);
  if (!managedObjectContext().isMainContext()) {
    throw InternalInconsistency("Subscriptions are added on the main context");
  }
  url = trim(url);
  if (auto reason = unusableAddressReason(url)) {
    completeFeed(std::move(onCompleted), fail(invalidURLError(*reason)));
    return;
  }
  // Subscribing again only files the feed in the folder.
  auto existing = existingFeed(url, folder);
  if (!existing || *existing) {
    completeFeed(std::move(onCompleted), std::move(existing));
    return;
  }
  NetworkSession* session = dependencies().session;
  if (session == nullptr) {
    completeFeed(std::move(onCompleted), fail(addSubscriptionError("Lectern has no network session.")));
    return;
  }

  logDebugMessage(kLogCategory, "Built-in RSS: fetching {} to subscribe", url);
  const std::uint64_t id = nextFetchId_++;
  auto client = std::make_shared<QKFeedParserClient>(*session, url);
  fetches_[id] = PendingFetch{client, std::move(onCompleted), account()};
  // Only ids travel with the request: store objects belong to the main thread.
  std::optional<ObjectId> folderId;
  if (folder != nullptr) folderId = folder->objectID();
  std::weak_ptr<ServiceBase> self = weak_from_this();
  client->fetchFeed([self, id, url, folderId](Result<RSSFeed> fetched) {
    auto service = std::static_pointer_cast<LocalRSSService>(self.lock());
    if (!service) return;  // its destructor has answered already
    service->finishAdd(id, url, folderId, std::move(fetched));
  });
}

void LocalRSSService::finishAdd(std::uint64_t id, const std::string& url, std::optional<ObjectId> folderId,
                                Result<RSSFeed> fetched) {
  auto found = fetches_.find(id);
  if (found == fetches_.end()) return;
  PendingFetch pending = std::move(found->second);
  fetches_.erase(found);
  // The client is inside its own callback here: it goes once that has returned.
  dependencies().mainQueue.post([client = std::move(pending.client)] {});

  auto added = addFetchedFeed(url, folderId, std::move(fetched));
  if (!added) logError(kLogCategory, "Built-in RSS: {} ({})", added.error().message(), url);
  if (pending.onCompleted) pending.onCompleted(std::move(added));
  // `pending.account` may be the last hold on the account; this service lives on in the caller.
}

Result<std::shared_ptr<Feed>> LocalRSSService::addFetchedFeed(const std::string& url,
                                                              std::optional<ObjectId> folderId,
                                                              Result<RSSFeed> fetched) {
  if (!fetched) {
    Error error = addSubscriptionError(reasonOf(fetched.error()));
    error.userInfo["underlyingError"] = fetched.error().message();
    return fail(std::move(error));
  }
  auto owner = account();
  if (!owner || !owner->hasContext() || owner->isDeleted()) {
    return fail(addSubscriptionError("The account was removed."));
  }
  auto folder = folderWithId(folderId);
  if (!folder) return fail(addSubscriptionError(folder.error().message()));
  if (folderId && !*folder) return fail(addSubscriptionError("The folder was removed."));

  // Another subscription to the same address may have finished first.
  auto existing = existingFeed(url, folder->get());
  if (!existing || *existing) return existing;

  std::string title = trim(fetched->title.value_or(""));
  if (title.empty()) title = URL::parse(url)->host();
  auto feed = owner->addFeedWithTitle(title, url, url, folder->get());
  if (auto saved = save(); !saved) return fail(addSubscriptionError(saved.error().message()));
  logDebugMessage(kLogCategory, "Built-in RSS: subscribed to {} ({})", title, url);
  return feed;
}

Result<std::shared_ptr<Feed>> LocalRSSService::existingFeed(const std::string& url, FeedFolder* folder) {
  auto owner = account();
  if (!owner) return fail(addSubscriptionError("The account was removed."));
  ObjectContext::FetchRequest request;
  // Feeds made elsewhere (OPML import) may keep the address in feed_link alone.
  request.where = "account = ? AND (folder_id = ? OR feed_link = ?)";
  request.arguments = {owner->objectID().row, url, url};
  request.orderBy = "id";
  auto found = owner->managedObjectContext().fetchFirst<Feed>(std::move(request));
  if (!found) return fail(addSubscriptionError(found.error().message()));
  if (*found && folder != nullptr) {
    auto in = folder->feeds();
    if (!in) return fail(addSubscriptionError(in.error().message()));
    if (std::find(in->begin(), in->end(), *found) == in->end()) {
      folder->addFeed(**found);
      if (auto saved = save(); !saved) return fail(addSubscriptionError(saved.error().message()));
    }
  }
  return found;
}

Result<std::shared_ptr<FeedFolder>> LocalRSSService::folderWithId(std::optional<ObjectId> folderId) {
  if (!folderId) return std::shared_ptr<FeedFolder>();
  return managedObjectContext().existingObject<FeedFolder>(*folderId);
}

Result<void> LocalRSSService::save() {
  auto& context = managedObjectContext();
  if (!context.hasChanges()) return {};
  return context.save();
}

void LocalRSSService::deleteFeed(Feed& feed, ServiceCompletion handler) {
  deleteFeedFromLocalStore(feed);
  auto saved = save();
  complete(std::move(handler), saved ? std::nullopt : std::optional<Error>(saved.error()));
}

void LocalRSSService::moveFeed(Feed& feed, FeedFolder* folder, ServiceCompletion onComplete) {
  auto moved = moveFeedInLocalStore(feed, folder);
  if (moved) moved = save();
  complete(std::move(onComplete), moved ? std::nullopt : std::optional<Error>(moved.error()));
}

void LocalRSSService::addOrRenameFolder(std::string title, FeedFolder* originalFolder,
                                        FolderCompletion onCompleted) {
  checkFolder(originalFolder);
  if (!managedObjectContext().isMainContext())
    throw InternalInconsistency("Folders are added on the main context");
  title = trim(title);
  if (title.empty()) {
    completeFolder(std::move(onCompleted),
                   fail(kAccountErrorDomain, kInvalidFolderName,
                        originalFolder != nullptr ? "Failed to rename folder" : "Failed to add folder",
                        "A folder needs a name."));
    return;
  }
  auto folder = createOrRenameLocalFolder(originalFolder, title);
  if (folder) {
    if (auto saved = save(); !saved) folder = fail(saved.error());
  }
  completeFolder(std::move(onCompleted), std::move(folder));
}

// The store has made each change already; there is no one else to tell.

void LocalRSSService::markBookmarks(const std::vector<std::shared_ptr<Bookmark>>&, Account&, bool,
                                    ServiceCompletion onCompleted) {
  complete(std::move(onCompleted), std::nullopt);
}
void LocalRSSService::markBookmarkFavorited(Bookmark&, bool, ServiceCompletion onCompleted) {
  complete(std::move(onCompleted), std::nullopt);
}
void LocalRSSService::markBookmarkShared(Bookmark&, bool, ServiceCompletion onCompleted) {
  complete(std::move(onCompleted), std::nullopt);
}
void LocalRSSService::deleteBookmark(Account&, const std::string&, const std::optional<std::string>&,
                                     ServiceCompletion onCompleted) {
  complete(std::move(onCompleted), std::nullopt);
}
void LocalRSSService::moveBookmark(Bookmark&, Folder&, ServiceCompletion onCompleted) {
  complete(std::move(onCompleted), std::nullopt);
}
void LocalRSSService::updateTags(Bookmark&, ServiceCompletion onCompleted) {
  complete(std::move(onCompleted), std::nullopt);
}
void LocalRSSService::updateReadProgress(Bookmark&, double, ServiceCompletion onCompleted) {
  complete(std::move(onCompleted), std::nullopt);
}

}  // namespace lectern
