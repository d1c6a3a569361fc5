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
#include "feeds/FeedDocumentParser.h"
#include "feeds/RSSFeedJson.h"
#include "feeds/RSSParser.h"

namespace lectern::cli {
namespace {

enum class FeedParserKind { kDictionary, kStream };
enum class FeedOutput { kText, kJson };

struct FeedParseOptions {
  std::string source;
  bool stream = false;
  bool json = false;
};

bool looksLikeURL(std::string_view source) {
  return source.starts_with("http://") || source.starts_with("https://") || source.starts_with("feed://");
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

// Parses one feed document and prints it. Whatever supplies the bytes (a file now, a download
// later) ends here.
int printFeedDocument(std::string bytes, FeedParserKind parser, FeedOutput output) {
  Result<RSSFeed> feed = parser == FeedParserKind::kStream
                             ? RSSParser::withData(std::move(bytes)).fetch()
                             : FeedDocumentParser::parseFeedData(bytes, SystemClock().now());
  if (!feed) {
    printError(feed.error());
    return kExitFailure;
  }
  if (output == FeedOutput::kJson) {
    fmt::print("{}\n",
               rssFeedToJson(*feed).dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
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

int runFeedParse(const CliContext& context, const FeedParseOptions& options) {
  if (context.options.verbose) {
    LogSettings settings;
    settings.mirrorToStderr = true;
    Log::configure(settings);
  }
  if (looksLikeURL(options.source)) {
    printError(Error::make(
        kLecternErrorDomain, 1, "Cannot fetch " + options.source,
        "This version of lectern parses feeds from files only; save the feed and pass its path."));
    return kExitFailure;
  }
  auto bytes = readDocument(options.source);
  if (!bytes) {
    printError(bytes.error());
    return kExitFailure;
  }
  return printFeedDocument(std::move(*bytes),
                           options.stream ? FeedParserKind::kStream : FeedParserKind::kDictionary,
                           options.json ? FeedOutput::kJson : FeedOutput::kText);
}

}  // namespace

void addFeedCommands(CLI::App& app, CliContext& context) {
  CLI::App* feed = app.add_subcommand("feed", "Feed documents: parse RSS and Atom");
  feed->require_subcommand(1);

  auto options = std::make_shared<FeedParseOptions>();
  CLI::App* parse = feed->add_subcommand("parse", "Parse a feed document and print what it holds");
  parse->add_option("source", options->source, "The feed: a file (URLs are not supported yet)")
      ->required()
      ->type_name("FILE|URL");
  parse->add_flag("--stream", options->stream, "Use the event-driven parser instead of the dictionary one");
  parse->add_flag("--json", options->json,
                  "Print one JSON object with the fields of the feed and its articles (null: never set)");
  parse->footer("Exit codes: 0 parsed, 1 the document could not be read or parsed, 2 usage error.");
  context.onCommand(parse, [&context, options] { return runFeedParse(context, *options); });
}

}  // namespace lectern::cli
