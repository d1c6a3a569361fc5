// `mock-server SERVICE [options]`: one of Lectern's local service stand-ins on 127.0.0.1 until
// SIGINT or SIGTERM, for trying Lectern by hand and for benchmarks. One subcommand per service,
// and `mock-server browse URL`, the browser of the sign-in tests.
#include <fcntl.h>
#include <fmt/format.h>
#include <httplib.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "mocks/FeedWranglerMockServer.h"
#include "mocks/FeedbinMockServer.h"
#include "mocks/FeedlyMockServer.h"
#include "mocks/FeverMockServer.h"
#include "mocks/InstapaperMockServer.h"
#include "mocks/NewsBlurMockServer.h"
#include "mocks/PinboardMockServer.h"
#include "mocks/PocketMockServer.h"

extern char** environ;

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
const CLI::Range kCount(0, std::numeric_limits<int>::max());

sigset_t stopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

void waitForStopSignal(const sigset_t& signals) {
  int received = 0;
  sigwait(&signals, &received);
}

struct FeedbinOptions {
  int port = 0;
  std::string username = "me@example.org";
  std::string password = "secret";
  int feeds = 20;
  int entriesPerFeed = 25;
  int unread = 100;
  int starredEvery = 10;
};

void addFeedbinCommand(CLI::App& app, FeedbinOptions& options, std::function<int()>& run,
                       const sigset_t& signals) {
  auto* command = app.add_subcommand("feedbin", "Feedbin API v2 with a seeded account");
  command->add_option("--port", options.port, "Port to listen on (0: any free one)")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  command->add_option("--username", options.username, "Account name for HTTP Basic")->capture_default_str();
  command->add_option("--password", options.password, "Account password for HTTP Basic")
      ->capture_default_str();
  command->add_option("--feeds", options.feeds, "Subscriptions to create")
      ->check(kCount)
      ->capture_default_str();
  command->add_option("--entries-per-feed", options.entriesPerFeed, "Entries in each feed")
      ->check(kCount)
      ->capture_default_str();
  command->add_option("--unread", options.unread, "How many of the newest entries are unread")
      ->check(kCount)
      ->capture_default_str();
  command->add_option("--starred-every", options.starredEvery, "Star every Nth entry (0: none)")
      ->check(kCount)
      ->capture_default_str();
  command->callback([&options, &run, &signals] {
    run = [&options, &signals] {
      std::unique_ptr<lectern::mock::FeedbinMockServer> server;
      try {
        server = std::make_unique<lectern::mock::FeedbinMockServer>(options.username, options.password,
                                                                    options.port);
      } catch (const std::runtime_error& e) {
        fmt::print(stderr, "mock-server: {}\n", e.what());
        return kExitFailure;
      }
      server->seed(options.feeds, options.entriesPerFeed, options.unread, options.starredEvery);
      fmt::print("Feedbin mock at {} ({} feeds, {} entries, {} unread, {} starred); Ctrl-C stops it.\n",
                 server->baseURL(), server->subscriptions().size(), server->entryCount(),
                 server->unreadEntryIds().size(), server->starredEntryIds().size());
      fmt::print(
          "Add it to Lectern: lectern account add feedbin --username {} --password-stdin --endpoint {}"
          "  (password: {})\n",
          options.username, server->baseURL(), options.password);
      std::fflush(stdout);  // scripts read the address while the server runs
      waitForStopSignal(signals);
      return kExitOk;
    };
  });
}

struct FeverOptions {
  int port = 0;
  std::string username = "me";
  std::string password = "secret";
  bool textIds = false;
  int feeds = 20;
  int itemsPerFeed = 25;
  int unread = 100;
  int savedEvery = 10;
};

