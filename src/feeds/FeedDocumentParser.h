#pragma once

#include <string>
#include <string_view>

#include "core/Clock.h"
#include "core/Error.h"
#include "feeds/RSSFeed.h"
#include "feeds/XmlNode.h"

namespace lectern {

inline constexpr std::string_view kQKFeedParserClientErrorDomain = "QKFeedParserClient";
inline constexpr int kInvalidFeedErrorCode = 1;

enum class WhitespaceTrim { kKeep, kTrim };

// Turns the dictionary tree of a feed document (RSS 2.0, RSS 1.0 or Atom) into an RSSFeed: the
// parsing half of QKFeedParserClient, which fetches the bytes. Pure functions; any thread.
class FeedDocumentParser {
 public:
  // The root names the format: "feed" (Atom), "rss" or "rdf:RDF". Anything else fails with
  // "Invalid feed" / "Couldn't find the root element of feed" (domain "QKFeedParserClient", code 1).
  // Missing elements never fail: string fields become "". Entries without a readable date are
  // dated `now` (and marked `undated`). Titles are one line. Entry links and the href and src
  // attributes of content and summary are made absolute against the base in force there
  // (xml:base on the element or any ancestor, resolved in turn against `documentURL`, the
  // document's own address); with no absolute base they stay as written.
  static Result<RSSFeed> parseResponseDictionary(const XmlNode& root, Date now,
                                                 std::string_view documentURL = {});

  // XMLReader::dictionaryForXMLData and then parseResponseDictionary: bytes to feed.
  static Result<RSSFeed> parseFeedData(std::string_view data, Date now, std::string_view documentURL = {});

  // The one lookup every field goes through. The path's parent is looked up first: a dictionary
  // gives the value of the whole path; a list (a repeated element) gives the first member's value,
  // unless a later member has rel="self", when the last such member's value wins; a string
  // member ends the walk as the result. Anything but a string gives "". A view into the tree.
  static std::string_view valueForKeyPath(const XmlNode& dictionary, std::string_view keyPath,
                                          WhitespaceTrim trim);

  // "author.name.textNode" -> "author.name" and "textNode"; a path without a dot has parent "".
  static std::string removeLastPathComponentFromKeyPath(std::string_view keyPath);
  static std::string lastElementOfKeyPath(std::string_view keyPath);

  // Every root-relative path that some <img src="/..."> names is prefixed with "scheme://host" of
  // the entry's URL (no port, no user) wherever it stands as a whole URL token in the HTML (see
  // prefixUrlTokens): in that tag, in other attributes (href, srcset) and in text. One pass over
  // the HTML. HTML without such an image, or an entry URL without scheme or host, is unchanged.
  static std::string fixRelativeLinksInImageTags(std::string html, std::string_view entryUrl);
};

}  // namespace lectern
