// `lectern feed ...`: feed documents from the command line.
#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "app/cli/Cli.h"
#include "core/Dates.h"
#include "core/Log.h"
#include "feeds/FeedDiscovery.h"
#include "feeds/FeedDocumentParser.h"
#include "feeds/QKFeedParserClient.h"
#include "feeds/RSSFeedJson.h"
#include "feeds/RSSParser.h"
#include "feeds/RSSParserURL.h"

namespace lectern::cli {
namespace {

enum class FeedParserKind { kDictionary, kStream };
enum class FeedOutput { kText, kJson };

struct FeedParseOptions {
  std::string source;
  bool stream = false;
  bool json = false;
};

// A source is a file when one exists by that name or it names a document ("feed.xml"); otherwise
// it is an address, a bare host getting "https://".
std::optional<std::string> feedAddress(const std::string& source) {
  if (hasURLScheme(source)) return source;
  std::error_code ec;
  if (std::filesystem::exists(source, ec)) return std::nullopt;
  const std::string_view first = std::string_view(source).substr(0, source.find('/'));
  const std::string extension = std::filesystem::path(std::string(first)).extension().string();
  for (const char* document : {".xml", ".rss", ".atom", ".rdf", ".html", ".htm", ".txt", ".json", ".opml"}) {
    if (first == source && extension == document) return std::nullopt;
  }
  if (first.find('.') == std::string_view::npos && !first.starts_with("localhost")) return std::nullopt;
  return normalizedFeedAddress(source);
}

void printText(const RSSFeed& feed) {
  const auto line = [](std::string_view label, const std::optional<std::string>& value) {
    if (value && !value->empty()) fmt::print("{}: {}\n", label, *value);
  };
  const char* type = !feed.type ? "unknown" : *feed.type == RSSFeedType::kAtom ? "Atom" : "RSS";
  fmt::print("Feed: {} ({})\n", feed.title.value_or(""), type);
  line("Link", feed.url);
  line("Description", feed.descriptionText);
  line("Author", feed.author);
  line("Language", feed.language);
  if (feed.date) fmt::print("Updated: {}\n", rfc3339String(*feed.date));
  if (feed.validTime && *feed.validTime > 0) fmt::print("Time to live: {} min\n", *feed.validTime);
  fmt::print("{} article{}\n", feed.articles.size(), feed.articles.size() == 1 ? "" : "s");
  int index = 0;
  for (const auto& entry : feed.articles) {
    fmt::print("\n{}. {}\n", ++index, entry.title.value_or(""));
    if (entry.url && !entry.url->empty()) fmt::print("   {}\n", *entry.url);
    std::string details = entry.date ? rfc3339String(*entry.date) : std::string();
    if (entry.author && !entry.author->empty()) details += (details.empty() ? "" : "  ") + *entry.author;
    if (!details.empty()) fmt::print("   {}\n", details);
    if (entry.attachedMedia && entry.attachedMedia->url) {
      fmt::print("   enclosure: {} ({})\n", *entry.attachedMedia->url,
                 entry.attachedMedia->type.value_or("?"));
    }
  }
}

// "attachedMedia" -> "attached_media": the program's JSON keys are snake_case throughout.
nlohmann::ordered_json snakeCaseKeys(const nlohmann::ordered_json& value) {
  if (value.is_array()) {
    nlohmann::ordered_json out = nlohmann::ordered_json::array();
    for (const auto& item : value) out.push_back(snakeCaseKeys(item));
    return out;
  }
  if (!value.is_object()) return value;
  nlohmann::ordered_json out = nlohmann::ordered_json::object();
  for (const auto& [key, item] : value.items()) {
    std::string snake;
    for (const char c : key) {
      if (c >= 'A' && c <= 'Z') {
        if (!snake.empty()) snake += '_';
        snake += static_cast<char>(c - 'A' + 'a');
      } else {
        snake += c;
      }
    }
    out[snake] = snakeCaseKeys(item);
  }
  return out;
}

int printFeed(const Result<RSSFeed>& feed, FeedOutput output) {
  if (!feed) {
    printError(feed.error());
    return kExitFailure;
  }
  if (output == FeedOutput::kJson) {
    fmt::print("{}\n",
               snakeCaseKeys(rssFeedToJson(*feed)).dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
  } else {
    printText(*feed);
  }
  return kExitOk;
}

Result<std::string> readDocument(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (!file) return fail(kLecternErrorDomain, errno, "Couldn't read " + path, std::strerror(errno));
  std::string bytes;
  std::error_code ec;
  if (const auto size = std::filesystem::file_size(path, ec); !ec)
    bytes.reserve(static_cast<std::size_t>(size));
  char buffer[64 * 1024];
  std::size_t n = 0;
  while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) bytes.append(buffer, n);
  const bool failed = std::ferror(file) != 0;
  std::fclose(file);
  if (failed) return fail(kLecternErrorDomain, EIO, "Couldn't read " + path, std::strerror(EIO));
  return bytes;
}

// The dictionary parser fetches through QKFeedParserClient, as a subscription does; the stream
// parser downloads first and parses after.
Result<RSSFeed> fetchFeed(AppEnvironment& environment, const std::string& url, FeedParserKind parser) {
  if (parser == FeedParserKind::kStream) {
    auto stream = rssParserWithURL(environment.network(), url);
    if (!stream) return fail(stream.error());
    return stream->fetch();
  }
  QKFeedParserClient client(environment.network(), url);
  std::optional<Result<RSSFeed>> outcome;
  client.fetchFeed([&outcome](Result<RSSFeed> feed) { outcome = std::move(feed); });
  environment.mainQueue().runUntil([&outcome] { return outcome.has_value(); });
  return std::move(*outcome);
}

int runFeedParse(CliContext& context, const FeedParseOptions& options) {
  const FeedParserKind parser = options.stream ? FeedParserKind::kStream : FeedParserKind::kDictionary;
  const FeedOutput output = options.json ? FeedOutput::kJson : FeedOutput::kText;
  if (const auto url = feedAddress(options.source)) {
    if (refusedOffline(context, "Fetching a feed")) return kExitFailure;
    auto environment = context.environment();
    if (!environment) {
      printError(environment.error());
      return kExitFailure;
    }
    return printFeed(fetchFeed(**environment, *url, parser), output);
  }
  // A local file needs no environment: without --verbose nothing but the file is touched.
  if (context.options.verbose) {
    LogSettings settings;
    settings.mirrorToStderr = true;
    settings.minimumLevel = LogLevel::kDebug;
    Log::configure(settings);
  }
  auto bytes = readDocument(options.source);
  if (!bytes) {
    printError(bytes.error());
    return kExitFailure;
  }
  return printFeed(parser == FeedParserKind::kStream ? RSSParser::withData(std::move(*bytes)).fetch()
                                                     : FeedDocumentParser::parseFeedData(*bytes, SystemClock().now()),
                   output);
}

}  // namespace

void addFeedCommands(CLI::App& app, CliContext& context) {
  CLI::App* feed = app.add_subcommand("feed", "Feed documents: parse RSS and Atom");
  feed->require_subcommand(1);

  auto options = std::make_shared<FeedParseOptions>();
  CLI::App* parse = feed->add_subcommand("parse", "Parse a feed document and print what it holds");
  parse->add_option("source", options->source,
                    "The feed: a file, or an http(s) address (a bare host gets \"https://\")")
      ->required()
      ->type_name("FILE|URL");
  parse->add_flag("--stream", options->stream, "Use the event-driven parser instead of the dictionary one");
  parse->add_flag("--json", options->json,
                  "Print one JSON object with the fields of the feed and its articles (null: never set)");
  parse->footer("Exit codes: 0 parsed, 1 the document could not be read, fetched or parsed, 2 usage error.");
  context.onCommand(parse, [&context, options] { return runFeedParse(context, *options); });
}

}  // namespace lectern::cli
