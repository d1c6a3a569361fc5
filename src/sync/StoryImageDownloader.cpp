#include "sync/StoryImageDownloader.h"

#include "core/Log.h"
#include "core/UserDefaults.h"
#include "net/AFHTTPClient.h"
#include "net/AFImageRequestOperation.h"
#include "sync/WebClients.h"

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
  auto client = makeClientForAddress(session_, address);
  if (!client) {
    logError(kLogCategory, "Failed to download image {}: {}", address, client.error().message());
    return;
  }
  (*client)->registerHTTPOperationClass<AFImageRequestOperation>();
  const auto response = (*client)->synchronouslyGetPath(address, nullptr, kImageTimeout);
  if (response.error) {
    logError(kLogCategory, "Failed to download image {}: {}", address, response.error->message());
    return;
  }
  // The image operation checked the bytes; a page without a known extension came as plain bytes.
  std::string bytes;
  if (const auto* image = std::get_if<ResponseImage>(&response.responseObject)) {
    bytes = image->data;
  } else if (const auto* raw = std::get_if<std::string>(&response.responseObject)) {
    if (!imageFormatOfData(*raw).empty()) bytes = *raw;
  }
  if (bytes.empty()) {
    logError(kLogCategory, "Failed to download image {}: not an image", address);
    return;
  }
  std::error_code error;
  std::filesystem::create_directories(folder_, error);
  if (auto written = writeFileAtomically(BookmarkImage(address).cachedImagePath(folder_), bytes); !written) {
    logError(kLogCategory, "Failed to cache image {}: {}", address, written.error().message());
  }
}

}  // namespace lectern
