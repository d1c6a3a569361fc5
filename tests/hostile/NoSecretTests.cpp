// After signing in to every service and syncing, no password, token or consumer secret is in the
// store, the user defaults, the log, the cache, or anything the program printed; and a crashed
// program leaves no core that holds one. The secret store's own file (secrets.json, used when no
// Secret Service answers) is where they belong and is the one file not searched.
#include <openssl/evp.h>
#include <openssl/md5.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "hostile/ChildRun.h"
#include "mocks/FeedWranglerMockServer.h"
#include "mocks/FeedbinMockServer.h"
#include "mocks/FeedlyMockServer.h"
#include "mocks/FeverMockServer.h"
#include "mocks/InstapaperMockServer.h"
#include "mocks/NewsBlurMockServer.h"
#include "mocks/PinboardMockServer.h"
#include "mocks/PocketMockServer.h"
#include "support/TestSupport.h"

namespace lectern::test {
namespace {

namespace fs = std::filesystem;

struct Secret {
  std::string what;
  std::string value;
  bool allowedInDefaults = false;  // application credentials are configuration, kept as user defaults
};

std::string base64(const std::string& text) {
  std::string out(4 * ((text.size() + 2) / 3) + 1, '\0');
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
  out.resize(static_cast<size_t>(n));
  return out;
}

std::string md5Hex(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr);
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) hex += fmt::format("{:02x}", digest[i]);
  return hex;
}

// Whether `file` holds `needle`, reading only its data: a core file is sparse and its holes can
// add up to terabytes (the sanitizers reserve address space they never touch).
bool fileContains(const fs::path& file, const std::string& needle) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool found = false;
  std::string buffer;
  off_t data = ::lseek(fd, 0, SEEK_DATA);
  while (!found && data >= 0) {
    const off_t hole = ::lseek(fd, data, SEEK_HOLE);
    for (off_t at = data; !found && at < hole;) {
      const size_t want = static_cast<size_t>(std::min<off_t>(hole - at, 1 << 22));
      buffer.resize(want + needle.size());
      const ssize_t n = ::pread(fd, buffer.data(), want + needle.size(), at);  // overlaps the next block
      if (n <= 0) break;
      found = std::string_view(buffer.data(), static_cast<size_t>(n)).find(needle) != std::string_view::npos;
      at += static_cast<off_t>(want);
    }
    data = ::lseek(fd, hole, SEEK_DATA);
  }
  ::close(fd);
  return found;
}

// Where each secret was found: "<what> in <where>".
std::vector<std::string> findSecrets(const std::vector<Secret>& secrets, const std::string& where,
                                     const std::string& text, bool isDefaults = false) {
  std::vector<std::string> found;
  for (const auto& secret : secrets) {
    if (isDefaults && secret.allowedInDefaults) continue;
    if (text.find(secret.value) != std::string::npos) found.push_back(secret.what + " in " + where);
  }
  return found;
}

// The services' environment of a run: no Secret Service, so passwords go to the file store
// inside the home folder rather than into the keyring of whoever runs the tests.
const std::map<std::string, std::string> kNoKeyring = {{"DBUS_SESSION_BUS_ADDRESS", ""}};

class NoSecretTest : public ::testing::Test {
 protected:
  ChildRun run(const std::vector<std::string>& arguments, const std::string& input = "",
               std::map<std::string, std::string> environment = kNoKeyring,
               const std::function<void(pid_t)>& whileRunning = {}) {
    for (const auto& [name, value] : kNoKeyring) environment.emplace(name, value);
    auto result = runLectern(scratch_.path(), home_, arguments, input, environment, whileRunning);
    printed_ += result.out + result.err;
    return result;
  }
  void config(const std::string& key, const std::string& value) {
    auto set = run({"config", "set", key, value});
    ASSERT_EQ(set.exit, 0) << set.err;
  }

  TempDir scratch_;
  fs::path home_ = scratch_ / "home";
  std::string printed_;  // everything every run printed
};

