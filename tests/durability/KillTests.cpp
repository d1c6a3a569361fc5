// A sync, the daemon and a library upgrade killed with SIGKILL at random moments: after each kill
// the library opens and is intact, no offline change is lost, and the next complete sync leaves no
// story twice and none missing. LECTERN_KILLS sets the number of kills, LECTERN_KILL_SEED replays
// the moments of a failed run (both are printed).
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "DurabilitySupport.h"
#include "mocks/FeedbinMockServer.h"
#include "store/ModelVersion.h"

namespace lectern::test {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Where in a run a kill falls, as fractions of a complete run's time: the start (opening the
// library, the offline changes), the downloads and merges, the last saves, and just past the end.
constexpr std::pair<double, double> kWindows[] = {{0.0, 0.15}, {0.15, 0.55}, {0.55, 0.9}, {0.9, 1.1}};

std::chrono::milliseconds elapsedSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
}

// An offline change to a Feedbin item (`arrived` says whether the mock has it).
struct Change {
  std::string operation;  // as `lectern queue --json` names it
  std::int64_t entry = 0;
};

class SyncKillTest : public ::testing::Test {
 protected:
  SyncKillTest() : seed_(killSeed()), random_(seed_) {
    std::cout << fmt::format("[ seed     ] LECTERN_KILL_SEED={}", seed_) << std::endl;
    RecordProperty("seed", std::to_string(seed_));
  }

  // The built-in reader with 300 feeds and a Feedbin account, both synced once; answers how long
  // a complete sync that brings new stories takes.
  std::chrono::milliseconds prepare() {
    feeds_.serveRound(0);
    EXPECT_EQ(home_.run("").exit, 0);  // the first run sets up the built-in reader
    const auto opml = home_.temp() / "feeds.opml";
    writeFile(opml, feeds_.opml());
    auto imported = home_.run("opml import '" + opml.string() + "'");
    EXPECT_EQ(imported.exit, 0) << imported.err;
    // The newest 330 of 480 unread: three unread items and one read a round for 100 rounds.
    feedbin_.seed(/*feeds=*/8, /*entriesPerFeed=*/60, /*unread=*/330, /*starredEvery=*/0);
    auto added = home_.run("account add feedbin --username me@example.org --password-stdin --endpoint " +
                           feedbin_.baseURL(), "secret\n");
    EXPECT_EQ(added.exit, 0) << added.err;
    EXPECT_EQ(home_.run("sync").exit, 0);
    feeds_.serveRound(++round_);
    const auto start = Clock::now();
    auto synced = home_.run("sync");
    const auto took = elapsedSince(start);
    EXPECT_EQ(synced.exit, 0) << synced.err;
    checkComplete("the first syncs");
    for (const auto& row : queryRows(home_.store(), "SELECT b.bookmark_id, b.is_archived FROM Bookmark b JOIN Account a"
                                                     " ON a.id = b.account WHERE a.service = 'feedbin'"
                                                     " ORDER BY b.bookmark_id + 0 DESC")) {
      const auto bar = row.find('|');
      (row.substr(bar + 1) == "0" ? unreadPool_ : readPool_).push_back(std::stoll(row.substr(0, bar)));
    }
    std::cout << fmt::format("[ prepared ] complete sync with new stories: {} ms; Feedbin items {} unread, {} read\n",
                             took.count(), unreadPool_.size(), readPool_.size());
    return took;
  }

  std::int64_t rowOf(const std::string& where) {
    const auto rows = queryRows(home_.store(), "SELECT b.id FROM Bookmark b JOIN Account a ON a.id = b.account WHERE " + where);
    return rows.empty() ? 0 : std::stoll(rows.front());
  }

