#include "feeds/RSSFeedJson.h"

#include "core/Dates.h"

namespace lectern {
namespace {

using Json = nlohmann::ordered_json;

template <typename T>
Json orNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json(nullptr);
}

Json orNull(const std::optional<Date>& date) { return date ? Json(rfc3339String(*date)) : Json(nullptr); }

Json mediaJson(const std::optional<RSSAttachedMedia>& media) {
  if (!media) return nullptr;
  return Json{{"url", orNull(media->url)}, {"length", orNull(media->length)}, {"type", orNull(media->type)}};
}

Json cloudJson(const std::optional<RSSCloudService>& cloud) {
  if (!cloud) return nullptr;
  return Json{{"domain", orNull(cloud->domain)},
              {"path", orNull(cloud->path)},
              {"procedure", orNull(cloud->procedure)},
              {"protocol", orNull(cloud->protocol)},
              {"port", orNull(cloud->port)}};
}

Json entryJson(const RSSEntry& entry) {
  return Json{{"title", orNull(entry.title)},
              {"url", orNull(entry.url)},
              {"uid", orNull(entry.uid)},
              {"summary", orNull(entry.summary)},
              {"comments", orNull(entry.comments)},
              {"content", orNull(entry.content)},
              {"copyright", orNull(entry.copyright)},
              {"author", orNull(entry.author)},
              {"date", orNull(entry.date)},
              {"categories", entry.categories},
              {"attachedMedia", mediaJson(entry.attachedMedia)}};
}

}  // namespace

nlohmann::ordered_json rssFeedToJson(const RSSFeed& feed) {
  Json articles = Json::array();
  for (const auto& entry : feed.articles) articles.push_back(entryJson(entry));
  const Json type = feed.type ? Json(static_cast<std::int32_t>(*feed.type)) : Json(nullptr);
  return Json{{"type", type},
              {"title", orNull(feed.title)},
              {"descriptionText", orNull(feed.descriptionText)},
              {"url", orNull(feed.url)},
              {"author", orNull(feed.author)},
              {"uid", orNull(feed.uid)},
              {"language", orNull(feed.language)},
              {"copyright", orNull(feed.copyright)},
              {"generator", orNull(feed.generator)},
              {"iconUrl", orNull(feed.iconUrl)},
              {"date", orNull(feed.date)},
              {"validTime", orNull(feed.validTime)},
              {"categories", feed.categories},
              {"cloudService", cloudJson(feed.cloudService)},
              {"articles", std::move(articles)}};
}

}  // namespace lectern
