// A stateful stand-in for the Feedbin API v2 on loopback; speaks only the wire protocol.
#include "mocks/FeedbinMockServer.h"

#include <fmt/format.h>
#include <httplib.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <condition_variable>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "mocks/MockWire.h"

namespace lectern::mock {
namespace {

// Feed ids and subscription ids come from separate ranges, so a client that sends one for the
// other gets a 403 or no match instead of a lucky hit.
constexpr std::int64_t kFirstFeedId = 10'001;
// Above 2^32: a client that keeps entry ids in 32 bits fails at once.
constexpr std::int64_t kFirstEntryId = 5'000'000'001;
constexpr size_t kMaxIdsPerEntriesRequest = 100;
constexpr size_t kMaxIdsPerMark = 1000;
constexpr int kDefaultPerPage = 100;
constexpr int kMaxPerPage = 1000;

Answer errorAnswer(int status, Json errors = Json::array(), Json message = nullptr) {
  return jsonAnswer(status,
                    Json{{"status", status}, {"message", std::move(message)}, {"errors", std::move(errors)}});
}

Answer badParameter(const std::string& name, const std::string& problem) {
  return errorAnswer(400, Json::array({Json{{name, problem}}}));
}

Answer unsupportedType() {
  return errorAnswer(415, Json::array(),
                     R"(Please use the "Content-Type: application/json; charset=utf-8" header)");
}

Json optionalText(const std::optional<std::string>& value) { return value ? Json(*value) : Json(nullptr); }

Json subscriptionJson(const FeedbinSubscription& subscription) {
  return {{"id", subscription.id},
          {"created_at", subscription.createdAt},
          {"feed_id", subscription.feedId},
          {"title", subscription.title},
          {"feed_url", subscription.feedUrl},
          {"site_url", optionalText(subscription.siteUrl)}};
}

Json taggingJson(const FeedbinTagging& tagging) {
  return {{"id", tagging.id}, {"feed_id", tagging.feedId}, {"name", tagging.name}};
}

Json entryJson(const FeedbinEntry& entry) {
  return {{"id", entry.id},
          {"feed_id", entry.feedId},
          {"title", optionalText(entry.title)},
          {"author", optionalText(entry.author)},
          {"url", entry.url},
          {"content", optionalText(entry.content)},
          {"summary", optionalText(entry.summary)},
          {"published", entry.published},
          {"created_at", entry.createdAt}};
}

// ---- the account ----

struct StoredEntry {
  FeedbinEntry entry;
  Instant created;
};

enum class EntrySet { kUnread, kStarred };

// What one Feedbin user has. Every call happens under State::mutex.
struct Account {
  std::int64_t nextSubscriptionId = 1;
  std::int64_t nextFeedId = kFirstFeedId;
  std::int64_t nextTaggingId = 1;
  std::int64_t nextEntryId = kFirstEntryId;
  std::map<std::int64_t, FeedbinSubscription> subscriptions;
  std::map<std::int64_t, FeedbinTagging> taggings;
  std::unordered_map<std::int64_t, StoredEntry> entries;
  std::unordered_map<std::int64_t, std::set<std::int64_t>> entriesByFeed;
  std::set<std::pair<Instant, std::int64_t>> entriesByCreation;  // oldest first; paging walks it backwards
  std::set<std::int64_t> unread;
  std::set<std::int64_t> starred;
  std::map<std::string, FeedbinDiscoverableFeed> discoverable;  // by urlKey of the feed address
  std::map<std::string, std::vector<FeedbinDiscoverableFeed>> pagesWithSeveralFeeds;  // by urlKey
  std::map<std::string, std::int64_t> feedIds;                                        // by urlKey

  std::set<std::int64_t>& idSet(EntrySet which) { return which == EntrySet::kUnread ? unread : starred; }

  std::int64_t feedIdFor(const std::string& feedUrl) {
    auto [found, added] = feedIds.try_emplace(urlKey(feedUrl), nextFeedId);
    if (added) ++nextFeedId;
    return found->second;
  }

  FeedbinSubscription& addSubscription(FeedbinSubscription subscription) {
    if (subscription.id == 0) subscription.id = nextSubscriptionId;
    nextSubscriptionId = std::max(nextSubscriptionId, subscription.id + 1);
    if (subscription.feedId == 0) {
      subscription.feedId = feedIdFor(subscription.feedUrl);
    } else {
      feedIds.try_emplace(urlKey(subscription.feedUrl), subscription.feedId);
      nextFeedId = std::max(nextFeedId, subscription.feedId + 1);
    }
    // A feed the account once followed still exists: subscribing to it again must work.
    discoverable.try_emplace(
        urlKey(subscription.feedUrl),
        FeedbinDiscoverableFeed{subscription.feedUrl, subscription.title, subscription.siteUrl});
    return subscriptions[subscription.id] = std::move(subscription);
  }

