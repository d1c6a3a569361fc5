// Reading through the program: `show` and `open` as a script sees them, and `lectern read` driven in
// a pseudo-terminal (keys in, screen out) against a local feed server.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <set>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <thread>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/text/ArticleText.h"
#include "core/UserDefaults.h"
#include "app/ProgramRun.h"
#include "mocks/FeedbinMockServer.h"
#include "store/FeedEnclosure.h"
#include "store/FeedStory.h"
#include "store/ObjectContext.h"
#include "store/QKDataManager.h"
#include "support/TestSupport.h"
#include "sync/SyncTestSupport.h"

extern char** environ;

namespace lectern::test {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;
using nlohmann::json;
using namespace std::chrono_literals;

constexpr auto kScreenWait = 30s;  // generous: the program runs under the sanitizers

// Just enough of an xterm to know what is on the screen: cursor addressing, erasing, line
// insertion and deletion, scrolling regions; attributes and modes are ignored.
class TerminalScreen {
 public:
  TerminalScreen(int rows, int columns) { resize(rows, columns); }

  void resize(int rows, int columns) {
    rows_ = rows;
    columns_ = columns;
    cells_.assign(static_cast<size_t>(rows), std::vector<std::string>(static_cast<size_t>(columns), " "));
    row_ = col_ = 0;
    top_ = 0;
    bottom_ = rows - 1;
  }

  void feed(std::string_view bytes) {
    pending_ += bytes;
    size_t at = 0;
    while (at < pending_.size()) {
      const size_t used = step(std::string_view(pending_).substr(at));
      if (used == 0) break;  // an incomplete sequence: wait for more
      at += used;
    }
    pending_.erase(0, at);
  }

  std::string row(int index) const {
    std::string text;
    for (const auto& cell : cells_[static_cast<size_t>(index)]) text += cell;
    while (!text.empty() && text.back() == ' ') text.pop_back();
    return text;
  }

  std::string text() const {
    std::string all;
    for (int r = 0; r < rows_; ++r) all += row(r) + "\n";
    return all;
  }

  int rows() const { return rows_; }

 private:
  // Consumes one character or sequence; 0 when it is not complete yet.
  size_t step(std::string_view in) {
    const auto c = static_cast<unsigned char>(in[0]);
    if (c == 0x1B) return escape(in);
    if (c == '\r') {
      col_ = 0;
    } else if (c == '\n') {
      lineFeed();
    } else if (c == '\b') {
      col_ = std::max(0, col_ - 1);
    } else if (c == '\t') {
      col_ = std::min(columns_ - 1, (col_ / 8 + 1) * 8);
    } else if (c >= 0x20 && c != 0x7F) {
      size_t length = c < 0x80 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
      if (in.size() < length) return 0;
      put(std::string(in.substr(0, length)));
      return length;
    }
    return 1;
  }

  void put(const std::string& character) {
    const int width = static_cast<int>(std::max<size_t>(1, displayWidth(character)));
    if (col_ + width > columns_) {
      col_ = 0;
      lineFeed();
    }
    cells_[static_cast<size_t>(row_)][static_cast<size_t>(col_)] = character;
    if (width == 2 && col_ + 1 < columns_) cells_[static_cast<size_t>(row_)][static_cast<size_t>(col_ + 1)] = "";
    col_ += width;
    last_ = character;
  }

  void lineFeed() {
    if (row_ == bottom_) {
      scrollUp(top_, bottom_, 1);
    } else if (row_ < rows_ - 1) {
      ++row_;
    }
  }

  std::vector<std::string> blankRow() const { return std::vector<std::string>(static_cast<size_t>(columns_), " "); }

  void scrollUp(int top, int bottom, int count) {
    for (int i = 0; i < count; ++i) {
      cells_.erase(cells_.begin() + top);
      cells_.insert(cells_.begin() + bottom, blankRow());
    }
  }

  void scrollDown(int top, int bottom, int count) {
    for (int i = 0; i < count; ++i) {
      cells_.erase(cells_.begin() + bottom);
      cells_.insert(cells_.begin() + top, blankRow());
    }
  }