TEST_F(NoSecretTest, NoPasswordTokenOrConsumerSecretIsLeftOutsideTheSecretStore) {
  mock::FeedbinMockServer feedbin("me@example.org", "feedbin-pass-Zq81x");
  mock::FeverMockServer fever("me", "fever-pass-Kd72y", mock::FeverFlavour::kTextIds, "/api/fever.php");
  mock::FeedWranglerMockServer feedwrangler("me@example.org", "wrangler-pass-Lm93z", "lectern-client-key");
  mock::NewsBlurMockServer newsblur("me", "newsblur-pass-Rt54w");
  mock::InstapaperMockServer instapaper("reader@example.org", "instapaper-pass-Wx65v", "ip-consumer-key",
                                        "ip-consumer-secret-Hb47u");
  mock::PinboardMockServer pinboard("maria", "pinboard-pass-Yc36t");
  mock::PocketMockServer pocket("pocket-consumer-key", "pocketuser");
  mock::FeedlyMockServer feedly("feedly-client-id", "feedly-client-secret-Nv28s");
  feedbin.seed(2, 3, 2, 2);
  fever.seed(2, 3, 2, 2);
  feedwrangler.seed(2, 3, 2, 2);
  newsblur.seed(2, 3, 2, 2);
  instapaper.seed(1, 3, 2);
  pinboard.seed(3, 2, 2);
  pocket.seed(2, 1, 2);
  feedly.seed(2, 3, 2, 0);

  fs::create_directories(home_);
  config("pinboardCallInterval", "0");
  config("pinboardAllPostsInterval", "0");
  config("feedwranglerClientKey", "lectern-client-key");
  config("newsblurApiEndpoint", newsblur.baseURL());
  config("instapaperConsumerKey", instapaper.consumerKey());
  config("instapaperConsumerSecret", instapaper.consumerSecret());
  config("pocketConsumerKey", pocket.consumerKey());
  config("feedlyClientId", feedly.clientId());
  config("feedlyClientSecret", feedly.clientSecret());

  // A wrong password typed once is a secret too.
  EXPECT_EQ(run({"account", "add", "feedbin", "--username", "me@example.org", "--password-stdin", "--endpoint",
                 feedbin.baseURL()},
                "typo-pass-Gz11r\n")
                .exit,
            1);
  struct Add {
    std::vector<std::string> arguments;
    std::string input;
  };
  const std::vector<Add> adds = {
      {{"feedbin", "--username", "me@example.org", "--password-stdin", "--endpoint", feedbin.baseURL()},
       "feedbin-pass-Zq81x\n"},
      {{"fever", "--username", "me", "--password-stdin", "--endpoint", fever.endpoint()}, "fever-pass-Kd72y\n"},
      {{"feedwrangler", "--username", "me@example.org", "--password-stdin", "--endpoint", feedwrangler.baseURL()},
       "wrangler-pass-Lm93z\n"},
      {{"newsblur", "--username", "me", "--password-stdin"}, "newsblur-pass-Rt54w\n"},
      {{"instapaper", "--username", "reader@example.org", "--password-stdin", "--endpoint", instapaper.baseURL()},
       "instapaper-pass-Wx65v\n"},
      {{"pinboard", "--username", "maria", "--password-stdin", "--endpoint", pinboard.baseURL()},
       "pinboard-pass-Yc36t\n"},
      {{"pocket", "--username", "pocketuser", "--password-stdin", "--endpoint", pocket.baseURL()},
       pocket.accessToken() + "\n"},
      {{"feedly", "--token", feedly.developerToken(), "--endpoint", feedly.endpoint()}, ""},
  };
  for (const auto& add : adds) {
    std::vector<std::string> arguments{"account", "add"};
    arguments.insert(arguments.end(), add.arguments.begin(), add.arguments.end());
    auto added = run(arguments, add.input, {{"BROWSER", "false"}});
    ASSERT_EQ(added.exit, 0) << add.arguments[0] << ": " << added.err;
  }
  ASSERT_EQ(run({"account", "list", "--json"}).exit, 0);
  auto synced = run({"--verbose", "sync", "--json"});
  ASSERT_EQ(synced.exit, 0) << synced.out << synced.err;
  auto listed = run({"list", "--json", "--limit", "0"});
  ASSERT_EQ(listed.exit, 0) << listed.err;
  ASSERT_EQ(run({"--verbose", "sync"}).exit, 0);
  ASSERT_EQ(run({"config", "list"}).exit, 0);

  const std::vector<Secret> secrets = {
      {"Feedbin password", "feedbin-pass-Zq81x"},
      {"Feedbin Basic credentials", base64("me@example.org:feedbin-pass-Zq81x")},
      {"mistyped password", "typo-pass-Gz11r"},
      {"Fever password", "fever-pass-Kd72y"},
      {"Fever API key", md5Hex("me:fever-pass-Kd72y")},
      {"Feed Wrangler password", "wrangler-pass-Lm93z"},
      {"Feed Wrangler token", feedwrangler.accessToken()},
      {"NewsBlur password", "newsblur-pass-Rt54w"},
      {"NewsBlur session cookie", "newsblur_sessionid"},
      {"Instapaper password", "instapaper-pass-Wx65v"},
      {"Instapaper token", instapaper.issuedToken()},
      {"Instapaper token secret", instapaper.issuedTokenSecret()},
      {"Instapaper consumer secret", "ip-consumer-secret-Hb47u", true},
      {"Pinboard password", "pinboard-pass-Yc36t"},
      {"Pinboard Basic credentials", base64("maria:pinboard-pass-Yc36t")},
      {"Pinboard API token", pinboard.apiToken()},
      {"Pocket access token", pocket.accessToken()},
      {"Feedly access token", feedly.currentAccessToken()},
      {"Feedly client secret", "feedly-client-secret-Nv28s", true},
  };
  for (const auto& secret : secrets) ASSERT_GE(secret.value.size(), 8u) << secret.what;

  std::vector<std::string> found = findSecrets(secrets, "what the program printed", printed_);
  int searched = 0;
  bool sawSecretStore = false;
  for (const auto& entry : fs::recursive_directory_iterator(home_)) {
    if (!entry.is_regular_file()) continue;
    if (entry.path().filename() == "secrets.json") {
      sawSecretStore = true;
      continue;
    }
    ++searched;
    const auto relative = fs::relative(entry.path(), home_).string();
    auto inFile = findSecrets(secrets, relative, readFile(entry.path()), entry.path().filename() == "defaults.json");
    found.insert(found.end(), inFile.begin(), inFile.end());
  }
  EXPECT_TRUE(sawSecretStore) << "the file secret store was not used: the test would miss nothing";
  EXPECT_GE(searched, 3);  // at least the store, the defaults and the log
  EXPECT_THAT(found, ::testing::IsEmpty());
}