void addFeverCommand(CLI::App& app, FeverOptions& options, std::function<int()>& run, const sigset_t& signals) {
  auto* command = app.add_subcommand("fever", "The Fever API with a seeded account");
  command->add_option("--port", options.port, "Port to listen on (0: any free one)")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  command->add_option("--username", options.username, "User name of the API key")->capture_default_str();
  command->add_option("--password", options.password, "Password of the API key")->capture_default_str();
  command->add_flag("--text-ids", options.textIds,
                    "Answer as a server that writes ids and flags as text, at /api/fever.php (else numbers and "
                    "toggled stars, at /fever/)");
  command->add_option("--feeds", options.feeds, "Feeds to create")->check(kCount)->capture_default_str();
  command->add_option("--items-per-feed", options.itemsPerFeed, "Items in each feed")
      ->check(kCount)
      ->capture_default_str();
  command->add_option("--unread", options.unread, "How many of the newest items are unread")
      ->check(kCount)
      ->capture_default_str();
  command->add_option("--saved-every", options.savedEvery, "Save every Nth item (0: none)")
      ->check(kCount)
      ->capture_default_str();
  command->callback([&options, &run, &signals] {
    run = [&options, &signals] {
      using lectern::mock::FeverFlavour;
      std::unique_ptr<lectern::mock::FeverMockServer> server;
      try {
        server = std::make_unique<lectern::mock::FeverMockServer>(
            options.username, options.password,
            options.textIds ? FeverFlavour::kTextIds : FeverFlavour::kNumbersAndToggledStars,
            options.textIds ? "/api/fever.php" : "/fever/", options.port);
      } catch (const std::runtime_error& e) {
        fmt::print(stderr, "mock-server: {}\n", e.what());
        return kExitFailure;
      }
      server->seed(options.feeds, options.itemsPerFeed, options.unread, options.savedEvery);
      fmt::print("Fever mock at {} ({} unread, {} saved); Ctrl-C stops it.\n", server->endpoint(),
                 server->unreadItemIds().size(), server->savedItemIds().size());
      fmt::print("Add it to Lectern: lectern account add fever --username {} --password-stdin --endpoint {}"
                 "  (password: {})\n",
                 options.username, server->endpoint(), options.password);
      std::fflush(stdout);
      waitForStopSignal(signals);
      return kExitOk;
    };
  });
}

struct FeedWranglerOptions {
  int port = 0;
  std::string email = "me@example.org";
  std::string password = "secret";
  std::string clientKey = "lectern-client-key";
  int feeds = 20;
  int itemsPerFeed = 25;
  int unread = 100;
  int starredEvery = 10;
};

void addFeedWranglerCommand(CLI::App& app, FeedWranglerOptions& options, std::function<int()>& run,
                            const sigset_t& signals) {
  auto* command = app.add_subcommand("feedwrangler", "Feed Wrangler API v2 with a seeded account");
  command->add_option("--port", options.port, "Port to listen on (0: any free one)")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  command->add_option("--email", options.email, "Account e-mail address")->capture_default_str();
  command->add_option("--password", options.password, "Account password")->capture_default_str();
  command->add_option("--client-key", options.clientKey, "The client key sign-ins must carry")
      ->capture_default_str();
  command->add_option("--feeds", options.feeds, "Subscriptions to create")
      ->check(kCount)
      ->capture_default_str();
  command->add_option("--items-per-feed", options.itemsPerFeed, "Items in each feed")
      ->check(kCount)
      ->capture_default_str();
  command->add_option("--unread", options.unread, "How many of the newest items are unread")
      ->check(kCount)
      ->capture_default_str();
  command->add_option("--starred-every", options.starredEvery, "Star every Nth item (0: none)")
      ->check(kCount)
      ->capture_default_str();
  command->callback([&options, &run, &signals] {
    run = [&options, &signals] {
      std::unique_ptr<lectern::mock::FeedWranglerMockServer> server;
      try {
        server = std::make_unique<lectern::mock::FeedWranglerMockServer>(options.email, options.password,
                                                                         options.clientKey, options.port);
      } catch (const std::runtime_error& e) {
        fmt::print(stderr, "mock-server: {}\n", e.what());
        return kExitFailure;
      }
      server->seed(options.feeds, options.itemsPerFeed, options.unread, options.starredEvery);
      fmt::print("Feed Wrangler mock at {} ({} feeds, {} items, {} unread, {} starred); Ctrl-C stops it.\n",
                 server->baseURL(), server->subscriptions().size(), server->itemCount(),
                 server->unreadItemIds().size(), server->starredItemIds().size());
      fmt::print(
          "Add it to Lectern: lectern config set feedwranglerClientKey {} && lectern account add "
          "feedwrangler --username {} --password-stdin --endpoint {}  (password: {})\n",
          options.clientKey, options.email, server->baseURL(), options.password);
      std::fflush(stdout);  // scripts read the address while the server runs
      waitForStopSignal(signals);
      return kExitOk;
    };
  });
}

