// `mock-server SERVICE [options]`: one of Lectern's local service stand-ins on 127.0.0.1 until
// SIGINT or SIGTERM, for trying Lectern by hand and for benchmarks. One subcommand per service.
#include <fmt/format.h>
#include <pthread.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>

#include "mocks/FeedWranglerMockServer.h"
#include "mocks/FeedbinMockServer.h"
#include "mocks/FeverMockServer.h"
#include "mocks/NewsBlurMockServer.h"

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

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Runs a local stand-in for a sync service on 127.0.0.1 until SIGINT or SIGTERM.",
               "mock-server"};
  app.require_subcommand(1, 1);
  const sigset_t signals = stopSignals();
  std::function<int()> run;

  FeedbinOptions feedbin;
  addFeedbinCommand(app, feedbin, run, signals);
  FeedWranglerOptions feedWrangler;
  addFeedWranglerCommand(app, feedWrangler, run, signals);

  FeverOptions fever;
  addFeverCommand(app, fever, run, signals);
  NewsBlurOptions newsBlur;
  addNewsBlurCommand(app, newsBlur, run, signals);

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
