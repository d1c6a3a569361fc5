#pragma once

#include <filesystem>
#include <string>

namespace lectern {

// One picture of an article and where its cached copy lives: the image cache folder, under the
// MD5 of its address plus the address's extension. A plain value.
class BookmarkImage {
 public:
  // initWithUrl:
  explicit BookmarkImage(std::string url);

  const std::string& url() const { return url_; }
  const std::string& urlString() const { return url_; }
  std::string cachedFilename() const;
  std::filesystem::path cachedImagePath(const std::filesystem::path& imageCacheFolder) const;

  bool operator==(const BookmarkImage&) const = default;

 private:
  std::string url_;
};

}  // namespace lectern