struct PinboardOptions {
  int port = 0;
  std::string username = "me";
  std::string password = "secret";
  int posts = 30;
  int unread = 10;
  int sharedEvery = 3;
  double callInterval = 3;
  double allPostsInterval = 300;
};

void addPinboardCommand(CLI::App& app, PinboardOptions& options, std::function<int()>& run,
                        const sigset_t& signals) {
  auto* command = app.add_subcommand("pinboard", "Pinboard API v1 with seeded posts and the pages they point at");
  command->add_option("--port", options.port, "Port to listen on (0: any free one)")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  command->add_option("--username", options.username, "Account user name")->capture_default_str();
  command->add_option("--password", options.password, "Account password")->capture_default_str();
  command->add_option("--posts", options.posts, "Posts to create")->check(kCount)->capture_default_str();
  command->add_option("--unread", options.unread, "How many of the newest posts are to read")
      ->check(kCount)
      ->capture_default_str();
  command->add_option("--shared-every", options.sharedEvery, "Share every Nth post (0: none)")
      ->check(kCount)
      ->capture_default_str();
  command->add_option("--call-interval", options.callInterval, "Seconds between two calls (429 sooner)")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  command->add_option("--all-posts-interval", options.allPostsInterval,
                      "Seconds between two full lists (429 sooner)")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  command->callback([&options, &run, &signals] {
    run = [&options, &signals] {
      std::unique_ptr<lectern::mock::PinboardMockServer> server;
      try {
        server = std::make_unique<lectern::mock::PinboardMockServer>(options.username, options.password, options.port);
      } catch (const std::runtime_error& e) {
        fmt::print(stderr, "mock-server: {}\n", e.what());
        return kExitFailure;
      }
      server->seed(options.posts, options.unread, options.sharedEvery);
      auto milliseconds = [](double seconds) {
        return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
      };
      server->setLimits({milliseconds(options.callInterval), milliseconds(options.allPostsInterval)});
      fmt::print("Pinboard mock at {} ({} posts, {} to read; a call every {} s, the full list every {} s); "
                 "Ctrl-C stops it.\n",
                 server->baseURL(), server->posts().size(), options.unread, options.callInterval,
                 options.allPostsInterval);
      fmt::print("Add it to Lectern: lectern account add pinboard --username {} --password-stdin --endpoint {}  "
                 "(password: {})\n",
                 options.username, server->baseURL(), options.password);
      std::fflush(stdout);  // scripts read the address while the server runs
      waitForStopSignal(signals);
      return kExitOk;
    };
  });
}

struct FeedlyOptions {
  int port = 0;
  std::string clientId = "lectern-test-client";
  std::string clientSecret = "lectern-test-secret";
  std::int64_t expiresIn = 604'800;
  int feeds = 20;
  int entriesPerFeed = 25;
  int unread = 100;
  int savedEvery = 10;
};