// The core of a live program would hold the secrets it works with, so the program writes none.
// The kernel sets the "core dumped" flag of the wait status only when a core was written,
// wherever core_pattern sends it (a file, or a pipe to a collector), so the test needs no
// particular pattern; when the pattern is a plain file it also looks for the file.
TEST_F(NoSecretTest, ACrashedProgramLeavesNoCore) {
  mock::FeedbinMockServer feedbin("me@example.org", "feedbin-pass-Zq81x");
  feedbin.seed(2, 3, 2, 2);
  fs::create_directories(home_);
  ASSERT_EQ(run({"account", "add", "feedbin", "--username", "me@example.org", "--password-stdin", "--endpoint",
                 feedbin.baseURL()},
                "feedbin-pass-Zq81x\n")
                .exit,
            0);
  const std::string credentials = base64("me@example.org:feedbin-pass-Zq81x");

  // Let this process's children write cores as far as the system allows.
  rlimit core{};
  getrlimit(RLIMIT_CORE, &core);
  struct Restore {
    rlimit limit;
    ~Restore() { setrlimit(RLIMIT_CORE, &limit); }
  } restore{core};
  core.rlim_cur = core.rlim_max;
  setrlimit(RLIMIT_CORE, &core);
  const std::string pattern = readFile("/proc/sys/kernel/core_pattern");
  const bool plainFile = !pattern.starts_with("|") && !pattern.starts_with("/");

  // Each crash comes while the program waits for a slow answer: mid-sync, credentials in hand.
  auto crash = [&](int signal, std::map<std::string, std::string> environment) {
    // The mock records a request once answered, so the crash is timed: the program is up and
    // waiting well within two seconds, and the answer takes six.
    feedbin.injectFault("", "", mock::Fault::kSlow, 1, std::chrono::milliseconds(6000));
    // The sanitizers would catch the signal, and turn core dumps off themselves: both left to the program.
    environment["ASAN_OPTIONS"] = "disable_coredump=0:handle_segv=0:handle_abort=0:detect_leaks=0";
    environment["UBSAN_OPTIONS"] = "handle_segv=0:handle_abort=0";
    return run({"sync"}, "", environment, [&](pid_t pid) {
      std::this_thread::sleep_for(std::chrono::seconds(2));
      ::kill(pid, signal);
    });
  };
  auto coreFiles = [&] {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(scratch_.path()))
      if (entry.path().filename().string().starts_with("core")) files.push_back(entry.path());
    return files;
  };

  for (int signal : {SIGSEGV, SIGABRT}) {
    const auto crashed = crash(signal, {});
    EXPECT_EQ(crashed.signal, signal) << "exit " << crashed.exit << ": " << crashed.err;
    EXPECT_FALSE(crashed.coreDumped) << strsignal(signal);
    EXPECT_THAT(coreFiles(), ::testing::IsEmpty()) << strsignal(signal);
  }

  // The developer's override gives the system's behaviour back; where that writes a core file
  // here, the file holds the credentials, which shows what the default spares.
  if (plainFile && core.rlim_max != 0) {
    const auto crashed = crash(SIGSEGV, {{"LECTERN_CORE_DUMPS", "1"}});
    EXPECT_EQ(crashed.signal, SIGSEGV);
    EXPECT_TRUE(crashed.coreDumped);
    const auto files = coreFiles();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_TRUE(fileContains(files[0], credentials));
    fs::remove(files[0]);
  } else {
    std::printf("[ skipped  ] the core file check with LECTERN_CORE_DUMPS=1: core_pattern is \"%s\"\n",
                pattern.c_str());
  }
}

}  // namespace
}  // namespace lectern::test