  // Offline changes to Feedbin items (read, unread, star, delete) and the deletion of one story of
  // the built-in reader (saved at once, recorded so that its feed does not bring it back).
  void makeChanges() {
    auto take = [](std::vector<std::int64_t>& pool) {
      if (pool.empty()) return std::int64_t{0};
      const auto id = pool.back();
      pool.pop_back();
      return id;
    };
    const std::pair<const char*, std::int64_t> wanted[] = {
        {"read", take(unreadPool_)}, {"star", take(unreadPool_)}, {"delete", take(unreadPool_)}, {"unread", take(readPool_)}};
    for (const auto& [operation, entry] : wanted) {
      if (entry == 0) continue;
      const auto row = rowOf(fmt::format("a.service = 'feedbin' AND b.bookmark_id = '{}'", entry));
      ASSERT_NE(row, 0) << entry;
      const std::string command = std::string(operation) == "delete" ? "delete" : std::string("mark ") + operation;
      auto made = home_.run(fmt::format("--offline {} {}", command, row));
      ASSERT_EQ(made.exit, 0) << made.err;
      pending_.push_back({operation, entry});
      if (std::string(operation) == "delete") deletedAtService_.insert(std::to_string(entry));
    }
    // A story the current documents still carry.
    for (const auto& link : feeds_.servedNow()) {
      if (deletedLocally_.contains(link)) continue;
      const auto row = rowOf(fmt::format("a.service = 'localrss' AND b.bookmark_id = '{}'", link));
      if (row == 0) continue;
      auto deleted = home_.run(fmt::format("delete {}", row));
      ASSERT_EQ(deleted.exit, 0) << deleted.err;
      deletedLocally_.insert(link);
      break;
    }
  }

  bool arrived(const Change& change) const {
    if (change.operation == "read" || change.operation == "delete")
      return !feedbin_.unreadEntryIds().contains(change.entry);
    if (change.operation == "unread") return feedbin_.unreadEntryIds().contains(change.entry);
    if (change.operation == "star") return feedbin_.starredEntryIds().contains(change.entry);
    return false;
  }

  // Right after a kill: the file is a sound library, the program opens it, and each change is
  // either still queued or was received by the mock.
  void checkAfterKill(const std::string& what) {
    SCOPED_TRACE(what);
    const auto facts = readLibrary(home_.store());
    ASSERT_EQ(facts.error, "");
    EXPECT_EQ(facts.integrity, "ok");
    auto queue = home_.run("queue --json");
    ASSERT_EQ(queue.exit, 0) << queue.err;
    std::set<std::string> queued;
    for (const auto& operation : json::parse(queue.out))
      queued.insert(operation["operation"].get<std::string>() + " " + operation["bookmark_id"].get<std::string>());
    for (const auto& change : pending_) {
      EXPECT_TRUE(queued.contains(fmt::format("{} {}", change.operation, change.entry)) || arrived(change))
          << "lost: " << change.operation << " " << change.entry;
    }
  }

  // After a complete sync: nothing twice, every story served is there but the deleted ones, every
  // change reached Feedbin and the queue is empty.
  void checkComplete(const std::string& what) {
    SCOPED_TRACE(what);
    const auto facts = readLibrary(home_.store());
    ASSERT_EQ(facts.error, "");
    EXPECT_EQ(facts.integrity, "ok");
    EXPECT_THAT(facts.duplicates, ::testing::IsEmpty());
    std::vector<std::string> missing;
    for (const auto& link : feeds_.everLinked()) {
      if (!deletedLocally_.contains(link) && !facts.localLinks.contains(link)) missing.push_back(link);
    }
    EXPECT_THAT(missing, ::testing::IsEmpty()) << missing.size() << " stories lost";
    for (const auto& link : deletedLocally_) EXPECT_FALSE(facts.localLinks.contains(link)) << "came back: " << link;
    for (const auto& id : deletedAtService_) EXPECT_FALSE(facts.serviceIds.contains(id)) << "came back: " << id;
    for (const auto& change : pending_) {
      EXPECT_TRUE(arrived(change)) << "never sent: " << change.operation << " " << change.entry;
      const auto id = std::to_string(change.entry);
      if (change.operation == "read") {
        EXPECT_TRUE(facts.serviceRead.contains(id)) << id;
      } else if (change.operation == "unread") {
        EXPECT_FALSE(facts.serviceRead.contains(id)) << id;
      } else if (change.operation == "star") {
        EXPECT_TRUE(facts.serviceStarred.contains(id)) << id;
      }
    }
    auto queue = home_.run("queue --json");
    ASSERT_EQ(queue.exit, 0) << queue.err;
    EXPECT_EQ(json::parse(queue.out).size(), 0u) << queue.out;
    pending_.clear();
  }

  int feedRequests() const {
    int requests = 0;
    for (int f = 0; f < 300; ++f) requests += server_.requests(fmt::format("f{}", f));
    return requests;
  }