  void erase(int row, int from, int to) {
    for (int c = std::max(0, from); c < std::min(to, columns_); ++c) cells_[static_cast<size_t>(row)][static_cast<size_t>(c)] = " ";
  }

  size_t escape(std::string_view in) {
    if (in.size() < 2) return 0;
    const char kind = in[1];
    if (kind == '[') return controlSequence(in);
    if (kind == ']') {  // operating system command: up to BEL or ST
      for (size_t i = 2; i < in.size(); ++i) {
        if (in[i] == '\x07') return i + 1;
        if (in[i] == '\x1B' && i + 1 < in.size() && in[i + 1] == '\\') return i + 2;
      }
      return 0;
    }
    if (kind == '(' || kind == ')' || kind == '*' || kind == '+' || kind == '#') return in.size() < 3 ? 0 : 3;
    switch (kind) {
      case '7':
        saved_ = {row_, col_};
        break;
      case '8':
        std::tie(row_, col_) = saved_;
        break;
      case 'M':
        if (row_ == top_) {
          scrollDown(top_, bottom_, 1);
        } else if (row_ > 0) {
          --row_;
        }
        break;
      case 'D':
        lineFeed();
        break;
      case 'E':
        col_ = 0;
        lineFeed();
        break;
      case 'c':
        resize(rows_, columns_);
        break;
      default:
        break;  // keypad modes and the like
    }
    return 2;
  }

  size_t controlSequence(std::string_view in) {
    size_t end = 2;
    while (end < in.size() && !(in[end] >= 0x40 && in[end] <= 0x7E)) ++end;
    if (end >= in.size()) return 0;
    const std::string body(in.substr(2, end - 2));
    const char final = in[end];
    if (!body.empty() && (body[0] == '?' || body[0] == '>' || body[0] == '=')) return end + 1;  // modes
    std::vector<int> numbers;
    size_t at = 0;
    while (at <= body.size()) {
      const size_t next = std::min(body.find(';', at), body.size());
      numbers.push_back(next > at ? std::atoi(body.substr(at, next - at).c_str()) : 0);
      at = next + 1;
    }
    auto arg = [&](size_t i, int fallback) { return i < numbers.size() && numbers[i] > 0 ? numbers[i] : fallback; };
    auto clampCursor = [&] {
      row_ = std::clamp(row_, 0, rows_ - 1);
      col_ = std::clamp(col_, 0, columns_ - 1);
    };
    switch (final) {
      case 'H':
      case 'f':
        row_ = arg(0, 1) - 1;
        col_ = arg(1, 1) - 1;
        clampCursor();
        break;
      case 'A': row_ -= arg(0, 1); clampCursor(); break;
      case 'B': row_ += arg(0, 1); clampCursor(); break;
      case 'C': col_ += arg(0, 1); clampCursor(); break;
      case 'D': col_ -= arg(0, 1); clampCursor(); break;
      case 'G':
      case '`': col_ = arg(0, 1) - 1; clampCursor(); break;
      case 'd': row_ = arg(0, 1) - 1; clampCursor(); break;
      case 'K': {
        const int mode = numbers.empty() ? 0 : numbers[0];
        if (mode == 0) erase(row_, col_, columns_);
        if (mode == 1) erase(row_, 0, col_ + 1);
        if (mode == 2) erase(row_, 0, columns_);
        break;
      }
      case 'J': {
        const int mode = numbers.empty() ? 0 : numbers[0];
        if (mode == 0) {
          erase(row_, col_, columns_);
          for (int r = row_ + 1; r < rows_; ++r) erase(r, 0, columns_);
        } else if (mode == 1) {
          for (int r = 0; r < row_; ++r) erase(r, 0, columns_);
          erase(row_, 0, col_ + 1);
        } else {
          for (int r = 0; r < rows_; ++r) erase(r, 0, columns_);
        }
        break;
      }
      case 'X': erase(row_, col_, col_ + arg(0, 1)); break;
      case '@': {
        auto& line = cells_[static_cast<size_t>(row_)];
        for (int i = 0; i < arg(0, 1); ++i) {
          line.insert(line.begin() + col_, " ");
          line.pop_back();
        }
        break;
      }
      case 'P': {
        auto& line = cells_[static_cast<size_t>(row_)];
        for (int i = 0; i < arg(0, 1); ++i) {
          line.erase(line.begin() + col_);
          line.push_back(" ");
        }
        break;
      }
      case 'L': if (row_ >= top_ && row_ <= bottom_) scrollDown(row_, bottom_, arg(0, 1)); break;
      case 'M': if (row_ >= top_ && row_ <= bottom_) scrollUp(row_, bottom_, arg(0, 1)); break;
      case 'S': scrollUp(top_, bottom_, arg(0, 1)); break;
      case 'T': scrollDown(top_, bottom_, arg(0, 1)); break;
      case 'r':
        top_ = arg(0, 1) - 1;
        bottom_ = std::min(arg(1, rows_), rows_) - 1;
        row_ = col_ = 0;
        break;
      case 'b':
        for (int i = 0; i < arg(0, 1) && !last_.empty(); ++i) put(last_);
        break;
      default:
        break;  // colours, modes, reports
    }
    return end + 1;
  }

