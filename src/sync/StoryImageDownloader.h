#pragma once

#include <filesystem>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "core/OperationQueue.h"
#include "store/BookmarkImage.h"

namespace lectern {

class NetworkSession;

// Fetches the pictures of new stories into the image cache, two at a time, off the sync thread,
// so the article view finds them offline. Owned by one sync operation; thread-safe.
class StoryImageDownloader {
 public:
  static constexpr int kConcurrentImageDownloads = 2;

  StoryImageDownloader(NetworkSession& session, std::filesystem::path imageCacheFolder);
  // Drops what has not started and waits for the rest.
  ~StoryImageDownloader();
  StoryImageDownloader(const StoryImageDownloader&) = delete;
  StoryImageDownloader& operator=(const StoryImageDownloader&) = delete;

  // Queues each picture whose cached copy is missing, once per address. Failures are only logged.
  void downloadImages(const std::vector<BookmarkImage>& images);
  void cancel();
  void waitUntilFinished();

 private:
  void download(const std::string& address);

  NetworkSession& session_;
  const std::filesystem::path folder_;
  std::mutex mutex_;  // guards queued_
  std::set<std::string> queued_;
  OperationQueue queue_;  // last: its operations use the members above until it is gone
};

}  // namespace lectern
