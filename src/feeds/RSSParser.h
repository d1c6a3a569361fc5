#pragma once

#include <filesystem>
#include <string>
#include <variant>

#include "core/Error.h"
#include "feeds/RSSFeed.h"
#include "feeds/XmlSaxParser.h"

namespace lectern {

class RSSParser;

// Told what an RSSParser found. Both callbacks are optional; they run on the parsing thread.
class RSSParserDelegate {
 public:
  virtual ~RSSParserDelegate() = default;
  virtual void parsedFeed(RSSParser& /*parser*/, const RSSFeed& /*feed*/) {}
  virtual void errorOccurred(RSSParser& /*parser*/, const Error& /*error*/) {}
};

// A feed parser driven by parser events: each element's end is matched by its full path
// ("/rss/channel/item/title") against a fixed table, without building a tree. Text is taken as
// written (never trimmed); RSS 1.0 paths are not recognised. Used by one thread at a time.
class RSSParser {
 public:
  static RSSParser withData(std::string data);
  // The file is read in chunks while it is parsed.
  static RSSParser withFile(std::filesystem::path file);

  // Not owned; may be null.
  void setDelegate(RSSParserDelegate* delegate) { delegate_ = delegate; }
  void setLimits(const XmlParseLimits& limits) { limits_ = limits; }

  // Parses on the calling thread, then tells the delegate (the feed at the document's end, or
  // the error; a document with an error gives no feed) and returns the same.
  Result<RSSFeed> fetch();

 private:
  explicit RSSParser(std::variant<std::string, std::filesystem::path> source) : source_(std::move(source)) {}

  std::variant<std::string, std::filesystem::path> source_;
  RSSParserDelegate* delegate_ = nullptr;
  XmlParseLimits limits_;
};

}  // namespace lectern
