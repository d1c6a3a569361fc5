// `lectern extract`: the readable article of a web page, a saved page or a stored article.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>

#include "app/cli/Cli.h"
#include "app/cli/Presentation.h"
#include "app/text/ArticleText.h"
#include "content/QKContentParser.h"
#include "content/QKContentParserAsync.h"
#include "feeds/FeedDiscovery.h"
#include "store/Bookmark.h"
#include "store/ObjectContext.h"

namespace lectern::cli {

namespace {

Error readFailure(const std::string& path, std::string_view reason) {
  return Error::make(kLecternErrorDomain, kContentPageUnreadable, fmt::format("Failed to read {}", path),
                     reason);
}

Result<std::string> readPage(const std::string& path) {
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec)) return fail(readFailure(path, "It is a folder."));
  const auto size = std::filesystem::file_size(path, ec);
  if (!ec && size > QKContentParser::kMaxPageBytes) {
    return fail(readFailure(path, fmt::format("The page is {} bytes long; pages above {} bytes are not read.",
                                              size, QKContentParser::kMaxPageBytes)));
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) return fail(readFailure(path, std::strerror(errno)));
  std::ostringstream bytes;
  bytes << in.rdbuf();
  if (in.bad()) return fail(readFailure(path, std::strerror(errno)));
  return bytes.str();
}

// Downloads and extracts on a worker, as the article view does.
Result<QKContentParser> extractURL(AppEnvironment& environment, const std::string& url) {
  std::optional<Result<QKContentParser>> outcome;
  {
    QKContentParserAsync async(environment.mainQueue());
    async.contentOfURL(environment.network(), url,
                       [&outcome](Result<QKContentParser> parser) { outcome = std::move(parser); });
    environment.mainQueue().runUntil([&outcome] { return outcome.has_value(); });
  }
  return std::move(*outcome);
}

Result<QKContentParser> extractFile(const std::string& path) {
  auto bytes = readPage(path);
  if (!bytes) return fail(bytes.error());
  auto parser = QKContentParser::initWithData(*bytes);
  if (parser) parser->fetchContent();
  return parser;
}

enum class ExtractOutput { kText, kHtml, kJson };

struct Extracted {
  std::string title;
  std::string content;  // HTML
};

// A stored article gives its stored content; one without content gives the article at its address.
Result<std::optional<Extracted>> storedArticle(Library& library, std::int64_t id, std::string& url) {
  auto bookmark = bookmarkById(*library.context, id);
  if (!bookmark) return fail(bookmark.error());
  auto html = (*bookmark)->html();
  if (!html) return fail(html.error());
  if (*html && !(*html)->empty()) return Extracted{(*bookmark)->title().value_or(""), **html};
  url = (*bookmark)->url().value_or("");
  if (url.empty()) {
    return fail(kLecternErrorDomain, 1, fmt::format("Article {} has neither content nor an address", id));
  }
  return std::nullopt;
}

bool isArticleId(const std::string& source) {
  std::error_code ec;
  const auto digit = [](char c) { return c >= '0' && c <= '9'; };
  return !source.empty() && source.size() < 19 && std::all_of(source.begin(), source.end(), digit) &&
         !std::filesystem::exists(source, ec);
}

int extract(CliContext& context, const std::string& source, ExtractOutput output) {
  std::string url = hasURLScheme(source) ? source : std::string();
  std::optional<Extracted> extracted;
  if (url.empty() && isArticleId(source)) {
    auto library = openLibrary(context);
    if (!library) return kExitFailure;
    auto stored = storedArticle(*library, std::stoll(source), url);
    if (!stored) {
      printError(stored.error());
      return kExitFailure;
    }
    extracted = std::move(*stored);
  }
  if (!extracted) {
    const bool remote = !url.empty();
    if (remote && refusedOffline(context, "Downloading the page")) return kExitFailure;
    // The log matters only to someone watching it: without --verbose, extracting a file touches no
    // file but the page.
    AppEnvironment* environment = nullptr;
    if (context.options.verbose || remote) {
      auto made = context.environment();
      if (!made) {
        printError(made.error());
        if (remote) return kExitFailure;
      } else {
        environment = *made;
      }
    }
    auto parser = remote ? extractURL(*environment, url) : extractFile(source);
    if (!parser) {
      printError(parser.error());
      return kExitFailure;
    }
    extracted = Extracted{parser->title(), parser->fetchContent()};
  }
  const std::string& content = extracted->content;
  if (output == ExtractOutput::kJson) {
    const nlohmann::json object = {{"title", extracted->title}, {"content", content}};
    fmt::print("{}\n", object.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
  } else if (output == ExtractOutput::kHtml) {
    if (!content.empty()) fmt::print("{}\n", content);
  } else if (!content.empty()) {
    const auto text = renderArticleText(content, static_cast<int>(terminalColumns()), url);
    for (const auto& line : text.lines) fmt::print("{}\n", line);
    if (!text.links.empty()) fmt::print("\nLinks:\n");
    for (const auto& link : text.links) fmt::print("[{}] {}\n", link.number, link.url);
  }
  return kExitOk;
}

}  // namespace

void addContentCommands(CLI::App& app, CliContext& context) {
  auto* command = app.add_subcommand("extract", "Print the readable article of a web page, a saved page or an article");
  auto path = std::make_shared<std::string>();
  auto html = std::make_shared<bool>(false);
  auto json = std::make_shared<bool>(false);
  command
      ->add_option("SOURCE", *path,
                   "The page: an http(s) address, a file (HTML in any character set), or an article id from "
                   "`lectern list` (its stored content, else the page at its address)")
      ->required()
      ->type_name("URL|FILE|ID");
  auto* htmlFlag = command->add_flag("--html", *html, "Print the article's HTML instead of text");
  command->add_flag("--json", *json, "Print an object with \"title\" and \"content\" (HTML)")->excludes(htmlFlag);
  command->footer(
      "Prints nothing (or an empty \"content\") when the page holds no article; that is not an error.\n"
      "Exit codes: 0 success, 1 unreadable file, unknown article or failed download, 2 usage error.");
  context.onCommand(command, [&context, path, html, json] {
    return extract(context, *path, *json ? ExtractOutput::kJson : *html ? ExtractOutput::kHtml : ExtractOutput::kText);
  });
}

}  // namespace lectern::cli
