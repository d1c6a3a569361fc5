#include "feeds/FeedDocumentParser.h"

#include <algorithm>
#include <unordered_set>
#include <vector>

#include "core/Dates.h"
#include "core/Strings.h"
#include "feeds/FeedLinks.h"
#include "feeds/FeedStrings.h"
#include "feeds/XMLReader.h"

namespace lectern {
namespace {

// A value reached by a key path. A list met part way is kept with the rest of the path, which
// then applies to each of its members (as key paths read through arrays).
struct PathValue {
  const XmlValue* value = nullptr;
  std::string_view rest;
};

std::pair<std::string_view, std::string_view> splitFirstKey(std::string_view path) {
  const std::size_t dot = path.find('.');
  if (dot == std::string_view::npos) return {path, {}};
  return {path.substr(0, dot), path.substr(dot + 1)};
}

PathValue follow(const XmlValue* value, std::string_view path) {
  while (value && !path.empty()) {
    if (value->isList()) return {value, path};
    if (!value->isDictionary()) return {};
    const auto [key, rest] = splitFirstKey(path);
    value = value->asDictionary().find(key);
    path = rest;
  }
  return {value, {}};
}

PathValue follow(const XmlNode& node, std::string_view path) {
  if (path.empty()) return {};
  const auto [key, rest] = splitFirstKey(path);
  return follow(node.find(key), rest);
}

// The dictionary a path leads to; from a list of them, the first.
XmlNode dictionaryAt(const XmlNode& node, std::string_view path) {
  const PathValue found = follow(node, path);
  if (!found.value) return {};
  if (found.value->isDictionary()) return found.value->asDictionary();
  if (found.value->isList() && found.rest.empty()) {
    for (const auto& member : found.value->asList()) {
      if (member.isDictionary()) return member.asDictionary();
    }
  }
  return {};
}

// The dictionaries a value holds: itself, or each dictionary of a list.
std::vector<XmlNode> dictionariesUnder(const XmlValue* value) {
  std::vector<XmlNode> result;
  if (!value) return result;
  if (value->isDictionary()) {
    result.push_back(value->asDictionary());
  } else if (value->isList()) {
    result.reserve(value->asList().size());
    for (const auto& member : value->asList()) {
      if (member.isDictionary()) result.push_back(member.asDictionary());
    }
  }
  return result;
}

std::string lookup(const XmlNode& node, std::string_view keyPath,
                   WhitespaceTrim trim = WhitespaceTrim::kTrim) {
  return std::string(FeedDocumentParser::valueForKeyPath(node, keyPath, trim));
}

// The first non-empty value of the paths, trimmed.
std::string firstNonEmpty(const XmlNode& node, std::initializer_list<std::string_view> keyPaths) {
  for (const auto path : keyPaths) {
    const std::string_view value = FeedDocumentParser::valueForKeyPath(node, path, WhitespaceTrim::kTrim);
    if (!value.empty()) return std::string(value);
  }
  return {};
}

void setEntryDate(RSSEntry& entry, const XmlNode& node, std::initializer_list<std::string_view> keyPaths,
                  DateFormatHint hint, Date now) {
  const auto date = dateFromInternetDateTimeString(firstNonEmpty(node, keyPaths), hint);
  entry.date = date.value_or(now);
  entry.undated = !date;
}

// The base URL in force inside `node`: its xml:base resolved against the one around it.
std::string baseOf(const XmlNode& node, std::string_view outer) {
  const XmlValue* declared = node.find("xml:base");
  if (!declared || !declared->isString()) return std::string(outer);
  return resolveLinkReference(outer, trimWhitespaces(declared->asString()));
}

// The base inside the child element `element` of `node` (its first, when repeated).
std::string childBase(const XmlNode& node, std::string_view element, std::string_view outer) {
  const XmlNode child = dictionaryAt(node, element);
  return child.empty() ? std::string(outer) : baseOf(child, outer);
}

// An entry's link made absolute; an empty one stays empty (the entry has none).
std::string absoluteLink(std::string link, std::string_view base) {
  return link.empty() ? link : resolveLinkReference(base, link);
}

// A text construct read as a plain field (title, subtitle, rights): one of type "xhtml" holds
// markup (see XMLReader), which such a field shows as its text.
std::string atomText(const XmlNode& node, std::string_view element) {
  const std::string name(element);
  std::string value = lookup(node, name + ".textNode");
  if (FeedDocumentParser::valueForKeyPath(node, name + ".type", WhitespaceTrim::kKeep) == "xhtml") {
    return xhtmlText(value);
  }
  return value;
}

void parseAtom(const XmlNode& feedNode, RSSFeed& feed, Date now, std::string_view documentURL) {
  feed.type = RSSFeedType::kAtom;
  const std::string feedBase = baseOf(feedNode, documentURL);
  feed.title = collapseWhitespace(atomText(feedNode, "title"));
  feed.url = lookup(feedNode, "link.href");
  feed.descriptionText = atomText(feedNode, "subtitle");
  feed.author = lookup(feedNode, "author.name.textNode");
  feed.uid = lookup(feedNode, "id.textNode");
  feed.language = "Unknown";
  feed.copyright = atomText(feedNode, "rights");
  feed.generator = lookup(feedNode, "generator.textNode");
  feed.validTime = 0;
  feed.iconUrl = lookup(feedNode, "icon.textNode");
  feed.date = dateFromInternetDateTimeString(lookup(feedNode, "updated.textNode"), DateFormatHint::kRFC3339);

  for (const XmlNode& node : dictionariesUnder(feedNode.find("entry"))) {
    RSSEntry& entry = feed.articles.emplace_back();
    const std::string entryBase = baseOf(node, feedBase);
    entry.title = collapseWhitespace(atomText(node, "title"));
    entry.url = absoluteLink(lookup(node, "link.href"), childBase(node, "link", entryBase));
    entry.uid = lookup(node, "id.textNode");
    entry.summary =
        resolveRelativeLinksInHtml(lookup(node, "summary.textNode"), childBase(node, "summary", entryBase));
    entry.copyright = atomText(node, "rights");
    entry.author = lookup(node, "author.name.textNode");
    entry.content = resolveRelativeLinksInHtml(lookup(node, "content.textNode", WhitespaceTrim::kKeep),
                                               childBase(node, "content", entryBase));
    if (entry.content->empty() && !entry.summary->empty()) entry.content = entry.summary;
    setEntryDate(entry, node, {"updated.textNode", "published.textNode"}, DateFormatHint::kRFC3339, now);
  }
}

std::optional<RSSAttachedMedia> enclosureOf(const XmlNode& item) {
  // Several enclosures are ambiguous, so none is taken.
  const XmlValue* value = item.find("enclosure");
  if (!value || !value->isDictionary()) return std::nullopt;
  const XmlNode enclosure = value->asDictionary();
  const auto attribute = [&](std::string_view name) -> std::optional<std::string> {
    const XmlValue* found = enclosure.find(name);
    if (!found || !found->isString()) return std::nullopt;
    return std::string(found->asString());
  };
  RSSAttachedMedia media;
  media.url = attribute("url");
  media.length = intValue(enclosure.string("length"));
  media.type = attribute("type");
  return media;
}

void parseRSS(const XmlNode& root, std::string_view rootName, RSSFeed& feed, Date now,
              std::string_view documentURL) {
  feed.type = RSSFeedType::kRSS;
  const XmlNode channel = dictionaryAt(root, std::string(rootName) + ".channel");
  const std::string channelBase = baseOf(channel, baseOf(dictionaryAt(root, rootName), documentURL));
  feed.title = collapseWhitespace(lookup(channel, "title.textNode"));
  feed.url = lookup(channel, "link.textNode");
  feed.descriptionText = lookup(channel, "description.textNode");
  feed.author = lookup(channel, "managingEditor.textNode");
  feed.language = lookup(channel, "language.textNode");
  feed.copyright = lookup(channel, "copyright.textNode");
  feed.generator = lookup(channel, "generator.textNode");
  feed.iconUrl = lookup(channel, "image.url.textNode");
  feed.validTime = floatValue(lookup(channel, "ttl.textNode"));
  if (const std::string date = firstNonEmpty(channel, {"lastBuildDate.textNode", "dc:date.textNode"});
      !date.empty()) {
    feed.date = dateFromInternetDateTimeString(date, DateFormatHint::kRFC822);
  }

  // RSS 1.0 puts its items beside the channel rather than in it.
  const XmlValue* items = channel.find("item");
  if (!items) items = follow(root, "rdf:RDF.item").value;
  for (const XmlNode& node : dictionariesUnder(items)) {
    RSSEntry& entry = feed.articles.emplace_back();
    const std::string itemBase = baseOf(node, channelBase);
    entry.title = collapseWhitespace(lookup(node, "title.textNode"));
    entry.url = absoluteLink(lookup(node, "link.textNode"), childBase(node, "link", itemBase));
    entry.uid = lookup(node, "guid.textNode");
    entry.summary = lookup(node, "description.textNode");
    entry.comments = lookup(node, "comments.textNode");
    entry.author = lookup(node, "author.textNode");
    std::string content = lookup(node, "content:encoded.textNode", WhitespaceTrim::kKeep);
    if (content.empty() && !entry.summary->empty()) content = *entry.summary;
    if (entry.author->empty()) entry.author = lookup(node, "dc:creator.textNode");
    setEntryDate(entry, node, {"pubDate.textNode", "dc:date.textNode", "published.textNode"},
                 DateFormatHint::kRFC822, now);
    entry.attachedMedia = enclosureOf(node);
    // Root-relative pictures go to the entry's host first, as they always have; what is still
    // relative then is resolved against the item's base.
    content = FeedDocumentParser::fixRelativeLinksInImageTags(std::move(content), *entry.url);
    const std::string_view contentElement =
        node.find("content:encoded") ? std::string_view("content:encoded") : std::string_view("description");
    entry.content = resolveRelativeLinksInHtml(content, childBase(node, contentElement, itemBase));
  }
}

}  // namespace

Result<RSSFeed> FeedDocumentParser::parseResponseDictionary(const XmlNode& root, Date now,
                                                            std::string_view documentURL) {
  const std::string_view rootName = root.empty() ? std::string_view() : root.entries().front().key;
  RSSFeed feed;
  if (rootName == "feed") {
    parseAtom(dictionaryAt(root, rootName), feed, now, documentURL);
  } else if (rootName == "rss" || rootName == "rdf:RDF") {
    parseRSS(root, rootName, feed, now, documentURL);
  } else {
    return fail(kQKFeedParserClientErrorDomain, kInvalidFeedErrorCode, "Invalid feed",
                "Couldn't find the root element of feed");
  }
  return feed;
}

Result<RSSFeed> FeedDocumentParser::parseFeedData(std::string_view data, Date now,
                                                  std::string_view documentURL) {
  auto document = XMLReader::dictionaryForXMLData(data);
  if (!document) return fail(document.error());
  return parseResponseDictionary(document->root(), now, documentURL);
}

std::string_view FeedDocumentParser::valueForKeyPath(const XmlNode& dictionary, std::string_view keyPath,
                                                     WhitespaceTrim trim) {
  const std::size_t dot = keyPath.rfind('.');
  if (dot == std::string_view::npos) return {};  // an empty parent path finds nothing
  const std::string_view key = keyPath.substr(dot + 1);
  const PathValue parent = follow(dictionary, keyPath.substr(0, dot));
  const XmlValue* candidate = nullptr;
  if (!parent.value) {
    return {};
  } else if (parent.value->isDictionary()) {
    candidate = parent.value->asDictionary().find(key);
  } else if (parent.value->isList()) {
    // Repeated elements: the first one's value, unless a later one is the rel="self" link.
    for (const auto& element : parent.value->asList()) {
      const PathValue member = follow(&element, parent.rest);
      if (!member.value || !member.rest.empty()) continue;
      if (member.value->isString()) {
        candidate = member.value;
        break;
      }
      if (!member.value->isDictionary()) continue;
      const XmlNode node = member.value->asDictionary();
      if (!candidate || node.string("rel") == "self") candidate = node.find(key);
    }
  } else {
    candidate = parent.value;
  }
  const std::string_view text = candidate ? candidate->asString() : std::string_view();
  return trim == WhitespaceTrim::kTrim ? trimWhitespaces(text) : text;
}

std::string FeedDocumentParser::removeLastPathComponentFromKeyPath(std::string_view keyPath) {
  const std::size_t dot = keyPath.rfind('.');
  return dot == std::string_view::npos ? std::string() : std::string(keyPath.substr(0, dot));
}

std::string FeedDocumentParser::lastElementOfKeyPath(std::string_view keyPath) {
  const std::size_t dot = keyPath.rfind('.');
  return std::string(dot == std::string_view::npos ? keyPath : keyPath.substr(dot + 1));
}

std::string FeedDocumentParser::fixRelativeLinksInImageTags(std::string html, std::string_view entryUrl) {
  const std::vector<std::string_view> found = rootRelativeImageSources(html);
  if (found.empty()) return html;
  const std::string origin = urlOrigin(entryUrl);
  if (origin.empty()) return html;
  std::unordered_set<std::string_view> paths;
  for (const auto path : found) {
    // "//host/x.png" names another host, not a path on this one.
    if (!path.starts_with("//")) paths.insert(path);
  }
  return prefixUrlTokens(html, paths, origin);
}

}  // namespace lectern
