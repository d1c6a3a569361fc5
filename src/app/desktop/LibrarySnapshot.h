#pragma once

// What the desktop window shows of the library, as plain values: the sources pane's tree, a page
// of article rows and one article. Read from a context on a worker and handed to the main thread,
// so the window never waits for the store.

#include <compare>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "app/text/ArticleText.h"
#include "core/Clock.h"
#include "core/Error.h"
#include "store/ServiceIdentifiers.h"

namespace lectern {
class ObjectContext;
class UserDefaults;
}

namespace lectern::desktop {

enum class SourceKind { kAll, kAccount, kFolder, kFeed, kSmartFolder };

// A row of the sources pane: what the article list is scoped to. `id` is the object's local row.
struct SourceKey {
  SourceKind kind = SourceKind::kAll;
  std::int64_t id = 0;
  auto operator<=>(const SourceKey&) const = default;
};

struct SourceNode {
  SourceKey key;
  std::string title;
  std::int64_t unread = 0;
  std::string badge;          // a smart folder's badge text ("" when hidden)
  std::string failing;        // a failing feed's error ("" when it is well)
  std::optional<Date> failingSince;
  std::string site;           // the page whose icon stands for a feed
  std::string feedUrl;
  ServiceType service = ServiceType::kUnknown;  // of the account the row belongs to
  std::int64_t account = 0;   // the account's local row (0 for "All articles")
  std::vector<SourceNode> children;
};

struct SourceTree {
  std::vector<SourceNode> roots;  // "All articles" first, then accounts, smart folders last
  const SourceNode* find(const SourceKey& key) const;
};

// The whole tree: every account with its folders (folders of feeds with their feeds inside) and
// feeds, unread counts, failing feeds, and the smart folders with their counts and badges.
Result<SourceTree> loadSourceTree(ObjectContext& context, const Clock& clock, const UserDefaults& defaults);

enum class ArticleFilter { kAll, kUnread, kStarred };

struct ArticleRow {
  std::int64_t id = 0;  // the local id, as `lectern list` shows it
  std::string title;
  std::string feed;     // the feed's title, or the account's for a read-later item
  std::string url;
  std::optional<Date> date;
  bool unread = false;
  bool starred = false;
  std::int64_t account = 0;
  bool operator==(const ArticleRow&) const = default;
};

struct ArticleQuery {
  SourceKey source;
  ArticleFilter filter = ArticleFilter::kAll;
  std::string search;  // the search language; empty: the source's articles
  std::int64_t limit = 2000;
};

struct ArticlePageOfRows {
  std::vector<ArticleRow> rows;  // newest first
  std::int64_t total = 0;        // every match, the page's and the rest
};

// A page of the source's articles (or of a search's matches, within the source's account when
// the source is in one), newest first. A search that does not read is an error that says why.
Result<ArticlePageOfRows> loadArticles(ObjectContext& context, const ArticleQuery& query, Date now);

// One article as the article pane shows it.
struct StoredArticle {
  ArticleRow row;
  std::string author;
  std::string html;
  std::vector<ArticleEnclosure> enclosures;
  std::filesystem::path imageFolder;  // where its account's pictures are cached
};
Result<StoredArticle> loadArticle(ObjectContext& context, std::int64_t id);

}  // namespace lectern::desktop
