#include "DurabilitySupport.h"

#include <signal.h>
#include <sys/wait.h>

#include <cstdlib>
#include <map>
#include <stdexcept>
#include <thread>

#include <fmt/format.h>

#include "store/QKDataMigrationManager.h"
#include "store/SqliteDatabase.h"

namespace lectern::test {

using namespace std::chrono_literals;

int killCount(int fallback) {
  const char* kills = std::getenv("LECTERN_KILLS");
  if (kills == nullptr || *kills == '\0') return fallback;
  return std::max(1, std::atoi(kills));
}

std::uint64_t killSeed() {
  const char* seed = std::getenv("LECTERN_KILL_SEED");
  if (seed != nullptr && *seed != '\0') return std::strtoull(seed, nullptr, 10);
  return static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
}

ServedFeeds::ServedFeeds(FeedServer& server, int feeds, int perFeed, int fresh)
    : server_(server), feeds_(feeds), perFeed_(perFeed), fresh_(fresh),
      start_(std::chrono::system_clock::now() - 48h) {}

void ServedFeeds::serveRound(int round) {
  servedNow_.clear();
  for (int f = 0; f < feeds_; ++f) {
    // Entry n of a feed is dated n minutes after the start, the same in every round; the window
    // ends at this round's newest.
    const int newest = perFeed_ + round * fresh_ - 1;
    std::string body = R"(<?xml version="1.0" encoding="utf-8"?><feed xmlns="http://www.w3.org/2005/Atom">)";
    body += fmt::format("<title>f{}</title>", f);
    for (int n = newest; n > newest - perFeed_; --n) {
      const auto date = std::chrono::floor<std::chrono::seconds>(start_ + std::chrono::minutes(n));
      const std::time_t seconds = std::chrono::system_clock::to_time_t(date);
      std::tm utc{};
      gmtime_r(&seconds, &utc);
      body += fmt::format(
          "<entry><title>Feed {0} story {1}</title><link href=\"https://example.org/{0}/{1}\"/>"
          "<updated>{2:04}-{3:02}-{4:02}T{5:02}:{6:02}:{7:02}Z</updated>"
          "<content type=\"html\">&lt;p&gt;Story {1} of feed {0}.&lt;/p&gt;</content></entry>",
          f, n, utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
      const std::string link = fmt::format("https://example.org/{}/{}", f, n);
      everLinked_.insert(link);
      servedNow_.insert(link);
    }
    body += "</feed>";
    server_.setBody(fmt::format("f{}", f), std::move(body));
  }
}

std::string ServedFeeds::opml() const {
  std::string outlines;
  for (int f = 0; f < feeds_; ++f) {
    outlines += fmt::format(R"(<outline type="rss" text="f{0}" xmlUrl="{1}"/>)", f, server_.url(fmt::format("f{}", f)));
  }
  return fmt::format(R"(<?xml version="1.0"?><opml version="1.0"><body>{}</body></opml>)", outlines);
}

namespace {

std::string text(const SqlValue& value) { return textOf(value).value_or(""); }

}  // namespace

LibraryFacts readLibrary(const std::filesystem::path& store) {
  LibraryFacts facts;
  // Read-write, as the program opens it: a log left by a killed process is recovered here.
  auto db = SqliteDatabase::open(store, SqliteDatabase::OpenMode::kReadWrite, std::chrono::seconds(10));
  if (!db) {
    facts.error = db.error().message();
    return facts;
  }
  auto query = [&](const std::string& sql) -> std::vector<SqlRow> {
    auto rows = (*db)->selectAll(sql);
    if (!rows) {
      if (facts.error.empty()) facts.error = rows.error().message() + " (" + sql + ")";
      return {};
    }
    return *rows;
  };
  for (const auto& row : query("PRAGMA integrity_check")) facts.integrity += text(row[0]);
  for (const auto& row : query("SELECT value FROM Metadata WHERE key = 'modelVersion'")) facts.model = text(row[0]);
  for (const auto& row : query("SELECT count(*) FROM Bookmark")) facts.bookmarks = std::atoll(text(row[0]).c_str());
  if (facts.model.empty() || !facts.error.empty()) return facts;
  for (const auto& row : query("SELECT b.bookmark_id FROM Bookmark b JOIN Account a ON a.id = b.account"
                               " WHERE a.service = 'localrss'"))
    facts.localLinks.insert(text(row[0]));
  for (const auto& row : query("SELECT b.bookmark_id, b.is_archived, b.is_favorited FROM Bookmark b"
                               " JOIN Account a ON a.id = b.account WHERE a.service = 'feedbin'")) {
    facts.serviceIds.insert(text(row[0]));
    if (text(row[1]) == "1") facts.serviceRead.insert(text(row[0]));
    if (text(row[2]) == "1") facts.serviceStarred.insert(text(row[0]));
  }
  for (const auto& row : query("SELECT account || '/' || ifnull(feed, '') || '|' || bookmark_id FROM Bookmark"
                               " GROUP BY account, feed, bookmark_id HAVING count(*) > 1"
                               " UNION ALL SELECT account || '/' || ifnull(feed, '') || '|' || url FROM Bookmark"
                               " WHERE url IS NOT NULL AND url != ''"
                               " GROUP BY account, feed, url HAVING count(*) > 1"))
    facts.duplicates.push_back(text(row[0]));
  return facts;
}

std::vector<std::string> queryRows(const std::filesystem::path& store, const std::string& sql) {
  auto db = SqliteDatabase::open(store, SqliteDatabase::OpenMode::kReadWrite, std::chrono::seconds(10));
  if (!db) throw std::runtime_error(db.error().message());
  auto rows = (*db)->selectAll(sql);
  if (!rows) throw std::runtime_error(rows.error().message());
  std::vector<std::string> lines;
  for (const auto& row : *rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) line += (i ? "|" : "") + text(row[i]);
    lines.push_back(std::move(line));
  }
  return lines;
}

void writeLibraryOfVersion(const std::filesystem::path& store, const ModelVersion& version,
                           const std::vector<std::string>& statements) {
  std::filesystem::create_directories(store.parent_path());
  auto db = SqliteDatabase::open(store, SqliteDatabase::OpenMode::kReadWriteCreate, std::chrono::seconds(10));
  if (!db) throw std::runtime_error(db.error().message());
  if (auto created = createSchema(**db, version); !created) throw std::runtime_error(created.error().message());
  for (const auto& statement : statements) {
    if (auto done = (*db)->execute(statement); !done) throw std::runtime_error(done.error().message());
  }
}

ProgramHome::ProgramHome() = default;

ProgramRun ProgramHome::run(const std::string& arguments, const std::string& input, const std::string& environment) {
  return runProgram(temp_.path(), home(), arguments, input, environment);
}

pid_t ProgramHome::spawn(const std::vector<std::string>& arguments) {
  std::vector<std::string> argv{LECTERN_PROGRAM, "--home", home().string()};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return spawnQuietly(argv);
}

KillOutcome killAfter(pid_t pid, std::chrono::milliseconds delay) {
  const auto moment = std::chrono::steady_clock::now() + delay;
  int status = 0;
  while (std::chrono::steady_clock::now() < moment) {
    if (waitpid(pid, &status, WNOHANG) == pid) return {false, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
    std::this_thread::sleep_for(2ms);
  }
  kill(pid, SIGKILL);
  waitpid(pid, &status, 0);
  // It may have ended by itself between the last look and the kill.
  if (WIFEXITED(status)) return {false, WEXITSTATUS(status)};
  return {true, -1};
}

int waitForExit(pid_t pid, std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) != pid) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(10ms);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace lectern::test
