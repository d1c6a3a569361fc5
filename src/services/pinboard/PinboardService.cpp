#include "services/pinboard/PinboardService.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "accounts/AccountErrors.h"
#include "accounts/TokenSignIn.h"
#include "core/Dates.h"
#include "core/Log.h"
#include "core/MainQueue.h"
#include "core/Strings.h"
#include "core/UserDefaults.h"
#include "net/URLError.h"
#include "services/pinboard/QKPinboardClient.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Folder.h"
#include "store/ObjectContext.h"
#include "store/StoreEnvironment.h"

namespace lectern {
namespace {

using nlohmann::json;

constexpr std::string_view kLogCategory = "PinboardService";
constexpr std::string_view kAuthenticateFailed = "Failed to authenticate";
constexpr std::string_view kAddBookmarkFailed = "Pinboard: Failed to add bookmark";
constexpr std::string_view kDeleteBookmarkFailed = "Pinboard: Failed to delete bookmark";
constexpr std::string_view kMoveBookmarkFailed = "Pinboard: Failed to move bookmark";
constexpr std::string_view kItemNotFound = "Pinboard said: item not found";
// A change Pinboard cannot take is declined here as Pinboard would decline it.
constexpr std::string_view kRefusedStatus = "400";

Error signInError(std::string_view reason) {
  return Error::make(kAccountErrorDomain, kInvalidAccountSettings, kAuthenticateFailed, reason);
}

Error refusal(std::string_view title, std::string_view reason) {
  Error error = Error::make(QKPinboardClient::kErrorDomain, QKPinboardClient::kResponseErrorCode, title, reason);
  error.userInfo[std::string(kHTTPStatusCodeErrorKey)] = kRefusedStatus;
  return error;
}

// Characters a URL cannot hold as they are, which Pinboard keeps escaped.
bool needsEscape(unsigned char c) {
  return c <= 0x20 || c >= 0x7F || std::string_view("\"<>\\^`{|}").find(static_cast<char>(c)) != std::string_view::npos;
}

std::string escapedUrl(std::string_view url) {
  std::string escaped;
  for (const char c : url) {
    const auto byte = static_cast<unsigned char>(c);
    if (needsEscape(byte)) {
      escaped += fmt::format("%{:02X}", byte);
    } else {
      escaped += c;
    }
  }
  return escaped;
}

std::chrono::milliseconds secondsFrom(const UserDefaults& defaults, std::string_view key,
                                      std::chrono::milliseconds fallback) {
  const json value = defaults.objectForKey(key);
  double seconds = 0;
  if (value.is_number()) {
    seconds = value.get<double>();
  } else if (value.is_string()) {
    try {
      seconds = std::stod(value.get<std::string>());
    } catch (const std::exception&) {
      return fallback;
    }
  } else {
    return fallback;
  }
  if (!(seconds >= 0)) return fallback;
  return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

bool isItemNotFound(const std::optional<Error>& error) {
  return error && error->domain == QKPinboardClient::kErrorDomain && error->recoverySuggestion == kItemNotFound;
}

}  // namespace

PinboardPacer::Intervals PinboardService::pacing() const {
  PinboardPacer::Intervals intervals;
  auto owner = account();
  if (!owner) return intervals;
  const UserDefaults& defaults = owner->managedObjectContext().environment().defaults();
  intervals.call = secondsFrom(defaults, kCallIntervalKey, intervals.call);
  intervals.allPosts = secondsFrom(defaults, kAllPostsIntervalKey, intervals.allPosts);
  return intervals;
}

std::shared_ptr<PinboardPacer> PinboardService::makePacer() const {
  auto owner = account();
  std::shared_ptr<PinboardPacer::Memory> memory;
  if (owner) {
    memory = pinboardPreferencesMemory(owner->managedObjectContext().environment().defaults(),
                                       owner->uniqueIdentifier());
  }
  return std::make_shared<PinboardPacer>(dependencies().clock, pacing(), std::move(memory));
}

std::shared_ptr<AFHTTPClient> PinboardService::makeApiClient() {
  auto owner = account();
  auto token = storedSecret();
  if (!owner || !token || dependencies().session == nullptr) return nullptr;
  auto client = std::make_shared<QKPinboardClient>(
      *dependencies().session, serviceBaseURL(kApiEndpointDefaultsKey, QKPinboardClient::kDefaultBaseURL),
      owner->username().value_or(""), QKPinboardClient::ApiToken{*token}, makePacer());
  // One request at a time: Pinboard allows no more, and sees the changes in the order they were made.
  client->operationQueue().setMaxConcurrentOperationCount(1);
  return client;
}

std::shared_ptr<QKPinboardClient> PinboardService::pinboardClient() {
  return std::static_pointer_cast<QKPinboardClient>(apiClient());
}

std::string PinboardService::unavailableReason() const {
  return "Lectern has no Pinboard API token for this account: remove the account and add it again.";
}

void PinboardService::authenticate(ServiceCompletion onCompleted) {
  auto owner = account();
  if (!owner || dependencies().session == nullptr) {
    completeWithoutClient("sign in", std::move(onCompleted));
    return;
  }
  const std::string username = trim(owner->username().value_or(""));
  auto password = owner->tokenSecret();
  if (username.empty() || !password || !*password) {
    complete(std::move(onCompleted), signInError("Pinboard needs the account's user name and password to sign in."));
    return;
  }
  auto client = std::make_shared<QKPinboardClient>(
      *dependencies().session, serviceBaseURL(kApiEndpointDefaultsKey, QKPinboardClient::kDefaultBaseURL), username,
      **password, makePacer());
  client->operationQueue().setMaxConcurrentOperationCount(1);
  signingIn_ = client;
  client->authenticate([self = std::static_pointer_cast<PinboardService>(shared_from_this()), signIn = client.get(),
                        onCompleted](Result<std::string> token) {
    self->finishSignIn(signIn, std::move(token), onCompleted);
  });
}

void PinboardService::finishSignIn(const QKPinboardClient* client, Result<std::string> token,
                                   ServiceCompletion onCompleted) {
  // The sign-in's client is inside its own callback here: it goes once that has returned.
  if (signingIn_.get() == client) dependencies().mainQueue.post([done = std::move(signingIn_)] {});
  // The password is forgotten: from now on only "auth_token" authenticates.
  auto error = keepSignInSecret(*this, std::move(token), kAuthenticateFailed);
  if (onCompleted) onCompleted(std::move(error));
}

std::string PinboardService::pinboardUrlOf(const std::string& url, const std::string& hash) {
  if (hash.empty() || MD5Hash(url) == hash) return url;
  std::string escaped = escapedUrl(url);
  return MD5Hash(escaped) == hash ? escaped : url;
}

PinboardPostFields PinboardService::postFieldsOf(const Bookmark& bookmark) {
  PinboardPostFields post;
  post.url = pinboardUrlOf(bookmark.url().value_or(""), bookmark.bookmark_id().value_or(""));
  post.title = bookmark.title();
  if (auto notes = bookmark.preview_text(); notes && *notes) post.description = **notes;
  post.tags = bookmark.tags().value_or("");
  post.isShared = bookmark.is_shared();
  post.isArchive = bookmark.is_archived();
  if (auto added = bookmark.date_added()) {
    post.time = rfc3339String(std::chrono::floor<std::chrono::seconds>(*added));
  }
  post.replace = true;
  return post;
}

void PinboardService::sendPosts(std::shared_ptr<QKPinboardClient> client, std::vector<PinboardPostFields> posts,
                                ServiceCompletion onCompleted) {
  if (posts.empty()) {
    complete(std::move(onCompleted), std::nullopt);
    return;
  }
  PinboardPostFields first = std::move(posts.front());
  posts.erase(posts.begin());
  std::weak_ptr<QKPinboardClient> held = client;
  client->addBookmarkWithUrl(first, [self = std::static_pointer_cast<PinboardService>(shared_from_this()), held,
                                     rest = std::move(posts), onCompleted](std::optional<Error> error) mutable {
    if (error) {
      if (onCompleted) onCompleted(std::move(error));
      return;
    }
    auto client = held.lock();
    if (!client && !rest.empty()) {
      if (onCompleted) {
        onCompleted(Error::make(QKPinboardClient::kErrorDomain, URLErrorCode::kCancelled,
                                "Pinboard: Failed to add bookmark", "Request cancelled"));
      }
      return;
    }
    self->sendPosts(std::move(client), std::move(rest), std::move(onCompleted));
  });
}

void PinboardService::addBookmark(const PageToSave& page, ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKPinboardClient>("add bookmark", onCompleted);
  if (!client) return;
  PinboardPostFields post;
  post.url = trim(page.url);
  post.title = page.title && !trim(*page.title).empty() ? *page.title : post.url;
  post.description = page.description;
  post.tags = page.tags;
  auto owner = account();
  const bool sharedByDefault =
      owner && owner->managedObjectContext().environment().defaults().boolForKey(kSharedByDefaultKey);
  const std::string folder = page.folderId.value_or(std::string(kUnreadFolderId));
  if (folder == kArchiveFolderId) {
    post.isArchive = true;
    post.isShared = sharedByDefault;
  } else if (folder == kPrivateFolderId) {
    post.isShared = false;
  } else if (folder == kSharedFolderId) {
    post.isShared = true;
  } else if (folder == kUnreadFolderId) {
    post.isShared = sharedByDefault;
  } else {
    complete(std::move(onCompleted),
             refusal(kAddBookmarkFailed, fmt::format("Pinboard keeps bookmarks in unread, archive, private or shared, "
                                                     "not in \"{}\".",
                                                     folder)));
    return;
  }
  if (post.url.empty()) {
    complete(std::move(onCompleted), refusal(kAddBookmarkFailed, "The page has no address."));
    return;
  }
  std::weak_ptr<QKPinboardClient> held = client;
  const std::string url = post.url;
  client->addBookmarkWithUrl(post, [self = std::static_pointer_cast<PinboardService>(shared_from_this()), held, url,
                                    onCompleted](std::optional<Error> error) {
    if (error) {
      if (onCompleted) onCompleted(std::move(error));
      return;
    }
    auto client = held.lock();
    if (!client) {
      // Pinboard has the page: the next sync brings it.
      if (onCompleted) onCompleted(std::nullopt);
      return;
    }
    client->getBookmarksWithParams({{"url", url}}, [self, url, onCompleted](Result<json> answer) {
      self->keepAddedPost(url, std::move(answer), onCompleted);
    });
  });
}

void PinboardService::keepAddedPost(const std::string& url, Result<json> answer, ServiceCompletion onCompleted) {
  auto owner = account();
  auto bookmark = [&]() -> Result<std::shared_ptr<Bookmark>> {
    if (!answer) return fail(answer.error());
    const auto posts = answer->is_object() ? answer->find("posts") : answer->end();
    if (posts == answer->end() || !posts->is_array() || posts->empty()) {
      return fail(QKPinboardClient::errorFromResponseData(answer->dump(), "Pinboard: Failed to get bookmark"));
    }
    return createBookmarkFromJSONObject(posts->front());
  }();
  std::optional<Error> error;
  if (!bookmark) {
    error = bookmark.error();
  } else if (auto saved = (*bookmark)->managedObjectContext().save(); !saved) {
    error = saved.error();
  }
  if (error) {
    logError(kLogCategory, "Error when saving bookmark after added to {}: {}",
             owner ? owner->uniqueIdentifier() : std::string("Pinboard"), error->message());
    if (owner) owner->managedObjectContext().rollback();
  } else {
    logInfo(kLogCategory, "Pinboard: added bookmark: {}", url);
  }
  if (onCompleted) onCompleted(std::move(error));
}

Result<std::shared_ptr<Bookmark>> PinboardService::createBookmarkFromJSONObject(const json& post) {
  auto owner = account();
  if (!owner) return fail(clientUnavailableError("keep bookmark"));
  if (!Bookmark::isValidForPinboardMapping(post)) {
    return fail(QKPinboardClient::errorFromResponseData(post.dump(), "Pinboard: Failed to get bookmark"));
  }
  auto found = owner->findBookmarkWithId(safeStringValue(post, "hash").value_or(""));
  if (!found) return fail(found.error());
  std::shared_ptr<Bookmark> bookmark = *found;
  if (!bookmark) {
    bookmark = owner->managedObjectContext().insertNewObject<Bookmark>();
    bookmark->setAccount(*owner);
  }
  bookmark->mapFromPinboardDictionary(post);
  return bookmark;
}

void PinboardService::markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account&, bool archived,
                                    ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKPinboardClient>(archived ? "mark items read" : "mark items unread", onCompleted);
  if (!client) return;
  std::vector<PinboardPostFields> posts;
  for (const auto& bookmark : bookmarks) {
    if (!bookmark) continue;
    posts.push_back(postFieldsOf(*bookmark));
    posts.back().isArchive = archived;
  }
  sendPosts(std::move(client), std::move(posts), std::move(onCompleted));
}

void PinboardService::markBookmarkFavorited(Bookmark&, bool favorited, ServiceCompletion onCompleted) {
  if (clientOrFail<QKPinboardClient>(favorited ? "star item" : "unstar item", onCompleted)) {
    complete(std::move(onCompleted), std::nullopt);
  }
}

void PinboardService::markBookmarkShared(Bookmark& bookmark, bool shared, ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKPinboardClient>(shared ? "share item" : "make item private", onCompleted);
  if (!client) return;
  auto post = postFieldsOf(bookmark);
  post.isShared = shared;
  sendPosts(std::move(client), {std::move(post)}, std::move(onCompleted));
}

void PinboardService::setKnownPostUrls(std::map<std::string, std::string> urlsByHash) {
  std::lock_guard lock(knownMutex_);
  knownPostUrls_ = std::move(urlsByHash);
}

void PinboardService::deleteBookmark(Account& owner, const std::string& bookmarkId,
                                     const std::optional<std::string>& feedId, ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKPinboardClient>("delete item", onCompleted);
  if (!client) return;
  std::optional<std::string> url;
  {
    std::lock_guard lock(knownMutex_);
    if (auto known = knownPostUrls_.find(bookmarkId); known != knownPostUrls_.end()) url = known->second;
  }
  if (!url && feedId && !feedId->empty()) url = pinboardUrlOf(*feedId, bookmarkId);
  if (!url) {
    if (auto stored = owner.findBookmarkWithId(bookmarkId); stored && *stored && (*stored)->url()) {
      url = pinboardUrlOf(*(*stored)->url(), bookmarkId);
    }
  }
  if (!url) {
    complete(std::move(onCompleted),
             refusal(kDeleteBookmarkFailed, "Pinboard deletes bookmarks by address, and Lectern has none for this one."));
    return;
  }
  // The completion holds the service (and so its client) until the answer arrives: the caller's
  // account object may go first.
  client->deleteBookmarkWithUrl(*url, [self = shared_from_this(), onCompleted](std::optional<Error> error) {
    // Gone already is what was asked.
    if (isItemNotFound(error)) error.reset();
    if (onCompleted) onCompleted(std::move(error));
  });
}

void PinboardService::moveBookmark(Bookmark& bookmark, Folder& folder, ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKPinboardClient>("move item", onCompleted);
  if (!client) return;
  const std::string folderId = folder.folder_id().value_or("");
  if (folderId == kArchiveFolderId || folderId == kUnreadFolderId) {
    bookmark.setIs_archived(folderId == kArchiveFolderId);
  } else if (folderId == kPrivateFolderId || folderId == kSharedFolderId) {
    bookmark.setIs_shared(folderId == kSharedFolderId);
  } else {
    complete(std::move(onCompleted),
             refusal(kMoveBookmarkFailed, "Pinboard keeps bookmarks in unread, archive, private or shared only."));
    return;
  }
  // A move left every folder: the flags put the bookmark back in both of its pairs.
  bookmark.placeInPinboardFolders();
  if (auto saved = bookmark.managedObjectContext().save(); !saved) {
    complete(std::move(onCompleted), saved.error());
    return;
  }
  sendPosts(std::move(client), {postFieldsOf(bookmark)}, std::move(onCompleted));
}

void PinboardService::updateTags(Bookmark& bookmark, ServiceCompletion onCompleted) {
  auto client = clientOrFail<QKPinboardClient>("update tags", onCompleted);
  if (client) sendPosts(std::move(client), {postFieldsOf(bookmark)}, std::move(onCompleted));
}

void PinboardService::updateReadProgress(Bookmark&, double, ServiceCompletion onCompleted) {
  if (clientOrFail<QKPinboardClient>("update read progress", onCompleted)) {
    complete(std::move(onCompleted), std::nullopt);
  }
}

}  // namespace lectern
