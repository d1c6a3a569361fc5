// Fills a built-in reader library for the scale benchmark: STORIES stories spread over the
// account's feeds (already subscribed, by OPML import), inserted through the store in batches, and
// writes the document each feed serves: its ten newest stories, plus two new ones for every
// twentieth feed. Stories older than three days are read, one in 97 is starred.
//
// Usage: scale_library HOME STORIES DOCS_DIR
// HOME is a `lectern --home` folder holding a "localrss" account with its feeds; each feed's
// address must end in "/feed<N>.xml", which names the file written in DOCS_DIR.
#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "core/Clock.h"
#include "core/Dates.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "core/Reachability.h"
#include "core/UserDefaults.h"
#include "feeds/RSSFeed.h"
#include "store/Account.h"
#include "store/Feed.h"
#include "store/FeedStory.h"
#include "store/QKDataManager.h"

namespace lectern {
namespace {

constexpr int kBatch = 2'000;
constexpr int kDocumentEntries = 10;
constexpr int kNewEntriesEveryNthFeed = 20;
constexpr int kNewEntries = 2;
constexpr auto kReadAfter = std::chrono::hours(24 * 3);
// Inside the 70-day keep period the benchmark sets, so a refresh removes nothing as obsolete.
constexpr auto kSpan = std::chrono::hours(24 * 60);

// Common words appear in a few percent of titles and most texts; the rare ones in about one story
// in a thousand, as a name in the news would.
constexpr std::string_view kWords[] = {
    "city", "council", "budget", "election", "market", "climate", "energy", "water", "school", "health",
    "report", "record", "plan", "court", "police", "storm", "river", "bridge", "train", "airport",
    "music", "festival", "museum", "library", "theatre", "film", "novel", "garden", "forest", "mountain",
    "science", "research", "study", "space", "rocket", "planet", "ocean", "island", "coast", "harbour",
    "company", "shares", "prices", "workers", "strike", "union", "factory", "farm", "harvest", "wheat",
    "software", "release", "update", "security", "privacy", "network", "server", "browser", "phone", "laptop",
    "football", "tennis", "match", "season", "coach", "player", "league", "final", "cup", "team",
    "minister", "parliament", "vote", "law", "tax", "bank", "rates", "housing", "rent", "traffic",
    "café", "naïve", "résumé", "über", "façade", "piñata", "smörgåsbord", "crème", "brûlée", "déjà"};
constexpr std::string_view kRareWords[] = {"zeppelin", "quasar", "marmalade", "obelisk", "kraken"};

class Text {
 public:
  explicit Text(std::uint32_t seed) : random_(seed) {}
  std::string words(int count) {
    std::string out;
    for (int i = 0; i < count; ++i) {
      if (i > 0) out += ' ';
      if (rare_(random_) == 0) {
        out += kRareWords[random_() % std::size(kRareWords)];
      } else {
        out += kWords[random_() % std::size(kWords)];
      }
    }
    return out;
  }

 private:
  std::mt19937 random_;
  std::uniform_int_distribution<int> rare_{0, 999};
};

std::string escapeXml(std::string_view text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      default: out += c;
    }
  }
  return out;
}

std::string rfc822(Date date) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(date);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char buffer[64];
  std::strftime(buffer, sizeof buffer, "%a, %d %b %Y %H:%M:%S +0000", &utc);
  return buffer;
}

std::string itemXml(const RSSEntry& entry) {
  return fmt::format("<item><title>{}</title><link>{}</link><guid>{}</guid><pubDate>{}</pubDate>"
                     "<description>{}</description></item>\n",
                     escapeXml(*entry.title), escapeXml(*entry.url), escapeXml(*entry.url), rfc822(*entry.date),
                     escapeXml(*entry.content));
}

// The number N of an address ending in "/feed<N>.xml", or -1.
int feedNumber(std::string_view url) {
  const auto slash = url.rfind("/feed");
  if (slash == std::string_view::npos || !url.ends_with(".xml")) return -1;
  const auto digits = url.substr(slash + 5, url.size() - slash - 9);
  if (digits.empty()) return -1;
  int n = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return -1;
    n = n * 10 + (c - '0');
  }
  return n;
}