void addFeedlyCommand(CLI::App& app, FeedlyOptions& options, std::function<int()>& run,
                      const sigset_t& signals) {
  auto* command = app.add_subcommand("feedly", "Feedly cloud API v3 with OAuth sign-in and a seeded account");
  command->add_option("--port", options.port, "Port to listen on (0: any free one)")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  command->add_option("--client-id", options.clientId, "OAuth client id sign-ins must carry")
      ->capture_default_str();
  command
      ->add_option("--client-secret", options.clientSecret, "OAuth client secret token requests must carry")
      ->capture_default_str();
  command->add_option("--expires-in", options.expiresIn, "Lifetime of issued access tokens, in seconds")
      ->check(CLI::Range(std::int64_t{1}, std::numeric_limits<std::int64_t>::max() / 1000))
      ->capture_default_str();
  command->add_option("--feeds", options.feeds, "Subscriptions to create")
      ->check(kCount)
      ->capture_default_str();
  command->add_option("--entries-per-feed", options.entriesPerFeed, "Entries in each feed")
      ->check(kCount)
      ->capture_default_str();
  command->add_option("--unread", options.unread, "How many of the newest entries are unread")
      ->check(kCount)
      ->capture_default_str();
  command->add_option("--saved-every", options.savedEvery, "Save every Nth entry (0: none)")
      ->check(kCount)
      ->capture_default_str();
  command->callback([&options, &run, &signals] {
    run = [&options, &signals] {
      std::unique_ptr<lectern::mock::FeedlyMockServer> server;
      try {
        server = std::make_unique<lectern::mock::FeedlyMockServer>(options.clientId, options.clientSecret,
                                                                   options.port);
      } catch (const std::runtime_error& e) {
        fmt::print(stderr, "mock-server: {}\n", e.what());
        return kExitFailure;
      }
      server->setExpiresIn(options.expiresIn);
      server->seed(options.feeds, options.entriesPerFeed, options.unread, options.savedEvery);
      fmt::print("Feedly mock at {} ({} feeds, {} entries, {} unread, {} saved, user {}); Ctrl-C stops it.\n",
                 server->endpoint(), server->subscriptionsJson().size(), server->entryCount(),
                 server->unreadIds().size(), server->savedIds().size(), server->userId());
      fmt::print(
          "Add it to Lectern: lectern config set feedlyClientId {} && lectern config set feedlyClientSecret "
          "{} && "
          "lectern account add feedly --endpoint {}\n",
          options.clientId, options.clientSecret, server->endpoint());
      fmt::print("Or with a developer token: lectern account add feedly --endpoint {} --token {}\n",
                 server->endpoint(), server->developerToken());
      std::fflush(stdout);  // scripts read the address while the server runs
      waitForStopSignal(signals);
      return kExitOk;
    };
  });
}

struct InstapaperOptions {
  int port = 0;
  std::string username = "reader@example.org";
  std::string password = "secret";
  std::string consumerKey = "lectern-consumer-key";
  std::string consumerSecret = "lectern-consumer-secret";
  int folders = 3;
  int bookmarks = 40;
  int starredEvery = 7;
};