  // The moment of kill number `kill` within its window of `whole`, and the window's name.
  std::pair<std::chrono::milliseconds, std::string> pickMoment(int kill, std::chrono::milliseconds whole) {
    const auto [from, to] = kWindows[kill % std::size(kWindows)];
    std::uniform_real_distribution<double> within(from, to);
    return {std::chrono::milliseconds(static_cast<std::int64_t>(within(random_) * static_cast<double>(whole.count()))),
            fmt::format("{:.2f}-{:.2f}", from, to)};
  }

  // Each round: new stories, new changes, a run killed at a random moment, the checks, a complete
  // sync and its checks. `arguments` start the run; `lead` is the time before it starts to sync.
  void killRounds(int kills, std::chrono::milliseconds whole, const std::vector<std::string>& arguments,
                  std::chrono::milliseconds lead) {
    int killed = 0;
    int killedDownloading = 0;  // killed once feed requests had come: in the sync, not before it
    std::chrono::milliseconds killTime{0};
    for (int kill = 0; kill < kills && !HasFatalFailure(); ++kill) {
      const auto roundStart = Clock::now();
      feeds_.serveRound(++round_);
      makeChanges();
      const auto [offset, window] = pickMoment(kill, whole);
      const auto moment = lead + offset;
      const int requestsBefore = feedRequests();
      const pid_t child = home_.spawn(arguments);
      ASSERT_GT(child, 0);
      const auto outcome = killAfter(child, moment);
      const bool downloading = feedRequests() > requestsBefore;
      if (outcome.killed && downloading) ++killedDownloading;
      const std::string what = fmt::format("kill {} of {} at {} ms (window {} of {} ms, seed {}): {}", kill + 1,
                                           kills, moment.count(), window, whole.count(), seed_,
                                           outcome.killed ? "killed" : fmt::format("ended first, exit {}", outcome.exitCode));
      if (outcome.killed) ++killed;
      if (!outcome.killed) {
        EXPECT_EQ(outcome.exitCode, 0) << what;
      }
      checkAfterKill(what);
      auto synced = home_.run("sync");
      EXPECT_EQ(synced.exit, 0) << what << "\n" << synced.out << synced.err;
      checkComplete(what + ", then a complete sync");
      killTime += elapsedSince(roundStart);
      std::cout << (HasFailure() ? "[ failed   ] " : "[ round    ] ") << what << std::endl;
    }
    std::cout << fmt::format("[ kills    ] {} rounds, {} killed a running process ({} after its feed requests began),"
                             " {} ms a round\n", kills, killed, killedDownloading, killTime.count() / std::max(1, kills));
    // Most moments fall inside the run; a harness whose kills all came too late tests nothing.
    EXPECT_GE(killed, kills / 2);
  }

  std::uint64_t seed_;
  std::mt19937_64 random_;
  ProgramHome home_;
  FeedServer server_;
  ServedFeeds feeds_{server_, 300, 20, 2};
  mock::FeedbinMockServer feedbin_{"me@example.org", "secret"};
  int round_ = 0;
  std::vector<std::int64_t> unreadPool_, readPool_;
  std::vector<Change> pending_;
  std::set<std::string> deletedLocally_;    // links of the built-in reader's deleted stories
  std::set<std::string> deletedAtService_;  // Feedbin entry ids deleted here
};

TEST_F(SyncKillTest, ASyncKilledAtRandomMomentsLosesNothing) {
  const auto whole = prepare();
  ASSERT_FALSE(HasFailure());
  killRounds(killCount(), whole, {"sync"}, 0ms);
}

TEST_F(SyncKillTest, TheDaemonKilledWhileItSyncsLosesNothing) {
  const auto whole = prepare();
  ASSERT_FALSE(HasFailure());
  ASSERT_EQ(home_.run("account set localrss syncOnStart yes").exit, 0);
  ASSERT_EQ(home_.run("account set feedbin syncOnStart yes").exit, 0);
  // The daemon's start-up sync begins 3 s after it starts.
  killRounds(killCount(2), whole, {"daemon"}, 3000ms);
}