  const FeedbinSubscription* subscriptionForFeed(std::int64_t feedId) const {
    for (const auto& [id, subscription] : subscriptions) {
      if (subscription.feedId == feedId) return &subscription;
    }
    return nullptr;
  }

  // Like the service, unsubscribing drops the feed's taggings and unread marks; stars stay.
  bool removeSubscription(std::int64_t subscriptionId) {
    auto found = subscriptions.find(subscriptionId);
    if (found == subscriptions.end()) return false;
    std::int64_t feedId = found->second.feedId;
    subscriptions.erase(found);
    if (subscriptionForFeed(feedId) != nullptr) return true;
    std::erase_if(taggings, [&](const auto& item) { return item.second.feedId == feedId; });
    if (auto feedEntries = entriesByFeed.find(feedId); feedEntries != entriesByFeed.end()) {
      for (auto entryId : feedEntries->second) unread.erase(entryId);
    }
    return true;
  }

  const FeedbinTagging* findTagging(std::int64_t feedId, const std::string& name) const {
    for (const auto& [id, tagging] : taggings) {
      if (tagging.feedId == feedId && tagging.name == name) return &tagging;
    }
    return nullptr;
  }

  FeedbinTagging addTagging(std::int64_t feedId, const std::string& name) {
    if (const auto* existing = findTagging(feedId, name)) return *existing;
    FeedbinTagging tagging{nextTaggingId++, feedId, name};
    return taggings[tagging.id] = tagging;
  }

  void renameTag(const std::string& from, const std::string& to) {
    for (auto& [id, tagging] : taggings) {
      if (tagging.name == from) tagging.name = to;
    }
    // Renaming onto a tag the feed already carries leaves one tagging, not two.
    std::set<std::pair<std::int64_t, std::string>> seen;
    std::erase_if(taggings, [&](const auto& item) {
      return !seen.emplace(item.second.feedId, item.second.name).second;
    });
  }

  const FeedbinEntry& addEntry(FeedbinEntry entry, bool isUnread, bool isStarred) {
    if (entry.id == 0) entry.id = nextEntryId;
    nextEntryId = std::max(nextEntryId, entry.id + 1);
    if (entry.createdAt.empty()) entry.createdAt = formatInstant(nowInstant());
    if (entry.published.empty()) entry.published = entry.createdAt;
    // An unreadable date sorts as the oldest rather than refusing the entry.
    Instant created = parseInstant(entry.createdAt).value_or(Instant{});
    if (auto old = entries.find(entry.id); old != entries.end()) {
      entriesByCreation.erase({old->second.created, entry.id});
      entriesByFeed[old->second.entry.feedId].erase(entry.id);
    }
    entriesByCreation.emplace(created, entry.id);
    entriesByFeed[entry.feedId].insert(entry.id);
    auto id = entry.id;
    auto [stored, added] = entries.insert_or_assign(id, StoredEntry{std::move(entry), created});
    mark(EntrySet::kUnread, id, isUnread);
    mark(EntrySet::kStarred, id, isStarred);
    return stored->second.entry;
  }

