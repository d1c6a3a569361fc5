#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/Clock.h"

namespace lectern {

// The transient model of one parsed feed document. It lives between a download and the mapping
// of its entries into stories. A field that the document never set stays empty (nullopt).

enum class RSSFeedType : std::int32_t { kRSS = 0, kAtom = 1 };  // RSS 2.0 and RSS 1.0 are both kRSS

struct RSSAttachedMedia {
  std::optional<std::string> url;
  std::optional<std::int32_t> length;  // bytes
  std::optional<std::string> type;     // MIME type
};

struct RSSCloudService {
  std::optional<std::string> domain;
  std::optional<std::string> path;
  std::optional<std::string> procedure;
  std::optional<std::string> protocol;
  std::optional<std::int32_t> port;
};

struct RSSEntry {
  std::optional<std::string> title;
  std::optional<std::string> url;
  std::optional<std::string> uid;
  std::optional<std::string> summary;
  std::optional<std::string> comments;
  std::optional<std::string> content;
  std::optional<std::string> copyright;
  std::optional<std::string> author;
  std::optional<Date> date;
  bool undated = false;  // the document gave no readable date: `date` is when it was read
  std::vector<std::string> categories;
  std::optional<RSSAttachedMedia> attachedMedia;
};

struct RSSFeed {
  std::optional<RSSFeedType> type;
  std::optional<std::string> title;
  std::optional<std::string> descriptionText;
  std::optional<std::string> url;  // the site link
  std::optional<std::string> author;
  std::optional<std::string> uid;
  std::optional<std::string> language;
  std::optional<std::string> copyright;
  std::optional<std::string> generator;
  std::optional<std::string> iconUrl;
  std::optional<Date> date;
  std::optional<double> validTime;  // time to live, minutes
  std::vector<RSSEntry> articles;   // document order
  std::vector<std::string> categories;
  std::optional<RSSCloudService> cloudService;
};

}  // namespace lectern
