#include "store/BookmarkImage.h"

#include <cctype>

#include "core/Strings.h"

namespace lectern {

BookmarkImage::BookmarkImage(std::string url) : url_(std::move(url)) {}

std::string BookmarkImage::cachedFilename() const {
  // The extension tells viewers the type; only a short alphanumeric one is kept, so an address
  // can never put a path separator or a dot-dot into the name.
  std::string_view path = url_;
  if (auto end = path.find_first_of("?#"); end != std::string_view::npos) path = path.substr(0, end);
  std::string extension;
  if (auto slash = path.rfind('/'); slash != std::string_view::npos) path = path.substr(slash + 1);
  if (auto dot = path.rfind('.'); dot != std::string_view::npos) {
    std::string_view candidate = path.substr(dot + 1);
    bool plain = !candidate.empty() && candidate.size() <= 5;
    for (char c : candidate) plain = plain && std::isalnum(static_cast<unsigned char>(c)) != 0;
    if (plain) {
      extension = ".";
      extension += toLowerASCII(candidate);
    }
  }
  return MD5Hash(url_) + extension;
}

std::filesystem::path BookmarkImage::cachedImagePath(const std::filesystem::path& imageCacheFolder) const {
  return imageCacheFolder / cachedFilename();
}

}  // namespace lectern