  // Answers whether the entry's mark changed.
  bool mark(EntrySet which, std::int64_t entryId, bool on) {
    if (!entries.contains(entryId)) return false;
    auto& ids = idSet(which);
    return on ? ids.insert(entryId).second : ids.erase(entryId) > 0;
  }
};

// ---- requests ----

struct Call {
  std::string_view method;
  std::string_view path;
  const Query& query;
  std::string_view rawQuery;
  std::string_view body;
  std::string_view contentType;
  std::string origin;  // "http://127.0.0.1:PORT"
};

std::optional<std::string> parameter(const Query& query, const std::string& name) {
  auto found = query.find(name);
  if (found == query.end()) return std::nullopt;
  return found->second;
}

bool sendsJson(std::string_view contentType) {
  return equalsIgnoringCase(trimmed(contentType.substr(0, contentType.find(';'))), "application/json");
}

// An empty body reads as an empty object; anything else that is not a JSON object is refused.
std::optional<Json> bodyObject(const Call& call) {
  if (trimmed(call.body).empty()) return Json::object();
  auto parsed = Json::parse(call.body, nullptr, /*allow_exceptions=*/false);
  if (!parsed.is_object()) return std::nullopt;
  return parsed;
}

// Ids arrive as JSON numbers or as strings of digits.
std::optional<std::int64_t> idValue(const Json& value) {
  if (value.is_number_integer()) {
    if (value.is_number_unsigned() && value.get<std::uint64_t>() > std::uint64_t{INT64_MAX})
      return std::nullopt;
    return value.get<std::int64_t>();
  }
  if (value.is_string()) return parseInteger(value.get_ref<const std::string&>());
  return std::nullopt;
}

std::optional<std::string> nonEmptyString(const Json& object, const char* name) {
  auto found = object.find(name);
  if (found == object.end() || !found->is_string() || trimmed(found->get_ref<const std::string&>()).empty()) {
    return std::nullopt;
  }
  return found->get<std::string>();
}

Answer withLocation(Answer answer, std::string location) {
  answer.headers.emplace_back("Location", std::move(location));
  return answer;
}

// ---- subscriptions ----

Answer listSubscriptions(const Account& account, const Call& call) {
  std::optional<Instant> since;
  if (auto text = parameter(call.query, "since")) {
    since = parseInstant(*text);
    if (!since) return badParameter("since", "is not a date");
  }
  Json list = Json::array();
  for (const auto& [id, subscription] : account.subscriptions) {
    if (since && !(parseInstant(subscription.createdAt).value_or(Instant{}) > *since)) continue;
    list.push_back(subscriptionJson(subscription));
  }
  return jsonAnswer(200, list);
}

Answer subscribe(Account& account, const Call& call) {
  if (!sendsJson(call.contentType)) return unsupportedType();
  auto body = bodyObject(call);
  if (!body) return errorAnswer(400);
  auto address = nonEmptyString(*body, "feed_url");
  if (!address) return badParameter("feed_url", "can't be blank");
  auto key = urlKey(*address);

  if (auto page = account.pagesWithSeveralFeeds.find(key); page != account.pagesWithSeveralFeeds.end()) {
    Json choices = Json::array();
    for (const auto& feed : page->second)
      choices.push_back({{"feed_url", feed.feedUrl}, {"title", feed.title}});
    return jsonAnswer(300, choices);
  }
  // The address may name the feed or the site that links to it.
  const FeedbinDiscoverableFeed* feed = nullptr;
  if (auto found = account.discoverable.find(key); found != account.discoverable.end()) {
    feed = &found->second;
  } else {
    for (const auto& [feedKey, candidate] : account.discoverable) {
      if (candidate.siteUrl && urlKey(*candidate.siteUrl) == key) feed = &candidate;
    }
  }
  if (feed == nullptr) return errorAnswer(404);
  auto feedKey = urlKey(feed->feedUrl);
  for (const auto& [id, subscription] : account.subscriptions) {
    if (urlKey(subscription.feedUrl) == feedKey) {
      return withLocation(jsonAnswer(302, subscriptionJson(subscription)),
                          fmt::format("{}/v2/subscriptions/{}.json", call.origin, id));
    }
  }
  FeedbinSubscription subscription;
  subscription.feedUrl = feed->feedUrl;
  subscription.title = feed->title;
  subscription.siteUrl = feed->siteUrl;
  subscription.createdAt = formatInstant(nowInstant());
  const auto& added = account.addSubscription(std::move(subscription));
  return withLocation(jsonAnswer(201, subscriptionJson(added)),
                      fmt::format("{}/v2/subscriptions/{}.json", call.origin, added.id));
}

Answer renameSubscription(Account& account, const Call& call, std::int64_t id) {
  auto found = account.subscriptions.find(id);
  if (found == account.subscriptions.end()) return errorAnswer(403);
  auto body = bodyObject(call);
  if (!body) return errorAnswer(400);
  auto title = nonEmptyString(*body, "title");
  if (!title) title = parameter(call.query, "title");
  if (!title) return badParameter("title", "can't be blank");
  found->second.title = *title;
  return jsonAnswer(200, subscriptionJson(found->second));
}

Answer subscriptionAnswer(Account& account, const Call& call, std::int64_t id) {
  auto found = account.subscriptions.find(id);
  if (call.method == "GET") {
    return found == account.subscriptions.end() ? errorAnswer(403)
                                                : jsonAnswer(200, subscriptionJson(found->second));
  }
  if (call.method == "DELETE")
    return account.removeSubscription(id) ? Answer{204, {}, {}, {}} : errorAnswer(403);
  if (call.method == "PATCH") return renameSubscription(account, call, id);
  return errorAnswer(404);
}

// ---- taggings and tags ----

Json taggingList(const Account& account) {
  Json list = Json::array();
  for (const auto& [id, tagging] : account.taggings) list.push_back(taggingJson(tagging));
  return list;
}

Answer tagFeed(Account& account, const Call& call) {
  if (!sendsJson(call.contentType)) return unsupportedType();
  auto body = bodyObject(call);
  if (!body) return errorAnswer(400);
  auto feedId = body->contains("feed_id") ? idValue((*body)["feed_id"]) : std::nullopt;
  if (!feedId) return badParameter("feed_id", "can't be blank");
  auto name = nonEmptyString(*body, "name");
  if (!name) return badParameter("name", "can't be blank");
  // Only feeds the account follows can be tagged: a subscription id sent by mistake ends here.
  if (account.subscriptionForFeed(*feedId) == nullptr) return errorAnswer(403);
  if (const auto* existing = account.findTagging(*feedId, *name)) {
    return withLocation(jsonAnswer(302, taggingJson(*existing)),
                        fmt::format("{}/v2/taggings/{}.json", call.origin, existing->id));
  }
  auto tagging = account.addTagging(*feedId, *name);
  return withLocation(jsonAnswer(201, taggingJson(tagging)),
                      fmt::format("{}/v2/taggings/{}.json", call.origin, tagging.id));
}

Answer taggingAnswer(Account& account, const Call& call, std::int64_t id) {
  auto found = account.taggings.find(id);
  if (found == account.taggings.end()) return errorAnswer(403);
  if (call.method == "GET") return jsonAnswer(200, taggingJson(found->second));
  if (call.method == "DELETE") {
    account.taggings.erase(found);
    return {204, {}, {}, {}};
  }
  return errorAnswer(404);
}

// POST renames a tag, DELETE removes it; both answer every tagging left.
Answer changeTag(Account& account, const Call& call) {
  auto body = bodyObject(call);
  if (!body) return errorAnswer(400);
  auto text = [&](const char* name) {
    auto value = nonEmptyString(*body, name);
    return value ? value : parameter(call.query, name);
  };
  if (call.method == "POST") {
    auto from = text("old_name");
    auto to = text("new_name");
    if (!from || !to) return badParameter(from ? "new_name" : "old_name", "can't be blank");
    account.renameTag(*from, *to);
  } else {
    auto name = text("name");
    if (!name) return badParameter("name", "can't be blank");
    std::erase_if(account.taggings, [&](const auto& item) { return item.second.name == *name; });
  }
  return jsonAnswer(200, taggingList(account));
}

// ---- unread and starred ----

// Ids come from the JSON body or the query string (name[]=1&name[]=2), since some HTTP stacks drop
// DELETE bodies.
Answer markEntries(Account& account, const Call& call, EntrySet which, bool on, bool checkType) {
  const std::string name = which == EntrySet::kUnread ? "unread_entries" : "starred_entries";
  if (checkType && !sendsJson(call.contentType)) return unsupportedType();
  auto body = bodyObject(call);
  if (!body) return errorAnswer(400);
  std::vector<std::int64_t> ids;
  bool given = false;
  if (auto found = body->find(name); found != body->end()) {
    if (!found->is_array()) return badParameter(name, "must be an array of ids");
    given = true;
    for (const auto& value : *found) {
      auto id = idValue(value);
      if (!id) return badParameter(name, "must be an array of ids");
      ids.push_back(*id);
    }
  }
  for (const auto& key : {name + "[]", name}) {
    auto [first, last] = call.query.equal_range(key);
    for (auto item = first; item != last; ++item) {
      given = true;
      auto id = parseInteger(item->second);
      if (!id) return badParameter(name, "must be an array of ids");
      ids.push_back(*id);
    }
  }
  if (!given) return badParameter(name, "can't be blank");
  if (ids.size() > kMaxIdsPerMark) {
    return badParameter(
        name, fmt::format("Please request less than or equal to {} ids per request", kMaxIdsPerMark));
  }
  Json changed = Json::array();
  for (auto id : ids) {
    if (account.mark(which, id, on)) changed.push_back(id);
  }
  return jsonAnswer(200, changed);
}

Answer idSetAnswer(Account& account, const Call& call, EntrySet which, bool isDeleteAlias) {
  if (isDeleteAlias) {
    return call.method == "POST" ? markEntries(account, call, which, false, false) : errorAnswer(404);
  }
  if (call.method == "GET") return jsonAnswer(200, account.idSet(which));
  if (call.method == "POST") return markEntries(account, call, which, true, true);
  if (call.method == "DELETE") return markEntries(account, call, which, false, false);
  return errorAnswer(404);
}

// ---- entries ----

// Absent: nullopt; "true" or "false": the flag; anything else: an error naming the parameter.
std::optional<bool> flagParameter(const Query& query, const std::string& name, std::optional<Answer>& error) {
  auto text = parameter(query, name);
  if (!text) return std::nullopt;
  if (*text == "true") return true;
  if (*text == "false") return false;
  error = badParameter(name, "must be true or false");
  return std::nullopt;
}

// The same query with another page, for the Links header.
std::string pageUrl(const Call& call, int page, int perPage) {
  std::string url = fmt::format("{}{}?page={}&per_page={}", call.origin, call.path, page, perPage);
  forEachQueryPart(call.rawQuery, [&](std::string_view part, const std::string& key, const std::string&) {
    if (key != "page" && key != "per_page") url += fmt::format("&{}", part);
  });
  return url;
}

Answer listEntries(const Account& account, const Call& call) {
  std::int64_t page = 1;
  if (auto text = parameter(call.query, "page")) {
    auto parsed = parseInteger(*text);
    if (!parsed || *parsed < 1) return badParameter("page", "must be a number greater than 0");
    page = *parsed;
  }
  std::int64_t perPage = kDefaultPerPage;
  if (auto text = parameter(call.query, "per_page")) {
    auto parsed = parseInteger(*text);
    if (!parsed || *parsed < 1) return badParameter("per_page", "must be a number greater than 0");
    perPage = std::min<std::int64_t>(*parsed, kMaxPerPage);
  }
  std::optional<Answer> flagError;
  auto read = flagParameter(call.query, "read", flagError);
  auto isStarred = flagParameter(call.query, "starred", flagError);
  if (flagError) return *flagError;
  std::optional<Instant> since;
  if (auto text = parameter(call.query, "since")) {
    since = parseInstant(*text);
    if (!since) return badParameter("since", "is not a date");
  }
  std::optional<std::vector<std::int64_t>> ids;
  if (auto text = parameter(call.query, "ids")) {
    ids.emplace();
    std::string_view rest = *text;
    while (!rest.empty()) {
      auto part = rest.substr(0, rest.find(','));
      rest.remove_prefix(std::min(rest.size(), part.size() + 1));
      if (trimmed(part).empty()) continue;
      auto id = parseInteger(part);
      if (!id) return badParameter("ids", "must be a comma-separated list of ids");
      ids->push_back(*id);
    }
    if (ids->size() > kMaxIdsPerEntriesRequest) {
      return badParameter("ids", fmt::format("Please request less than or equal to {} ids per request",
                                             kMaxIdsPerEntriesRequest));
    }
  }

  auto matches = [&](const StoredEntry& stored) {
    auto id = stored.entry.id;
    if (read && *read == account.unread.contains(id)) return false;
    if (isStarred && *isStarred != account.starred.contains(id)) return false;
    return !since || stored.created > *since;
  };
  std::vector<const StoredEntry*> found;
  if (ids) {
    std::set<std::int64_t> unique(ids->begin(), ids->end());
    for (auto id : unique) {
      auto entry = account.entries.find(id);
      if (entry != account.entries.end() && matches(entry->second)) found.push_back(&entry->second);
    }
    std::ranges::sort(found, [](const StoredEntry* a, const StoredEntry* b) {
      return std::tie(a->created, a->entry.id) > std::tie(b->created, b->entry.id);
    });
  } else {
    for (auto item = account.entriesByCreation.rbegin(); item != account.entriesByCreation.rend(); ++item) {
      if (since && !(item->first > *since)) break;
      const auto& stored = account.entries.at(item->second);
      if (matches(stored)) found.push_back(&stored);
    }
  }

  auto total = static_cast<std::int64_t>(found.size());
  if (total == 0) {
    Answer empty = jsonAnswer(200, Json::array());
    empty.headers.emplace_back("X-Feedbin-Record-Count", "0");
    return empty;
  }
  auto lastPage = (total + perPage - 1) / perPage;
  if (page > lastPage) return errorAnswer(404);
  Json list = Json::array();
  auto end = std::min(total, page * perPage);
  for (auto index = (page - 1) * perPage; index < end; ++index) {
    list.push_back(entryJson(found[static_cast<size_t>(index)]->entry));
  }
  Answer answer = jsonAnswer(200, list);
  if (lastPage > 1) {
    std::vector<std::string> links;
    auto link = [&](std::int64_t target, const char* rel) {
      links.push_back(fmt::format("<{}>; rel=\"{}\"",
                                  pageUrl(call, static_cast<int>(target), static_cast<int>(perPage)), rel));
    };
    if (page < lastPage) {
      link(page + 1, "next");
      link(lastPage, "last");
    }
    if (page > 1) {
      link(1, "first");
      link(page - 1, "prev");
    }
    answer.headers.emplace_back("Links", fmt::format("{}", fmt::join(links, ", ")));
  }
  answer.headers.emplace_back("X-Feedbin-Record-Count", std::to_string(total));
  return answer;
}

Answer entryAnswer(const Account& account, std::int64_t id) {
  auto found = account.entries.find(id);
  if (found == account.entries.end()) return errorAnswer(403);
  return jsonAnswer(200, entryJson(found->second.entry));
}

// ---- routing ----

Answer dispatch(Account& account, const Call& call) {
  constexpr std::string_view kPrefix = "/v2/";
  constexpr std::string_view kSuffix = ".json";
  auto path = call.path;
  if (!path.starts_with(kPrefix) || !path.ends_with(kSuffix) ||
      path.size() < kPrefix.size() + kSuffix.size()) {
    return errorAnswer(404);
  }
  path = path.substr(kPrefix.size(), path.size() - kPrefix.size() - kSuffix.size());
  std::vector<std::string_view> parts;
  while (true) {
    auto slash = path.find('/');
    parts.push_back(path.substr(0, slash));
    if (slash == std::string_view::npos) break;
    path.remove_prefix(slash + 1);
  }
  const auto& method = call.method;
  const auto resource = parts[0];
  std::optional<std::int64_t> id = parts.size() > 1 ? parseInteger(parts[1]) : std::nullopt;

  if (parts.size() == 1) {
    if (resource == "authentication" && method == "GET") return {200, {}, {}, {}};
    if (resource == "subscriptions" && method == "GET") return listSubscriptions(account, call);
    if (resource == "subscriptions" && method == "POST") return subscribe(account, call);
    if (resource == "taggings" && method == "GET") return jsonAnswer(200, taggingList(account));
    if (resource == "taggings" && method == "POST") return tagFeed(account, call);
    if (resource == "tags" && (method == "POST" || method == "DELETE")) return changeTag(account, call);
    if (resource == "unread_entries") return idSetAnswer(account, call, EntrySet::kUnread, false);
    if (resource == "starred_entries") return idSetAnswer(account, call, EntrySet::kStarred, false);
    if (resource == "entries" && method == "GET") return listEntries(account, call);
    return errorAnswer(404);
  }
  if (parts.size() == 2 && parts[1] == "delete") {
    if (resource == "unread_entries") return idSetAnswer(account, call, EntrySet::kUnread, true);
    if (resource == "starred_entries") return idSetAnswer(account, call, EntrySet::kStarred, true);
    return errorAnswer(404);
  }
  if (!id) return errorAnswer(404);
  if (parts.size() == 2) {
    if (resource == "subscriptions") return subscriptionAnswer(account, call, *id);
    if (resource == "taggings") return taggingAnswer(account, call, *id);
    if (resource == "entries" && method == "GET") return entryAnswer(account, *id);
  }
  if (parts.size() == 3 && resource == "subscriptions" && parts[2] == "update" && method == "POST") {
    return renameSubscription(account, call, *id);
  }
  return errorAnswer(404);
}

// Which endpoints answer a single object; every other one answers a list.
bool answersObject(std::string_view method, std::string_view path) {
  auto isOne = [&](std::string_view resource) {
    if (!path.starts_with(resource)) return false;
    auto rest = path.substr(resource.size());
    return rest.size() > 5 && rest.ends_with(".json") &&
           parseInteger(rest.substr(0, rest.size() - 5)).has_value();
  };
  if (method == "POST" && (path == "/v2/subscriptions.json" || path == "/v2/taggings.json")) return true;
  return path == "/v2/authentication.json" || isOne("/v2/subscriptions/") || isOne("/v2/taggings/") ||
         isOne("/v2/entries/");
}

struct ArmedFault {
  std::string method;
  std::string path;
  Fault fault = Fault::kServerError;
  int remaining = 1;
  std::chrono::milliseconds delay{0};
};

// A faulted request changes nothing on the server: the failure stands for a server or proxy that
// never reached the account.
Answer faultAnswer(Fault fault, std::string_view method, std::string_view path) {
  switch (fault) {
    case Fault::kServerError:
      return errorAnswer(500, Json::array(), "Internal Server Error");
    case Fault::kWrongShape:
      return answersObject(method, path)
                 ? jsonAnswer(200, Json::array({Json{{"id", 1}, {"title", "A list"}}}))
                 : jsonAnswer(200, Json{{"id", 1}, {"title", "Not a list"}});
    case Fault::kNotJson:
      return {200, "<html><body>Maintenance</body></html>", "text/html", {}};
    case Fault::kSlow:
    case Fault::kDropConnection:
      break;
  }
  return errorAnswer(500);
}

bool pathMatches(const std::string& wanted, const std::string& path) {
  return wanted.empty() || wanted == path;
}

}  // namespace

struct FeedbinMockServer::State {
  State(std::string user, std::string secret) : username(std::move(user)), password(std::move(secret)) {}

