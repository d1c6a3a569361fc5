#include "sync/StoryImageDownloader.h"

#include "core/Log.h"
#include "core/UserDefaults.h"
#include "feeds/URLDownload.h"
#include "net/AFImageRequestOperation.h"

namespace lectern {
namespace {

constexpr std::string_view kLogCategory = "StoryImageDownloader";
constexpr std::chrono::seconds kImageTimeout{30};

}  // namespace

StoryImageDownloader::StoryImageDownloader(NetworkSession& session, std::filesystem::path imageCacheFolder)
    : session_(session),
      folder_(std::move(imageCacheFolder)),
      queue_("com.quillhq.Lectern.StoryImages", kConcurrentImageDownloads) {}

StoryImageDownloader::~StoryImageDownloader() { cancel(); }

void StoryImageDownloader::downloadImages(const std::vector<BookmarkImage>& images) {
  for (const auto& image : images) {
    std::error_code error;
    if (std::filesystem::exists(image.cachedImagePath(folder_), error)) continue;
    {
      std::lock_guard lock(mutex_);
      if (!queued_.insert(image.url()).second) continue;
    }
    queue_.addOperation([this, address = image.url()] { download(address); });
  }
}

void StoryImageDownloader::cancel() { queue_.cancelAllOperations(); }

void StoryImageDownloader::waitUntilFinished() { queue_.waitUntilAllOperationsAreFinished(); }

void StoryImageDownloader::download(const std::string& address) {
  URLDownloadOptions options;
  options.timeout = kImageTimeout;
  auto downloaded = downloadURLSynchronously(session_, address, options);
  if (!downloaded) {
    logError(kLogCategory, "Failed to download image {}: {}", address, downloaded.error().message());
    return;
  }
  // Only pictures go into the cache: an error page served with 200 is not one.
  if (imageFormatOfData(downloaded->data).empty()) {
    logError(kLogCategory, "Failed to download image {}: not an image", address);
    return;
  }
  std::error_code error;
  std::filesystem::create_directories(folder_, error);
  if (auto written = writeFileAtomically(BookmarkImage(address).cachedImagePath(folder_), downloaded->data);
      !written) {
    logError(kLogCategory, "Failed to cache image {}: {}", address, written.error().message());
  }
}

}  // namespace lectern
