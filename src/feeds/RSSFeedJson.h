#pragma once

#include <nlohmann/json.hpp>

#include "feeds/RSSFeed.h"

namespace lectern {

// A feed as one JSON object keyed by the field names of RSSFeed, RSSEntry, RSSAttachedMedia and
// RSSCloudService, in declaration order. A field never set is null; dates are RFC 3339 in UTC.
nlohmann::ordered_json rssFeedToJson(const RSSFeed& feed);

}  // namespace lectern