void addInstapaperCommand(CLI::App& app, InstapaperOptions& options, std::function<int()>& run,
                          const sigset_t& signals) {
  auto* command = app.add_subcommand("instapaper", "Instapaper full API v1 (xAuth, OAuth 1.0a) with a seeded account");
  command->add_option("--port", options.port, "Port to listen on (0: any free one)")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  command->add_option("--username", options.username, "Account user name")->capture_default_str();
  command->add_option("--password", options.password, "Account password")->capture_default_str();
  command->add_option("--consumer-key", options.consumerKey, "The consumer key requests must be signed with")
      ->capture_default_str();
  command->add_option("--consumer-secret", options.consumerSecret, "The consumer secret requests must be signed with")
      ->capture_default_str();
  command->add_option("--folders", options.folders, "Folders of the person's own")->check(kCount)->capture_default_str();
  command->add_option("--bookmarks", options.bookmarks, "Bookmarks spread over the folders")
      ->check(kCount)
      ->capture_default_str();
  command->add_option("--starred-every", options.starredEvery, "Star every Nth bookmark (0: none)")
      ->check(kCount)
      ->capture_default_str();
  command->callback([&options, &run, &signals] {
    run = [&options, &signals] {
      std::unique_ptr<lectern::mock::InstapaperMockServer> server;
      try {
        server = std::make_unique<lectern::mock::InstapaperMockServer>(
            options.username, options.password, options.consumerKey, options.consumerSecret, options.port);
      } catch (const std::runtime_error& e) {
        fmt::print(stderr, "mock-server: {}\n", e.what());
        return kExitFailure;
      }
      server->seed(options.folders, options.bookmarks, options.starredEvery);
      fmt::print("Instapaper mock at {} ({} folders, {} bookmarks); Ctrl-C stops it.\n", server->baseURL(),
                 server->folders().size(), server->bookmarks().size());
      fmt::print(
          "Add it to Lectern: lectern config set instapaperConsumerKey {} && lectern config set "
          "instapaperConsumerSecret {} && lectern account add instapaper --username {} --password-stdin "
          "--endpoint {}  (password: {})\n",
          options.consumerKey, options.consumerSecret, options.username, server->baseURL(), options.password);
      std::fflush(stdout);  // scripts read the address while the server runs
      waitForStopSignal(signals);
      return kExitOk;
    };
  });
}

struct NewsBlurOptions {
  int port = 0;
  std::string username = "me";
  std::string password = "secret";
  int feeds = 20;
  int storiesPerFeed = 25;
  int unread = 100;
  int starredEvery = 10;
};

void addNewsBlurCommand(CLI::App& app, NewsBlurOptions& options, std::function<int()>& run,
                        const sigset_t& signals) {
  auto* command = app.add_subcommand("newsblur", "NewsBlur web API with a seeded account");
  command->add_option("--port", options.port, "Port to listen on (0: any free one)")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  command->add_option("--username", options.username, "Account user name")->capture_default_str();
  command->add_option("--password", options.password, "Account password (may be empty)")->capture_default_str();
  command->add_option("--feeds", options.feeds, "Feeds to subscribe to")->check(kCount)->capture_default_str();
  command->add_option("--stories-per-feed", options.storiesPerFeed, "Stories in each feed")
      ->check(kCount)
      ->capture_default_str();
  command->add_option("--unread", options.unread, "How many of the newest stories are unread")
      ->check(kCount)
      ->capture_default_str();
  command->add_option("--starred-every", options.starredEvery, "Star every Nth story (0: none)")
      ->check(kCount)
      ->capture_default_str();
  command->callback([&options, &run, &signals] {
    run = [&options, &signals] {
      std::unique_ptr<lectern::mock::NewsBlurMockServer> server;
      try {
        server = std::make_unique<lectern::mock::NewsBlurMockServer>(options.username, options.password,
                                                                     options.port);
      } catch (const std::runtime_error& e) {
        fmt::print(stderr, "mock-server: {}\n", e.what());
        return kExitFailure;
      }
      server->seed(options.feeds, options.storiesPerFeed, options.unread, options.starredEvery);
      fmt::print("NewsBlur mock at {} ({} feeds, {} unread, {} starred); Ctrl-C stops it.\n", server->baseURL(),
                 server->feedIds().size(), server->unreadHashes().size(), server->starredHashes().size());
      fmt::print("Add it to Lectern: lectern account add newsblur --username {} --password-stdin --endpoint {}  "
                 "(password: {})\n",
                 options.username, server->baseURL(), options.password);
      std::fflush(stdout);  // scripts read the address while the server runs
      waitForStopSignal(signals);
      return kExitOk;
    };
  });
}

struct PocketOptions {
  int port = 0;
  std::string consumerKey = "lectern-consumer-key";
  std::string username = "pocketuser";
  int unread = 60;
  int archived = 20;
  int favoriteEvery = 7;
};

