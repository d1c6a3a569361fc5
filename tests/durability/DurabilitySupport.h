#pragma once

// Shared pieces of the durability tests: a home run by the built program, the feeds a local
// server serves round after round, and what the library file says once a process is gone.

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "app/ProgramRun.h"
#include "store/ModelVersion.h"
#include "support/TestSupport.h"
#include "sync/SyncTestSupport.h"

namespace lectern::test {

// How many kills a harness makes: LECTERN_KILLS (`make stress` sets 100), else `fallback`, the
// short run of `make test`.
int killCount(int fallback = 10);
// The seed of the random moments: LECTERN_KILL_SEED (to replay a failure), else the clock.
std::uint64_t killSeed();

// `feeds` feeds of `perFeed` entries at /feeds/f<N>. Each round slides every feed's window by
// `fresh` entries: new ones at the top, the oldest leave the document (and stay in the library).
// Entry dates are fixed once made, so a story never changes between rounds.
class ServedFeeds {
 public:
  ServedFeeds(FeedServer& server, int feeds, int perFeed, int fresh);
  void serveRound(int round);
  std::string opml() const;  // an OPML document of every feed
  // Every link served so far, each feed's.
  const std::set<std::string>& everLinked() const { return everLinked_; }
  // The links the current documents carry.
  const std::set<std::string>& servedNow() const { return servedNow_; }

 private:
  FeedServer& server_;
  int feeds_, perFeed_, fresh_;
  std::chrono::system_clock::time_point start_;
  std::set<std::string> everLinked_;
  std::set<std::string> servedNow_;
};

// The library as its file says once no process has it open.
struct LibraryFacts {
  std::string integrity;                 // PRAGMA integrity_check ("ok")
  std::string error;                     // why the file could not be read, "" when it could
  std::string model;                     // the model version in its metadata ("Lectern 2.8")
  std::set<std::string> localLinks;      // the built-in reader's stories (bookmark_id = link)
  std::vector<std::string> duplicates;   // "feed|bookmark_id" or "feed|url" held twice or more
  std::set<std::string> serviceIds;      // the hosted account's item ids
  std::set<std::string> serviceRead;     // ... of those, read
  std::set<std::string> serviceStarred;  // ... of those, starred
  std::int64_t bookmarks = 0;            // rows of Bookmark
};
LibraryFacts readLibrary(const std::filesystem::path& store);
// The rows of one query on a library file, cells joined by "|" ("" for NULL).
std::vector<std::string> queryRows(const std::filesystem::path& store, const std::string& sql);
// A library file of an old model version: its schema, then `statements`.
void writeLibraryOfVersion(const std::filesystem::path& store, const ModelVersion& version,
                           const std::vector<std::string>& statements);

// A home for the program and the runs in it.
class ProgramHome {
 public:
  ProgramHome();
  std::filesystem::path home() const { return temp_.path() / "home"; }
  std::filesystem::path store() const { return home() / "data" / "Lectern.storedata"; }
  ProgramRun run(const std::string& arguments, const std::string& input = "", const std::string& environment = "");
  pid_t spawn(const std::vector<std::string>& arguments);
  const TempDir& temp() const { return temp_; }

 private:
  TempDir temp_;
};

// What ended a process the harness meant to kill.
struct KillOutcome {
  bool killed = false;  // false: it ended by itself before the moment came
  int exitCode = -1;    // when it ended by itself
};
// Waits `delay`, then kills `pid` with SIGKILL unless it ended first; reaps it either way.
KillOutcome killAfter(pid_t pid, std::chrono::milliseconds delay);
// Waits for `pid` to end (at most `limit`), answering its exit code (-1 when killed or stuck).
int waitForExit(pid_t pid, std::chrono::seconds limit);

}  // namespace lectern::test
