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

  // Subscription operations. Here they fail with kServiceClientUnavailable: a hosted service
  // needs its client for them. `folder` (optional) is a FeedFolder of this account, never a Feed.
  virtual void addFeedWithUrl(std::string url, FeedFolder* folder, FeedCompletion onCompleted);
  virtual void deleteFeed(Feed& feed, ServiceCompletion handler);
  virtual void moveFeed(Feed& feed, FeedFolder* folder, ServiceCompletion onComplete);
  // A new folder named `title`, or `originalFolder` renamed to it.
  virtual void addOrRenameFolder(std::string title, FeedFolder* originalFolder, FolderCompletion onCompleted);

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