void addPocketCommand(CLI::App& app, PocketOptions& options, std::function<int()>& run, const sigset_t& signals) {
  auto* command = app.add_subcommand("pocket", "Pocket API v3 with its browser sign-in and a seeded list");
  command->add_option("--port", options.port, "Port to listen on (0: any free one)")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  command->add_option("--consumer-key", options.consumerKey, "The consumer key calls must carry")
      ->capture_default_str();
  command->add_option("--username", options.username, "The account's name")->capture_default_str();
  command->add_option("--unread", options.unread, "Items in the list")->check(kCount)->capture_default_str();
  command->add_option("--archived", options.archived, "Items in the archive")->check(kCount)->capture_default_str();
  command->add_option("--favorite-every", options.favoriteEvery, "Favourite every Nth item (0: none)")
      ->check(kCount)
      ->capture_default_str();
  command->callback([&options, &run, &signals] {
    run = [&options, &signals] {
      std::unique_ptr<lectern::mock::PocketMockServer> server;
      try {
        server = std::make_unique<lectern::mock::PocketMockServer>(options.consumerKey, options.username,
                                                                   options.port);
      } catch (const std::runtime_error& e) {
        fmt::print(stderr, "mock-server: {}\n", e.what());
        return kExitFailure;
      }
      server->seed(options.unread, options.archived, options.favoriteEvery);
      fmt::print("Pocket mock at {} ({} items, {} unread); Ctrl-C stops it.\n", server->baseURL(),
                 server->items().size(), options.unread);
      fmt::print(
          "Add it to Lectern: lectern config set pocketConsumerKey {} && lectern account add pocket --endpoint {} "
          "--redirect loopback  (the sign-in page agrees at once)\n",
          options.consumerKey, server->baseURL());
      std::fflush(stdout);  // scripts read the address while the server runs
      waitForStopSignal(signals);
      return kExitOk;
    };
  });
}

struct BrowseOptions {
  std::string lectern = "lectern";
  std::string home;
  std::string url;
};

// "http://host:port" and "/path?query" of an absolute http(s) address.
std::optional<std::pair<std::string, std::string>> splitAddress(const std::string& url) {
  for (std::string_view scheme : {"http://", "https://"}) {
    if (!url.starts_with(scheme)) continue;
    auto slash = url.find('/', scheme.size());
    auto query = url.find('?', scheme.size());
    auto end = std::min(slash, query);
    if (end == scheme.size()) return std::nullopt;
    std::string path = end == std::string::npos ? "/" : url.substr(end);
    if (path.starts_with("?")) path.insert(0, "/");
    return std::pair(url.substr(0, end), path);
  }
  return std::nullopt;
}

httplib::Result fetch(const std::string& url) {
  auto parts = splitAddress(url);
  if (!parts) return httplib::Result(nullptr, httplib::Error::Unknown);
  httplib::Client client(parts->first);
  client.set_follow_location(false);
  client.set_connection_timeout(std::chrono::seconds(10));
  client.set_read_timeout(std::chrono::seconds(60));
  return client.Get(parts->second);
}

// A program started in the background may lack the standard descriptors; a socket or the child
// would otherwise get them.
void ensureStandardDescriptors() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) == -1) {
      int opened = open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY);
      if (opened >= 0 && opened != fd) {
        dup2(opened, fd);
        close(opened);
      }
    }
  }
}