  // Answers the fault this request plays, if its turn has come.
  std::optional<ArmedFault> takeFault(const std::string& method, const std::string& path) {
    std::optional<ArmedFault> fired;
    for (auto item = faults.begin(); item != faults.end();) {
      if (pathMatches(item->method, method) && pathMatches(item->path, path) && --item->remaining <= 0) {
        if (!fired) {
          fired = *item;
          item = faults.erase(item);
          continue;
        }
        item->remaining = 1;  // another fault due on this request plays on the next match
      }
      ++item;
    }
    return fired;
  }

  const std::string username;
  const std::string password;
  mutable std::mutex mutex;          // guards every member below
  std::condition_variable stopping;  // wakes slow answers when the server shuts down
  bool stopped = false;
  Account account;
  std::vector<RecordedRequest> requests;
  std::vector<ArmedFault> faults;
};

FeedbinMockServer::FeedbinMockServer(std::string username, std::string password, int port)
    : server_(std::make_unique<httplib::Server>()),
      state_(std::make_unique<State>(std::move(username), std::move(password))) {
  auto handler = [this](const httplib::Request& request, httplib::Response& response) {
    route(request, response);
  };
  server_->Get(".*", handler);
  server_->Post(".*", handler);
  server_->Put(".*", handler);
  server_->Patch(".*", handler);
  server_->Delete(".*", handler);
  server_->Options(".*", handler);
  port_ = listenOnLoopback(*server_, port, thread_);
}

FeedbinMockServer::~FeedbinMockServer() {
  {
    std::lock_guard lock(state_->mutex);
    state_->stopped = true;
  }
  state_->stopping.notify_all();
  server_->stop();
  thread_.join();
}

std::string FeedbinMockServer::baseURL() const { return fmt::format("http://127.0.0.1:{}/", port_); }

FeedbinSubscription FeedbinMockServer::addSubscription(FeedbinSubscription subscription) {
  std::lock_guard lock(state_->mutex);
  return state_->account.addSubscription(std::move(subscription));
}

void FeedbinMockServer::removeSubscription(std::int64_t subscriptionId) {
  std::lock_guard lock(state_->mutex);
  state_->account.removeSubscription(subscriptionId);
}

FeedbinTagging FeedbinMockServer::addTagging(std::int64_t feedId, const std::string& name) {
  std::lock_guard lock(state_->mutex);
  return state_->account.addTagging(feedId, name);
}

void FeedbinMockServer::renameTag(const std::string& from, const std::string& to) {
  std::lock_guard lock(state_->mutex);
  state_->account.renameTag(from, to);
}

FeedbinEntry FeedbinMockServer::addEntry(FeedbinEntry entry, bool unread, bool starred) {
  std::lock_guard lock(state_->mutex);
  return state_->account.addEntry(std::move(entry), unread, starred);
}

void FeedbinMockServer::setUnread(std::int64_t entryId, bool unread) {
  std::lock_guard lock(state_->mutex);
  state_->account.mark(EntrySet::kUnread, entryId, unread);
}

void FeedbinMockServer::setStarred(std::int64_t entryId, bool starred) {
  std::lock_guard lock(state_->mutex);
  state_->account.mark(EntrySet::kStarred, entryId, starred);
}

void FeedbinMockServer::addDiscoverableFeed(FeedbinDiscoverableFeed feed) {
  std::lock_guard lock(state_->mutex);
  auto key = urlKey(feed.feedUrl);
  state_->account.discoverable[key] = std::move(feed);
}

void FeedbinMockServer::addPageWithSeveralFeeds(const std::string& pageUrl,
                                                std::vector<FeedbinDiscoverableFeed> feeds) {
  std::lock_guard lock(state_->mutex);
  state_->account.pagesWithSeveralFeeds[urlKey(pageUrl)] = std::move(feeds);
}

std::vector<FeedbinSubscription> FeedbinMockServer::subscriptions() const {
  std::lock_guard lock(state_->mutex);
  std::vector<FeedbinSubscription> list;
  for (const auto& [id, subscription] : state_->account.subscriptions) list.push_back(subscription);
  return list;
}

std::vector<FeedbinTagging> FeedbinMockServer::taggings() const {
  std::lock_guard lock(state_->mutex);
  std::vector<FeedbinTagging> list;
  for (const auto& [id, tagging] : state_->account.taggings) list.push_back(tagging);
  return list;
}

std::set<std::int64_t> FeedbinMockServer::unreadEntryIds() const {
  std::lock_guard lock(state_->mutex);
  return state_->account.unread;
}

std::set<std::int64_t> FeedbinMockServer::starredEntryIds() const {
  std::lock_guard lock(state_->mutex);
  return state_->account.starred;
}

size_t FeedbinMockServer::entryCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->account.entries.size();
}