// A library three model versions old, upgraded by the program's first start, which is killed.
class UpgradeKillTest : public ::testing::Test {
 protected:
  static constexpr int kStories = 300;
  // The old library, made once and copied into the home before each start.
  void makeOldLibrary(const std::filesystem::path& path) {
    writeLibraryOfVersion(
        path, modelVersions()[0],
        {"INSERT INTO Account (id, service, username, title) VALUES (1, 'localrss', NULL, 'Feeds')",
         "INSERT INTO Folder (id, entity, account, title, folder_id, predicate) VALUES"
         " (14, 'Feed', 1, 'Blog', 'http://blog.example/feed', NULL)",
         fmt::format("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < {})"
                     " INSERT INTO Bookmark (id, entity, account, bookmark_id, title, url, html, preview_text,"
                     " feed, date_added, is_archived)"
                     " SELECT 100 + i, 'FeedStory', 1, 'https://old.example/' || i, 'Old ' || i,"
                     " 'https://old.example/' || i, '<p>Story <b>' || i || '</b> ' || hex(randomblob(300)) || '</p>',"
                     " NULL, 14, 1700000000 + i, i % 2 FROM n",
                     kStories)});
  }
  std::vector<std::string> leftSteps(const ProgramHome& home) {
    std::vector<std::string> steps;
    for (const auto& entry : std::filesystem::directory_iterator(home.store().parent_path())) {
      const auto name = entry.path().filename().string();
      if (name.starts_with("Lectern.Lectern ") && name.find(" backup.storedata") == std::string::npos)
        steps.push_back(name);
    }
    return steps;
  }
};

TEST_F(UpgradeKillTest, AnUpgradeKilledBetweenItsStepsIsFinishedOrNeverBegun) {
  const std::uint64_t seed = killSeed();
  std::cout << fmt::format("[ seed     ] LECTERN_KILL_SEED={}", seed) << std::endl;
  std::mt19937_64 random(seed);
  TempDir templates;
  const auto old = templates / "Lectern.storedata";
  makeOldLibrary(old);
  const std::string oldVersion(modelVersions()[0].name);
  const std::string newVersion(currentModelVersion().name);

  auto start = [&](ProgramHome& home) {
    std::filesystem::create_directories(home.store().parent_path());
    std::filesystem::copy_file(old, home.store());
    return home.spawn({"list", "--limit", "1"});
  };
  std::chrono::milliseconds whole;
  {
    ProgramHome home;
    const auto began = Clock::now();
    const pid_t child = start(home);
    ASSERT_GT(child, 0);
    ASSERT_EQ(waitForExit(child, 300s), 0);
    whole = elapsedSince(began);
    ASSERT_EQ(readLibrary(home.store()).model, newVersion);
  }
  const int kills = killCount(3);
  int killed = 0, finished = 0, untouched = 0, midway = 0, rounds = 0;
  for (int kill = 0; kill < kills && !HasFailure(); ++kill, ++rounds) {
    ProgramHome home;
    const pid_t child = start(home);
    ASSERT_GT(child, 0);
    std::uniform_real_distribution<double> within(0.0, 1.05);
    const auto moment =
        std::chrono::milliseconds(static_cast<std::int64_t>(within(random) * static_cast<double>(whole.count())));
    const auto outcome = killAfter(child, moment);
    SCOPED_TRACE(fmt::format("kill {} of {} at {} ms of {} ms (seed {})", kill + 1, kills, moment.count(),
                             whole.count(), seed));
    killed += outcome.killed ? 1 : 0;
    const auto facts = readLibrary(home.store());
    ASSERT_EQ(facts.error, "");
    EXPECT_EQ(facts.integrity, "ok");
    // Either the old library as it was or the upgraded one, whole: never a half-upgraded file.
    EXPECT_TRUE(facts.model == oldVersion || facts.model == newVersion) << facts.model;
    EXPECT_EQ(facts.bookmarks, kStories);
    (facts.model == newVersion ? finished : untouched) += 1;
    // Step files left behind show that the kill came in the middle of the upgrade.
    midway += leftSteps(home).empty() ? 0 : 1;
    // The next start finishes the upgrade and clears what the killed one left.
    auto listed = home.run("list --json --limit 0");
    ASSERT_EQ(listed.exit, 0) << listed.err;
    EXPECT_EQ(json::parse(listed.out).size(), static_cast<size_t>(kStories));
    EXPECT_EQ(readLibrary(home.store()).model, newVersion);
    EXPECT_THAT(leftSteps(home), ::testing::IsEmpty());
  }
  std::cout << fmt::format("[ kills    ] {} upgrades, {} killed ({} between steps; {} left the old library, {} the "
                           "new one); an upgrade takes {} ms\n", rounds, killed, midway, untouched, finished, whole.count());
  EXPECT_GE(killed, rounds / 2);
}

}  // namespace
}  // namespace lectern::test