  int rows_ = 0;
  int columns_ = 0;
  std::vector<std::vector<std::string>> cells_;
  int row_ = 0;
  int col_ = 0;
  int top_ = 0;
  int bottom_ = 0;
  std::pair<int, int> saved_{0, 0};
  std::string last_;
  std::string pending_;
};

// `lectern read` on a pseudo-terminal of its own.
class ReaderSession {
 public:
  ReaderSession(const std::vector<std::string>& arguments, const std::vector<std::string>& environment, int rows,
                int columns)
      : screen_(rows, columns) {
    std::vector<std::string> args{LECTERN_PROGRAM};
    args.insert(args.end(), arguments.begin(), arguments.end());
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
      const std::string entry(*e);
      if (entry.starts_with("COLUMNS=") || entry.starts_with("LINES=") || entry.starts_with("TERM=") ||
          entry.starts_with("LANG=") || entry.starts_with("LC_ALL=") || entry.starts_with("BROWSER=") ||
          entry.starts_with("LECTERN_OFFLINE=")) {
        continue;
      }
      env.push_back(entry);
    }
    env.insert(env.end(), {"TERM=xterm", "LANG=C.UTF-8"});
    env.insert(env.end(), environment.begin(), environment.end());
    // Everything the child needs is made before the fork: after it only exec runs.
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    winsize size{};
    size.ws_row = static_cast<unsigned short>(rows);
    size.ws_col = static_cast<unsigned short>(columns);
    pid_ = ::forkpty(&master_, nullptr, nullptr, &size);
    if (pid_ == 0) {
      ::execve(argv[0], argv.data(), envp.data());
      ::_exit(127);
    }
  }

