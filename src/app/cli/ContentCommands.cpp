// `lectern extract`: the readable article of a saved web page.
#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "app/cli/Cli.h"
#include "content/QKContentParser.h"

namespace lectern::cli {
namespace {

Error readFailure(const std::string& path, std::string_view reason) {
  return Error::make(kLecternErrorDomain, kContentPageUnreadable, fmt::format("Failed to read {}", path),
                     reason);
}

Result<std::string> readPage(const std::string& path) {
  if (path.starts_with("http://") || path.starts_with("https://")) {
    return fail(
        readFailure(path, "Downloading pages is not available yet: save the page and pass the file."));
  }
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

int extract(CliContext& context, const std::string& path, bool json) {
  // The log matters only to someone watching it: without --verbose, extracting touches no file
  // but the page.
  if (context.options.verbose) {
    if (auto environment = context.environment(); !environment) printError(environment.error());
  }
  auto bytes = readPage(path);
  if (!bytes) {
    printError(bytes.error());
    return kExitFailure;
  }
  auto parser = QKContentParser::initWithData(*bytes);
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
  auto* command = app.add_subcommand("extract", "Print the readable article of a saved web page");
  auto path = std::make_shared<std::string>();
  auto json = std::make_shared<bool>(false);
  command->add_option("FILE", *path, "The page (HTML in any character set it declares)")->required();
  command->add_flag("--json", *json, "Print an object with \"title\" and \"content\"");
  command->footer(
      "Prints nothing (or an empty \"content\") when the page holds no article; that is not an error.\n"
      "Exit codes: 0 success, 1 unreadable file, 2 usage error.");
  context.onCommand(command, [&context, path, json] { return extract(context, *path, *json); });
}

}  // namespace lectern::cli
