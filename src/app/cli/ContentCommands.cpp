// `lectern extract`: the readable article of a saved web page.
#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>

#include "app/cli/Cli.h"
#include "content/QKContentParser.h"
#include "content/QKContentParserAsync.h"
#include "feeds/FeedDiscovery.h"

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

int extract(CliContext& context, const std::string& source, bool json) {
  const bool remote = hasURLScheme(source);
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
  auto parser = remote ? extractURL(*environment, source) : extractFile(source);
  if (!parser) {
    printError(parser.error());
    return kExitFailure;
  }
  const std::string& content = parser->fetchContent();
  if (json) {
    const nlohmann::json object = {{"title", parser->title()}, {"content", content}};
    fmt::print("{}\n", object.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
  } else if (!content.empty()) {
    fmt::print("{}\n", content);
  }
  return kExitOk;
}

}  // namespace

void addContentCommands(CLI::App& app, CliContext& context) {
  auto* command = app.add_subcommand("extract", "Print the readable article of a web page or a saved one");
  auto path = std::make_shared<std::string>();
  auto json = std::make_shared<bool>(false);
  command->add_option("SOURCE", *path, "The page: an http(s) address, or a file (HTML in any character set)")
      ->required()
      ->type_name("URL|FILE");
  command->add_flag("--json", *json, "Print an object with \"title\" and \"content\"");
  command->footer(
      "Prints nothing (or an empty \"content\") when the page holds no article; that is not an error.\n"
      "Exit codes: 0 success, 1 unreadable file or failed download, 2 usage error.");
  context.onCommand(command, [&context, path, json] { return extract(context, *path, *json); });
}

}  // namespace lectern::cli