  ~ReaderSession() {
    if (pid_ > 0 && !exited_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    if (master_ >= 0) ::close(master_);
  }

  bool started() const { return pid_ > 0 && master_ >= 0; }

  void send(std::string_view keys) {
    for (char c : keys) {
      ASSERT_EQ(::write(master_, &c, 1), 1);
      // One key at a time, as typed: a burst would be read as one escape sequence.
      pump(20ms);
    }
  }

  // Reads the screen until `done` answers true or the time is up; false then.
  bool waitFor(const std::function<bool(const TerminalScreen&)>& done, std::chrono::milliseconds limit = kScreenWait) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done(screen_)) {
      if (std::chrono::steady_clock::now() > deadline || exited_) return done(screen_);
      pump(50ms);
    }
    return true;
  }
  bool waitForText(const std::string& text) {
    return waitFor([&](const TerminalScreen& screen) { return screen.text().find(text) != std::string::npos; });
  }

  void resize(int rows, int columns) {
    winsize size{};
    size.ws_row = static_cast<unsigned short>(rows);
    size.ws_col = static_cast<unsigned short>(columns);
    pump(50ms);
    screen_.resize(rows, columns);
    ::ioctl(master_, TIOCSWINSZ, &size);  // the kernel tells the program with SIGWINCH
  }

  // The exit status once the program has ended, or -1 when it did not end in time.
  int waitForExit() {
    const auto deadline = std::chrono::steady_clock::now() + kScreenWait;
    while (!exited_ && std::chrono::steady_clock::now() < deadline) pump(50ms);
    return exited_ && WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
  }

  const TerminalScreen& screen() const { return screen_; }

 private:
  void pump(std::chrono::milliseconds wait) {
    pollfd fd{master_, POLLIN, 0};
    if (::poll(&fd, 1, static_cast<int>(wait.count())) > 0) {
      char buffer[4096];
      const ssize_t got = ::read(master_, buffer, sizeof buffer);
      if (got > 0) screen_.feed(std::string_view(buffer, static_cast<size_t>(got)));
    }
    if (!exited_ && ::waitpid(pid_, &status_, WNOHANG) == pid_) exited_ = true;
  }

  TerminalScreen screen_;
  int master_ = -1;
  pid_t pid_ = -1;
  int status_ = 0;
  bool exited_ = false;
};

class ReadCliTest : public ::testing::Test {
 protected:
  ReadCliTest() {
    const auto script = home_.path() / "browser.sh";
    writeFile(script, fmt::format("#!/bin/sh\necho \"$1\" >> '{}'\n", browsed().string()));
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
  }

  ProgramRun run(const std::string& arguments, const std::string& environment = "", const std::string& input = "") {
    return runProgram(home_.path(), home(), arguments, input,
                      fmt::format("env -u COLUMNS -u PAGER {} BROWSER='{}'", environment, browser()));
  }

  std::filesystem::path home() const { return home_.path() / "home"; }
  std::string browser() const { return (home_.path() / "browser.sh").string(); }
  std::filesystem::path browsed() const { return home_.path() / "browsed.txt"; }

  // What the browser script was given, waiting a little: it runs beside the program.
  std::string waitForBrowsed(const std::string& expected) {
    for (int i = 0; i < 200; ++i) {
      if (std::filesystem::exists(browsed()) && readFile(browsed()).find(expected) != std::string::npos) break;
      std::this_thread::sleep_for(50ms);
    }
    return std::filesystem::exists(browsed()) ? readFile(browsed()) : "";
  }

  // Subscribes to the "news" feed with `entries` and syncs it; answers the stories' ids by title.
  std::map<std::string, std::string> subscribeAndSync(const std::vector<TestEntry>& entries) {
    server_.setFeed("news", entries, std::chrono::system_clock::now());
    auto subscribed = run("subscribe " + server_.url("news"));
    EXPECT_EQ(subscribed.exit, 0) << subscribed.err;
    auto synced = run("sync");
    EXPECT_EQ(synced.exit, 0) << synced.err;
    return ids();
  }

  std::map<std::string, std::string> ids() {
    std::map<std::string, std::string> ids;
    for (const auto& story : json::parse(run("list --json --limit 0").out)) {
      ids[story["title"].get<std::string>()] = std::to_string(story["id"].get<std::int64_t>());
    }
    return ids;
  }

  json story(const std::string& title) {
    for (auto& story : json::parse(run("list --json --limit 0").out)) {
      if (story["title"] == title) return story;
    }
    return nullptr;
  }