int run(const std::filesystem::path& home, long stories, const std::filesystem::path& docs) {
  const Paths paths = Paths::under(home);
  UserDefaults defaults(paths.userDefaultsFile());
  MainQueue mainQueue;
  SystemClock clock;
  FixedReachability reachability;
  QKDataManager manager(paths, defaults, mainQueue, clock, reachability);
  if (auto opened = manager.openStore(); !opened) {
    fmt::print(stderr, "scale_library: {}\n", opened.error().message());
    return 1;
  }
  auto main = manager.managedObjectContext();
  if (!main) {
    fmt::print(stderr, "scale_library: {}\n", main.error().message());
    return 1;
  }
  ObjectContext& context = **main;
  auto account = Account::localRSSAccount(context);
  if (!account || !*account) {
    fmt::print(stderr, "scale_library: no built-in reader account in {}\n", home.string());
    return 1;
  }
  auto feeds = (*account)->feeds();
  if (!feeds || feeds->empty()) {
    fmt::print(stderr, "scale_library: the built-in reader has no feeds\n");
    return 1;
  }
  std::filesystem::create_directories(docs);

  const Date now = clock.now();
  const long perFeed = stories / static_cast<long>(feeds->size());
  const auto spacing = std::chrono::duration_cast<std::chrono::seconds>(kSpan) / std::max(perFeed, 1L);
  Text text(20'261'126);
  long inserted = 0;
  for (const auto& feed : *feeds) {
    const int number = feedNumber(feed->URL().value_or(""));
    if (number < 0) {
      fmt::print(stderr, "scale_library: unexpected feed address {}\n", feed->URL().value_or(""));
      return 1;
    }
    const std::string base = fmt::format("http://stories.example/feed{}/", number);
    std::vector<RSSEntry> newest;
    for (long k = 0; k < perFeed; ++k) {
      RSSEntry entry;
      entry.url = fmt::format("{}story{}", base, k);
      entry.title = text.words(6);
      entry.author = "Reporter";
      entry.date = now - std::chrono::hours(1) - spacing * k - std::chrono::seconds(number % 97 * 60);
      entry.content = "<p>" + text.words(60) + "</p>";
      auto story = context.insertNewObject<FeedStory>();
      story->setAccount(**account);
      story->setFeed(*feed);
      story->mapFromRSSEntry(entry, clock);
      if (*entry.date < now - kReadAfter) story->setIs_archived(true);
      if ((inserted + k) % 97 == 0) story->setIs_favorited(true);
      if (k < kDocumentEntries) newest.push_back(std::move(entry));
      if (++inserted % kBatch == 0) {
        if (auto saved = context.save(); !saved) {
          fmt::print(stderr, "scale_library: {}\n", saved.error().message());
          return 1;
        }
      }
    }
    feed->recordRefreshSucceeded(now - std::chrono::hours(1));

    std::string document = fmt::format(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<rss version=\"2.0\"><channel><title>{}</title>"
        "<link>{}</link><description>scale benchmark</description>\n",
        escapeXml(feed->title().value_or("")), base);
    if (number % kNewEntriesEveryNthFeed == 0) {
      for (int n = 0; n < kNewEntries; ++n) {
        RSSEntry entry;
        entry.url = fmt::format("{}new{}", base, n);
        entry.title = text.words(6);
        entry.date = now - std::chrono::minutes(5 * (n + 1));
        entry.content = "<p>" + text.words(60) + "</p>";
        document += itemXml(entry);
      }
    }
    for (const auto& entry : newest) document += itemXml(entry);
    document += "</channel></rss>\n";
    std::ofstream(docs / fmt::format("feed{}.xml", number), std::ios::binary) << document;
  }
  (*account)->setLast_sync(now - std::chrono::hours(1));
  (*account)->setLast_sync_keep_index(Feed::daysKeepUnreadItems(defaults));
  if (auto saved = context.save(); !saved) {
    fmt::print(stderr, "scale_library: {}\n", saved.error().message());
    return 1;
  }
  fmt::print("{} stories in {} feeds\n", inserted, feeds->size());
  return 0;
}

}  // namespace
}  // namespace lectern

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: scale_library HOME STORIES DOCS_DIR\n");
    return 2;
  }
  return lectern::run(argv[1], std::stol(argv[2]), argv[3]);
}
