#include "FeedbinTestSupport.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>

#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/ObjectContext.h"

namespace lectern::test {

void FeedbinTest::SetUp() {
  auto added = addAccount("feedbin", std::string(kUsername), std::string(kPassword), server_.baseURL());
  if (!added) FAIL() << added.error().message();
  account_ = *added;
  server_.clearRequests();
}

std::string FeedbinTest::serverDate(Date date) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(date);
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(date - seconds).count();
  const std::time_t time = std::chrono::system_clock::to_time_t(seconds);
  std::tm utc{};
  gmtime_r(&time, &utc);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z", utc.tm_year + 1900, utc.tm_mon + 1,
                     utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, micros);
}

void FeedbinTest::addEntry(std::int64_t id, std::int64_t feedId, const std::string& title,
                           std::chrono::minutes age, bool unread, bool starred) {
  mock::FeedbinEntry entry;
  entry.id = id;
  entry.feedId = feedId;
  entry.title = title;
  entry.url = fmt::format("https://example.org/entries/{}", id);
  entry.content = fmt::format("<p>{}</p>", title);
  entry.published = serverDate(clock_.now() - age);
  entry.createdAt = entry.published;
  server_.addEntry(entry, unread, starred);
}

std::string FeedbinTest::query(const mock::RecordedRequest& request, const std::string& key) {
  auto found = request.query.find(key);
  return found == request.query.end() ? std::string() : found->second;
}

std::vector<std::string> FeedbinTest::queryValues(const mock::RecordedRequest& request,
                                                  const std::string& key) {
  std::vector<std::string> values;
  auto [first, last] = request.query.equal_range(key);
  for (auto it = first; it != last; ++it) values.push_back(it->second);
  return values;
}

std::vector<std::string> FeedbinTest::folderTitles() {
  ObjectContext::FetchRequest request;
  request.where = "account = ? AND entity = 'FeedFolder'";
  request.arguments = {account_->objectID().row};
  auto folders = context().fetch<FeedFolder>(std::move(request));
  if (!folders) throw std::runtime_error(folders.error().message());
  std::vector<std::string> titles;
  for (const auto& folder : *folders) titles.push_back(folder->title().value_or(""));
  std::sort(titles.begin(), titles.end());
  return titles;
}

std::shared_ptr<Feed> FeedbinTest::feedWithRemoteId(const std::string& remoteId) {
  auto feeds = account_->feeds();
  if (!feeds) throw std::runtime_error(feeds.error().message());
  for (const auto& feed : *feeds) {
    if (feed->folder_id() == remoteId) return feed;
  }
  return nullptr;
}

std::optional<std::string> FeedbinTest::feedLink(const std::string& remoteId) {
  auto feed = feedWithRemoteId(remoteId);
  return feed ? feed->feed_link() : std::nullopt;
}

}  // namespace lectern::test