  // A Feedbin account with two unread entries, "Unread one" (101) and "Unread two" (102), synced.
  void addFeedbin(mock::FeedbinMockServer& feedbin) {
    feedbin.addSubscription({501, 11, "Alpha", "https://a.example/feed", std::nullopt});
    const std::time_t now = std::time(nullptr);
    for (std::int64_t id : {101, 102}) {
      mock::FeedbinEntry entry;
      entry.id = id;
      entry.feedId = 11;
      entry.title = id == 101 ? "Unread one" : "Unread two";
      entry.url = fmt::format("https://a.example/{}", id);
      const std::time_t when = now - 3600 * (id - 100);
      std::tm utc{};
      gmtime_r(&when, &utc);
      entry.published = fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.000000Z", utc.tm_year + 1900, utc.tm_mon + 1,
                                    utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
      entry.createdAt = entry.published;
      feedbin.addEntry(entry, /*unread=*/true, /*starred=*/false);
    }
    auto added = run("account add feedbin --username me@example.org --password-stdin --endpoint " + feedbin.baseURL(), "",
                     "secret\n");
    ASSERT_EQ(added.exit, 0) << added.err;
    auto synced = run("sync");
    ASSERT_EQ(synced.exit, 0) << synced.err;
  }

  TempDir home_;
  FeedServer server_;
};

TEST_F(ReadCliTest, ShowWrapsNumbersLinksAndListsEnclosures) {
  const std::string longText = "Words " + std::string(30, 'x') + " and more words to make a paragraph that runs well "
                               "past eighty columns so that it has to wrap at least once or twice.";
  auto ids = subscribeAndSync(
      // The relative link is read against the feed's own address.
      {{"Episode", "https://pod.example/ep/1",
        1h, "<h1>Show notes</h1><p>" + longText + "</p><ul><li>See <a href=\"/guest\">the guest</a></li></ul>"}});
  const std::string id = ids.at("Episode");
  {
    // A podcast file as a feed sync stores it beside the story.
    Paths paths = Paths::under(home());
    UserDefaults defaults;
    MainQueue queue;
    FixedClock clock(std::chrono::system_clock::now());
    FixedReachability reachability;
    QKDataManager manager(paths, defaults, queue, clock, reachability);
    auto context = manager.managedObjectContext();
    ASSERT_TRUE(context) << context.error().message();
    auto bookmark = Bookmark::bookmarkWithLocalId(**context, std::stoll(id));
    ASSERT_TRUE(bookmark && *bookmark);
    auto* episode = dynamic_cast<FeedStory*>(bookmark->get());
    ASSERT_NE(episode, nullptr);
    episode->addEnclosure("https://pod.example/ep1.mp3", "audio/mpeg", 48'000'000);
    ASSERT_TRUE((*context)->save());
  }

  // Not a terminal: 80 columns, no pager.
  auto shown = run("show " + id, "PAGER=false");
  ASSERT_EQ(shown.exit, 0) << shown.err;
  EXPECT_THAT(shown.out, HasSubstr("Show notes\n==========\n"));
  EXPECT_THAT(shown.out, HasSubstr("  * See the guest[1]\n"));
  EXPECT_THAT(shown.out, ContainsRegex("Links:\n  \\[1\\] http://127\\.0\\.0\\.1:[0-9]+/guest\n"));
  EXPECT_THAT(shown.out, HasSubstr("Enclosures:\n  https://pod.example/ep1.mp3  (audio/mpeg, 48.0 MB)\n"));
  EXPECT_THAT(shown.out, HasSubstr("State:   unread\n"));
  size_t widest = 0;
  std::istringstream lines(shown.out);
  for (std::string line; std::getline(lines, line);) widest = std::max(widest, displayWidth(line));
  EXPECT_LE(widest, 80u);
  EXPECT_GT(widest, 60u);

  // COLUMNS narrows it; --mark-read marks it read once shown.
  auto narrow = run("show --mark-read " + id, "COLUMNS=30");
  ASSERT_EQ(narrow.exit, 0) << narrow.err;
  std::istringstream narrowLines(narrow.out);
  for (std::string line; std::getline(narrowLines, line);) {
    if (!line.starts_with("  https://") && !line.starts_with("  [1]") && !line.starts_with("Link:")) {
      EXPECT_LE(displayWidth(line), 30u) << line;
    }
  }
  EXPECT_EQ(story("Episode")["is_archived"], true);

  // On a terminal: the terminal's width, through the pager.
  const auto pager = home_.path() / "pager.sh";
  const auto paged = home_.path() / "paged.txt";
  writeFile(pager, fmt::format("#!/bin/sh\ncat > '{}'\n", paged.string()));
  std::filesystem::permissions(pager, std::filesystem::perms::owner_all);
  ReaderSession terminal({"--home", home().string(), "show", id}, {"PAGER=" + pager.string()}, 24, 50);
  ASSERT_TRUE(terminal.started());
  EXPECT_EQ(terminal.waitForExit(), 0);
  const std::string page = readFile(paged);
  EXPECT_THAT(page, ContainsRegex("Links:\n  \\[1\\] http://127\\.0\\.0\\.1:[0-9]+/guest\n"));
  std::istringstream pageLines(page);
  widest = 0;
  for (std::string line; std::getline(pageLines, line);) {
    if (!line.starts_with("  https://")) widest = std::max(widest, displayWidth(line));
  }
  EXPECT_LE(widest, 50u);
  EXPECT_GT(widest, 40u);

  // --json and --html stay as they were.
  auto asJson = run("show --json " + id);
  ASSERT_EQ(asJson.exit, 0) << asJson.err;
  EXPECT_EQ(json::parse(asJson.out)["title"], "Episode");
  EXPECT_EQ(run("show 999999").exit, 1);
}