void FeedbinMockServer::seed(int feeds, int entriesPerFeed, int unread, int starredEvery) {
  std::lock_guard lock(state_->mutex);
  auto& account = state_->account;
  std::vector<std::int64_t> feedIds;
  for (int feed = 1; feed <= feeds; ++feed) {
    FeedbinSubscription subscription;
    subscription.title = fmt::format("Feed {}", feed);
    subscription.feedUrl = fmt::format("https://feed{}.example.com/feed.xml", feed);
    subscription.siteUrl = fmt::format("https://feed{}.example.com/", feed);
    const auto& added = account.addSubscription(std::move(subscription));
    feedIds.push_back(added.feedId);
    account.addTagging(added.feedId, fmt::format("Tag {}", (feed - 1) / 10 + 1));
  }
  if (feedIds.empty() || entriesPerFeed <= 0) return;
  // Entry k (0 the newest) is k minutes old; ids grow with age reversed, as the server's do.
  const auto total = static_cast<std::int64_t>(feeds) * entriesPerFeed;
  const auto now = nowInstant();
  const auto firstId = account.nextEntryId;
  for (std::int64_t age = total - 1; age >= 0; --age) {
    auto index = total - 1 - age;  // 0 the oldest
    auto feedIndex = static_cast<size_t>(age % feeds);
    FeedbinEntry entry;
    entry.id = firstId + index;
    entry.feedId = feedIds[feedIndex];
    entry.title = fmt::format("Story {} of feed {}", age / feeds + 1, feedIndex + 1);
    if (index % 3 != 0)
      entry.author = fmt::format("Author {}", feedIndex + 1);  // some null, as feeds omit it
    entry.url = fmt::format("https://feed{}.example.com/stories/{}", feedIndex + 1, entry.id);
    entry.content = fmt::format("<p>Body of story {}.</p>", entry.id);
    entry.summary = fmt::format("Body of story {}.", entry.id);
    Instant created{now.seconds - age * 60, now.nanos};
    entry.createdAt = formatInstant(created);
    entry.published = formatInstant(Instant{created.seconds - 30, 0});
    bool isStarred = starredEvery > 0 && (index + 1) % starredEvery == 0;
    account.addEntry(std::move(entry), /*isUnread=*/age < unread, isStarred);
  }
}

