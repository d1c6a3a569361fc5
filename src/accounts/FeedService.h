#pragma once

#include <functional>
#include <memory>
#include <string>

#include "accounts/ServiceBase.h"

namespace lectern {

class Feed;
class FeedFolder;

// The base of the feed services: subscriptions and folders of feeds, and the local-store steps
// every feed service takes once its server agreed. Owned by one Account object; its context's thread.
class FeedService : public ServiceBase {
 public:
  // The feed added (or the one already there); always called on the main queue.
  using FeedCompletion = std::function<void(Result<std::shared_ptr<Feed>>)>;
  // The folder created or renamed; always called on the main queue.
  using FolderCompletion = std::function<void(Result<std::shared_ptr<FeedFolder>>)>;

  using ServiceBase::ServiceBase;

  bool isFeedService() const override { return true; }

  // The changes of subscriptions and folders a person can make from here. A call the service
  // does not offer may never complete (as the services' own rules have it), so front ends ask
  // first (Subscriptions.h does).
  enum class SubscriptionChange { kSubscribe, kUnsubscribe, kMoveFeed, kRenameFolder };
  virtual bool offers(SubscriptionChange) const { return true; }
  // Why a change is not offered: the recovery suggestion of the error a front end shows.
  virtual std::string changeNotOfferedReason(SubscriptionChange change) const;

  // Subscription operations. Here they fail with kServiceClientUnavailable: a hosted service
  // needs its client for them. `folder` (optional) is a FeedFolder of this account, never a Feed.
  virtual void addFeedWithUrl(std::string url, FeedFolder* folder, FeedCompletion onCompleted);
  virtual void deleteFeed(Feed& feed, ServiceCompletion handler);
  virtual void moveFeed(Feed& feed, FeedFolder* folder, ServiceCompletion onComplete);
  // A new folder named `title`, or `originalFolder` renamed to it.
  virtual void addOrRenameFolder(std::string title, FeedFolder* originalFolder, FolderCompletion onCompleted);

  // Steps after a server agreed to a change: the library follows and is saved. The error of the
  // save, if any.
  // The feed a server subscribed the account to: its feed of `remoteId` (folder_id) at the top
  // level, else a new one with these values. A copy beside a feed that sits in a folder goes again
  // at the next sync.
  Result<std::shared_ptr<Feed>> feedForSubscription(const std::string& remoteId, std::optional<std::string> title,
                                                    std::optional<std::string> feedLink,
                                                    std::optional<std::string> extId);
  std::optional<Error> deleteFeedAfterServer(Feed& feed);
  std::optional<Error> moveFeedAfterServer(Feed& feed, FeedFolder* folder);
  // "Failed to fetch feed": a subscription answered with something that is no feed.
  static Error notAFeedError();
  // The bookmark_id of each item that has one, in order: what a server knows them by.
  static std::vector<std::string> bookmarkIdsOf(const std::vector<std::shared_ptr<Bookmark>>& bookmarks);

  // Local-store steps; the caller saves the context.
  // `folder` renamed to `title`; without one, the account's FeedFolder of that title, made when missing.
  Result<std::shared_ptr<FeedFolder>> createOrRenameLocalFolder(FeedFolder* folder, const std::string& title);
  // The feed and its stories go.
  void deleteFeedFromLocalStore(Feed& feed);
  // The feed leaves every folder and joins `folder` (none: top level).
  Result<void> moveFeedInLocalStore(Feed& feed, FeedFolder* folder);

 protected:
  // Broken caller contracts: a folder of another account, or a feed given as a folder.
  void checkFolder(const FeedFolder* folder) const;
  void checkFeed(const Feed& feed) const;
  void completeFeed(FeedCompletion onCompleted, Result<std::shared_ptr<Feed>> result) const;
  void completeFolder(FolderCompletion onCompleted, Result<std::shared_ptr<FeedFolder>> result) const;
};

}  // namespace lectern