TEST_F(ReadCliTest, OpenHandsTheAddressToTheBrowserAndMarksReadOfflineToo) {
  auto local = subscribeAndSync({{"First", "https://site.example/first", 1h}});
  auto opened = run("open " + local.at("First"));
  ASSERT_EQ(opened.exit, 0) << opened.err;
  EXPECT_THAT(waitForBrowsed("https://site.example/first"), HasSubstr("https://site.example/first\n"));
  EXPECT_EQ(story("First")["is_archived"], true);
  EXPECT_EQ(run("read").exit, 1);  // no terminal: it says so instead of drawing

  // At a service, offline, the mark waits in the queue and reaches the service at the next sync.
  mock::FeedbinMockServer feedbin("me@example.org", "secret");
  addFeedbin(feedbin);
  auto offline = run("--offline open " + ids().at("Unread one"));
  ASSERT_EQ(offline.exit, 0) << offline.err;
  EXPECT_THAT(offline.out, HasSubstr("queued"));
  EXPECT_THAT(waitForBrowsed("a.example/101"), HasSubstr("https://a.example/101\n"));
  auto queue = json::parse(run("queue --json").out);
  ASSERT_EQ(queue.size(), 1u);
  EXPECT_EQ(queue[0]["operation"], "read");
  EXPECT_EQ(queue[0]["bookmark_id"], "101");
  ASSERT_EQ(run("sync").exit, 0);
  EXPECT_EQ(feedbin.unreadEntryIds(), (std::set<std::int64_t>{102}));
}