// Runs `lectern [--home DIR] open-url LOCATION` as a desktop would for a custom scheme.
int openInLectern(const BrowseOptions& options, const std::string& location) {
  std::vector<std::string> words{options.lectern};
  if (!options.home.empty()) words.insert(words.end(), {"--home", options.home});
  words.insert(words.end(), {"open-url", location});
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  // The child must not inherit the blocked stop signals.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  sigset_t defaults = stopSignals();
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t child = 0;
  int error = options.lectern.find('/') == std::string::npos
                  ? posix_spawnp(&child, argv[0], nullptr, &attributes, argv.data(), environ)
                  : posix_spawn(&child, argv[0], nullptr, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) {
    fmt::print(stderr, "browse: cannot run {}: {}\n", options.lectern, std::strerror(error));
    return kExitFailure;
  }
  int status = 0;
  while (waitpid(child, &status, 0) == -1) {
    if (errno != EINTR) return kExitFailure;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : kExitFailure;
}

int browse(const BrowseOptions& options) {
  ensureStandardDescriptors();
  std::signal(SIGPIPE, SIG_IGN);
  if (!splitAddress(options.url)) {
    fmt::print(stderr, "browse: {} is not an http(s) address\n", options.url);
    return kExitUsage;
  }
  auto first = fetch(options.url);
  if (!first) {
    fmt::print(stderr, "browse: {}: {}\n", options.url, httplib::to_string(first.error()));
    return kExitFailure;
  }
  const int status = first->status;
  if (status < 300 || status >= 400 || !first->has_header("Location")) {
    fmt::print("{} answered {} without a redirect\n", options.url, status);
    return kExitFailure;
  }
  const auto location = first->get_header_value("Location");
  fmt::print("{} redirected ({}) to {}\n", options.url, status, location);
  std::fflush(stdout);
  if (!splitAddress(location)) return openInLectern(options, location);
  auto second = fetch(location);
  if (!second) {
    fmt::print(stderr, "browse: {}: {}\n", location, httplib::to_string(second.error()));
    return kExitFailure;
  }
  fmt::print("{} answered {}\n", location, second->status);
  return second->status >= 200 && second->status < 300 ? kExitOk : kExitFailure;
}

void addBrowseCommand(CLI::App& app, BrowseOptions& options, std::function<int()>& run) {
  auto* command = app.add_subcommand(
      "browse",
      "A stand-in web browser for sign-in tests: opens URL, follows one redirect to a loopback address, or "
      "hands a custom-scheme one to `lectern open-url`");
  command->add_option("--lectern", options.lectern, "The lectern program for custom-scheme redirects")
      ->capture_default_str();
  command->add_option("--home", options.home, "Passed to lectern as --home");
  command->add_option("url", options.url, "http://127.0.0.1:PORT/path?query")->required();
  command->callback([&options, &run] { run = [&options] { return browse(options); }; });
}
}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Runs a local stand-in for a sync service on 127.0.0.1 until SIGINT or SIGTERM.",
               "mock-server"};
  app.require_subcommand(1, 1);
  const sigset_t signals = stopSignals();
  std::function<int()> run;

  FeedbinOptions feedbin;
  addFeedbinCommand(app, feedbin, run, signals);
  FeedlyOptions feedly;
  addFeedlyCommand(app, feedly, run, signals);
  FeedWranglerOptions feedWrangler;
  addFeedWranglerCommand(app, feedWrangler, run, signals);
  FeverOptions fever;
  addFeverCommand(app, fever, run, signals);
  InstapaperOptions instapaper;
  addInstapaperCommand(app, instapaper, run, signals);
  NewsBlurOptions newsBlur;
  addNewsBlurCommand(app, newsBlur, run, signals);
  PinboardOptions pinboard;
  addPinboardCommand(app, pinboard, run, signals);
  PocketOptions pocket;
  addPocketCommand(app, pocket, run, signals);
  BrowseOptions browseOptions;
  addBrowseCommand(app, browseOptions, run);

  app.footer("Exit codes: 0 stopped by a signal, 1 failure, 2 usage error.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kExitUsage;
  }
  // A shell starts background jobs with SIGINT ignored, and an ignored signal never reaches
  // sigwait; scripts stop the server with it.
  std::signal(SIGINT, SIG_DFL);
  std::signal(SIGTERM, SIG_DFL);
  // Blocked before any server thread starts, so that the threads inherit the mask and only
  // sigwait receives the signals.
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return run ? run() : kExitUsage;
}
