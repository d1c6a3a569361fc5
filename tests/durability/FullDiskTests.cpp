// A sync that cannot write: the file size limited (as a full disk does) and the library's folder
// read-only. Each gives a clear error and exit 1, leaves no feed half-written, and once the
// limit is lifted the library opens intact and the next sync completes.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <string>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DurabilitySupport.h"

namespace lectern::test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

class FullDiskTest : public ::testing::Test {
 protected:
  static constexpr int kFeeds = 40;
  static constexpr int kPerFeed = 20;

  // The built-in reader with its feeds synced once, and new stories served for the next sync.
  void SetUp() override {
    feeds_.serveRound(0);
    ASSERT_EQ(home_.run("").exit, 0);
    const auto opml = home_.temp() / "feeds.opml";
    writeFile(opml, feeds_.opml());
    ASSERT_EQ(home_.run("opml import '" + opml.string() + "'").exit, 0);
    auto synced = home_.run("sync");
    ASSERT_EQ(synced.exit, 0) << synced.err;
    const auto facts = readLibrary(home_.store());
    before_ = facts.localLinks;
    ASSERT_EQ(before_.size(), static_cast<size_t>(kFeeds * kPerFeed)) << facts.error << synced.out;
    feeds_.serveRound(1);
  }

  // The failed sync left each feed as it was or with all of its new stories, nothing between.
  void checkNothingHalfWritten() {
    const auto facts = readLibrary(home_.store());
    ASSERT_EQ(facts.error, "");
    EXPECT_EQ(facts.integrity, "ok");
    EXPECT_THAT(facts.duplicates, IsEmpty());
    for (const auto& link : before_) EXPECT_TRUE(facts.localLinks.contains(link)) << "lost: " << link;
    std::map<std::string, std::pair<int, int>> perFeed;  // feed -> new stories served, stored
    for (const auto& link : feeds_.servedNow()) {
      if (before_.contains(link)) continue;
      const auto feed = link.substr(0, link.rfind('/'));
      ++perFeed[feed].first;
      if (facts.localLinks.contains(link)) ++perFeed[feed].second;
    }
    int stored = 0;
    for (const auto& [feed, counts] : perFeed) {
      EXPECT_TRUE(counts.second == 0 || counts.second == counts.first)
          << feed << ": " << counts.second << " of " << counts.first << " new stories";
      stored += counts.second == counts.first ? 1 : 0;
    }
    std::cout << fmt::format("[ refused  ] {} of {} feeds had saved their new stories before the refusal\n", stored,
                             perFeed.size());
  }

  // With the limit lifted: the program opens the library and a sync brings everything.
  void checkUsableAgain() {
    auto synced = home_.run("sync");
    EXPECT_EQ(synced.exit, 0) << synced.out << synced.err;
    const auto facts = readLibrary(home_.store());
    EXPECT_EQ(facts.integrity, "ok");
    EXPECT_THAT(facts.duplicates, IsEmpty());
    EXPECT_EQ(facts.localLinks, feeds_.everLinked());
    EXPECT_EQ(home_.run("list --limit 1").exit, 0);
  }

  ProgramHome home_;
  FeedServer server_;
  ServedFeeds feeds_{server_, kFeeds, kPerFeed, 10};
  std::set<std::string> before_;
};

TEST_F(FullDiskTest, ASyncThatHitsTheFileSizeLimitSaysTheDiskIsFullAndLosesNothing) {
  // No file may grow past the library's size plus a few pages: SIGXFSZ ignored, so each write
  // past the limit fails with EFBIG, as a write to a full disk fails with ENOSPC.
  const auto blocks = std::filesystem::file_size(home_.store()) / 512 + 16;
  auto refused = home_.run("sync", "", fmt::format("trap '' XFSZ; ulimit -f {};", blocks));
  EXPECT_EQ(refused.exit, 1) << refused.out << refused.err;
  EXPECT_THAT(refused.err, HasSubstr("the disk is full"));
  checkNothingHalfWritten();
  checkUsableAgain();
}

// Makes the library's folder and everything in it read-only until destroyed. Root writes through
// permissions, so as root the files are made immutable instead (chattr +i), when the file system
// allows it.
class ReadOnlyFolder {
 public:
  explicit ReadOnlyFolder(std::filesystem::path folder) : folder_(std::move(folder)) {
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) paths_.push_back(entry.path());
    paths_.push_back(folder_);
    if (geteuid() != 0) {
      for (const auto& path : paths_) {
        std::filesystem::permissions(path, std::filesystem::perms::owner_write | std::filesystem::perms::group_write |
                                               std::filesystem::perms::others_write,
                                     std::filesystem::perm_options::remove);
      }
      applied_ = true;
      return;
    }
    applied_ = chattr("+i");
    if (!applied_) chattr("-i");
  }
  ~ReadOnlyFolder() { lift(); }
  bool applied() const { return applied_; }
  void lift() {
    if (!applied_) return;
    applied_ = false;
    if (geteuid() == 0) {
      chattr("-i");
      return;
    }
    for (const auto& path : paths_)
      std::filesystem::permissions(path, std::filesystem::perms::owner_write, std::filesystem::perm_options::add);
  }

 private:
  bool chattr(const std::string& how) {
    std::string command = "chattr " + how;
    for (const auto& path : paths_) command += " '" + path.string() + "'";
    return std::system((command + " 2>/dev/null").c_str()) == 0;
  }
  std::filesystem::path folder_;
  std::vector<std::filesystem::path> paths_;
  bool applied_ = false;
};

TEST_F(FullDiskTest, ASyncIntoAReadOnlyLibrarySaysItCannotBeWrittenAndChangesNothing) {
  {
    ReadOnlyFolder readOnly(home_.store().parent_path());
    if (!readOnly.applied())
      GTEST_SKIP() << "running as root on a file system without chattr +i: the folder cannot be made read-only";
    auto refused = home_.run("sync");
    EXPECT_EQ(refused.exit, 1) << refused.out << refused.err;
    EXPECT_THAT(refused.err, HasSubstr("can't be written"));
  }
  checkNothingHalfWritten();
  EXPECT_EQ(readLibrary(home_.store()).localLinks, before_);  // nothing at all was written
  checkUsableAgain();
}

}  // namespace
}  // namespace lectern::test