TEST_F(ReadCliTest, ReaderOpensPagesMarksSearchesRefreshesAndFollowsResizes) {
  std::string longBody;
  for (int i = 1; i <= 40; ++i) longBody += fmt::format("<p>Para {}.</p>", i);
  subscribeAndSync({{"Alpha story", "https://site.example/alpha", 1h, longBody},
                    {"Beta story", "https://site.example/beta", 2h},
                    {"Gamma story", "https://site.example/gamma", 3h,
                     "<p>Gamma has <a href=\"/gamma/more\">a link</a> and a long sentence that has to be wrapped "
                     "again when the window becomes narrow.</p>"}});
  ReaderSession reader({"--home", home().string(), "read"}, {"BROWSER=" + browser()}, 24, 80);
  ASSERT_TRUE(reader.started());
  ASSERT_TRUE(reader.waitForText("All articles (3 unread of 3)")) << reader.screen().text();

  // Enter opens the first story and marks it read; space pages through it.
  reader.send("\r");
  ASSERT_TRUE(reader.waitForText("Para 5.")) << reader.screen().text();
  EXPECT_THAT(reader.screen().row(0), HasSubstr("Alpha story (1/3)"));
  reader.send(" ");
  ASSERT_TRUE(reader.waitForText("Para 15.")) << reader.screen().text();
  EXPECT_THAT(reader.screen().text(), Not(HasSubstr("Para 5.\n")));

  // Back in the list: Alpha is read, Beta gets a star.
  reader.send("q");
  ASSERT_TRUE(reader.waitForText("All articles (2 unread of 3)")) << reader.screen().text();
  reader.send("js");
  ASSERT_TRUE(reader.waitForText("N* ")) << reader.screen().text();

  // Search, open the match, follow its link by number.
  reader.send("/Gamma");
  ASSERT_TRUE(reader.waitForText("Search: Gamma")) << reader.screen().text();
  reader.send("\r");
  ASSERT_TRUE(reader.waitForText("Search: Gamma (1 found)")) << reader.screen().text();
  reader.send("\r");
  ASSERT_TRUE(reader.waitForText("a link[1]")) << reader.screen().text();
  reader.send("1\r");
  EXPECT_THAT(waitForBrowsed("gamma/more"), ContainsRegex("^http://127\\.0\\.0\\.1:[0-9]+/gamma/more\n"));  // the feed's base

  // A narrower window: the article is wrapped again to the new width.
  reader.resize(24, 40);
  ASSERT_TRUE(reader.waitFor([](const TerminalScreen& screen) {
    return screen.row(screen.rows() - 2).starts_with("q:back space:page n/p:unread");
  })) << reader.screen().text();
  ASSERT_TRUE(reader.waitForText("Gamma has a link[1] and a long sentence\n")) << reader.screen().text();

  // Refresh from the list brings a new story without leaving the reader.
  reader.send("qq");
  ASSERT_TRUE(reader.waitForText("All articles (")) << reader.screen().text();
  server_.setFeed("news",
                  {{"Delta story", "https://site.example/delta", 0h}, {"Alpha story", "https://site.example/alpha", 1h, longBody},
                   {"Beta story", "https://site.example/beta", 2h}, {"Gamma story", "https://site.example/gamma", 3h}},
                  std::chrono::system_clock::now());
  reader.send("r");
  ASSERT_TRUE(reader.waitForText("Refreshed:")) << reader.screen().text();
  EXPECT_THAT(reader.screen().text(), HasSubstr("Delta story"));
  reader.send("q");
  EXPECT_EQ(reader.waitForExit(), 0);

  EXPECT_EQ(story("Alpha story")["is_archived"], true);
  EXPECT_EQ(story("Beta story")["is_archived"], false);
  EXPECT_EQ(story("Beta story")["is_favorited"], true);
  EXPECT_EQ(story("Gamma story")["is_archived"], true);
  EXPECT_EQ(story("Delta story")["is_archived"], false);
}

TEST_F(ReadCliTest, ReaderOfflineQueuesMarksForTheServiceAndRefusesToRefresh) {
  mock::FeedbinMockServer feedbin("me@example.org", "secret");
  addFeedbin(feedbin);
  ReaderSession reader({"--home", home().string(), "--offline", "read", "--unread"}, {}, 20, 70);
  ASSERT_TRUE(reader.started());
  ASSERT_TRUE(reader.waitForText("Unread articles (2 unread of 2)")) << reader.screen().text();
  reader.send("s");
  reader.send("r");
  ASSERT_TRUE(reader.waitForText("Refresh: offline")) << reader.screen().text();
  reader.send("mq");
  EXPECT_EQ(reader.waitForExit(), 0);
  auto queue = json::parse(run("queue --json").out);
  ASSERT_EQ(queue.size(), 2u);
  EXPECT_EQ(queue[0]["operation"], "read");
  EXPECT_EQ(queue[1]["operation"], "star");
  ASSERT_EQ(run("sync").exit, 0);
  EXPECT_EQ(feedbin.unreadEntryIds(), (std::set<std::int64_t>{102}));
  EXPECT_EQ(feedbin.starredEntryIds(), (std::set<std::int64_t>{101}));
}

}  // namespace
}  // namespace lectern::test