std::vector<RecordedRequest> FeedbinMockServer::requests() const {
  std::lock_guard lock(state_->mutex);
  return state_->requests;
}

std::vector<RecordedRequest> FeedbinMockServer::requests(const std::string& method,
                                                         const std::string& path) const {
  std::lock_guard lock(state_->mutex);
  std::vector<RecordedRequest> matching;
  for (const auto& request : state_->requests) {
    if (pathMatches(method, request.method) && pathMatches(path, request.path)) matching.push_back(request);
  }
  return matching;
}

void FeedbinMockServer::clearRequests() {
  std::lock_guard lock(state_->mutex);
  state_->requests.clear();
}

void FeedbinMockServer::injectFault(const std::string& method, const std::string& path, Fault fault,
                                    int occurrence, std::chrono::milliseconds delay) {
  std::lock_guard lock(state_->mutex);
  state_->faults.push_back({method, path, fault, std::max(occurrence, 1), delay});
}

void FeedbinMockServer::route(const httplib::Request& request, httplib::Response& response) {
  auto question = request.target.find('?');
  std::string_view rawQuery = question == std::string::npos
                                  ? std::string_view()
                                  : std::string_view(request.target).substr(question + 1);
  RecordedRequest recorded{request.method,
                           request.path,
                           parseQuery(rawQuery),
                           request.body,
                           request.get_header_value("Content-Type"),
                           request.get_header_value("Authorization"),
                           request.get_header_value("Accept"),
                           0};

  std::optional<ArmedFault> fault;
  {
    std::unique_lock lock(state_->mutex);
    fault = state_->takeFault(request.method, request.path);
    if (fault && fault->fault == Fault::kSlow) {
      // Waiting releases the mutex, so other requests proceed meanwhile.
      state_->stopping.wait_for(lock, fault->delay, [this] { return state_->stopped; });
      fault.reset();
    }
  }

  Answer answer;
  if (fault && fault->fault == Fault::kDropConnection) {
    answer.status = 0;  // recorded as no answer
  } else if (fault) {
    answer = faultAnswer(fault->fault, request.method, request.path);
  } else {
    bool authorized = false;
    auto authorization = std::string_view(recorded.authorization);
    if (authorization.size() > 6 && equalsIgnoringCase(authorization.substr(0, 6), "Basic ")) {
      auto credentials = base64Decoded(trimmed(authorization.substr(6)));
      authorized = credentials && *credentials == state_->username + ":" + state_->password;
    }
    if (!authorized) {
      // Rails' own denial: plain text, so only the status tells a client what happened.
      answer = {401,
                "HTTP Basic: Access denied.\n",
                "text/plain; charset=utf-8",
                {{"WWW-Authenticate", R"(Basic realm="Application")"}}};
    } else {
      Call call{request.method,
                request.path,
                recorded.query,
                rawQuery,
                request.body,
                recorded.contentType,
                fmt::format("http://127.0.0.1:{}", port_)};
      std::lock_guard lock(state_->mutex);
      answer = dispatch(state_->account, call);
    }
  }

  // Recorded before the answer leaves, so a test that has its answer sees the request.
  recorded.status = answer.status;
  {
    std::lock_guard lock(state_->mutex);
    state_->requests.push_back(std::move(recorded));
  }

  if (fault && fault->fault == Fault::kDropConnection) {
    // Headers promising a body that never comes: the client sees a truncated transfer. Closing
    // before any byte instead could let a client quietly retry on a fresh connection.
    response.status = 200;
    response.set_content_provider(64, std::string(kJsonType),
                                  [](size_t, size_t, httplib::DataSink&) { return false; });
    return;
  }
  response.status = answer.status;
  for (auto& [name, value] : answer.headers) response.set_header(name, value);
  if (!answer.body.empty() || !answer.contentType.empty())
    response.set_content(answer.body, answer.contentType);
}

}  // namespace lectern::mock
