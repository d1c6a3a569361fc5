#include "feeds/RSSParser.h"

#include <fmt/format.h>

#include <optional>
#include <unordered_map>
#include <vector>

#include "core/Dates.h"
#include "feeds/FeedStrings.h"
#include "feeds/XhtmlCapture.h"

namespace lectern {
namespace {

enum class Action {
  kFeedTitle,
  kFeedDescription,
  kFeedUid,
  kFeedLink,
  kFeedLanguage,
  kFeedCopyright,
  kFeedCategory,
  kFeedGenerator,
  kFeedTtl,
  kFeedIcon,
  kFeedCloud,
  kFeedDateRFC822,
  kFeedDateRFC3339,
  kFeedManagingEditor,
  kFeedAuthorName,
  kFeedAuthorEmail,
  kEntryTitle,
  kEntryLink,
  kEntrySummary,
  kEntryCategory,
  kEntryComments,
  kEntryAuthor,
  kEntryContent,
  kEntryEnclosure,
  kEntryUid,
  kEntryDateRFC822,
  kEntryDateRFC3339,
  kEntryRights,
  kEntryEnd,
};

const std::unordered_map<std::string_view, Action>& pathTable() {
  static const std::unordered_map<std::string_view, Action> table = {
      {"/rss/channel/title", Action::kFeedTitle},
      {"/feed/title", Action::kFeedTitle},
      {"/rss/channel/description", Action::kFeedDescription},
      {"/feed/subtitle", Action::kFeedDescription},
      {"/feed/id", Action::kFeedUid},
      {"/rss/channel/link", Action::kFeedLink},
      {"/feed/link", Action::kFeedLink},
      {"/rss/channel/language", Action::kFeedLanguage},
      {"/rss/channel/copyright", Action::kFeedCopyright},
      {"/feed/rights", Action::kFeedCopyright},
      {"/rss/channel/category", Action::kFeedCategory},
      {"/feed/category", Action::kFeedCategory},
      {"/rss/channel/generator", Action::kFeedGenerator},
      {"/feed/generator", Action::kFeedGenerator},
      {"/rss/channel/ttl", Action::kFeedTtl},
      {"/rss/channel/image/url", Action::kFeedIcon},
      {"/feed/icon", Action::kFeedIcon},
      {"/rss/channel/cloud", Action::kFeedCloud},
      {"/rss/channel/lastBuildDate", Action::kFeedDateRFC822},
      {"/rss/channel/dc:date", Action::kFeedDateRFC822},
      {"/feed/updated", Action::kFeedDateRFC3339},
      {"/rss/channel/managingEditor", Action::kFeedManagingEditor},
      {"/feed/author/name", Action::kFeedAuthorName},
      {"/feed/author/email", Action::kFeedAuthorEmail},
      {"/rss/channel/item/title", Action::kEntryTitle},
      {"/feed/entry/title", Action::kEntryTitle},
      {"/rss/channel/item/link", Action::kEntryLink},
      {"/feed/entry/link", Action::kEntryLink},
      {"/rss/channel/item/description", Action::kEntrySummary},
      {"/feed/entry/summary", Action::kEntrySummary},
      {"/rss/channel/item/category", Action::kEntryCategory},
      {"/feed/entry/category", Action::kEntryCategory},
      {"/rss/channel/item/comments", Action::kEntryComments},
      {"/rss/channel/item/author", Action::kEntryAuthor},
      {"/feed/entry/author/name", Action::kEntryAuthor},
      {"/feed/entry/content", Action::kEntryContent},
      {"/rss/channel/item/content:encoded", Action::kEntryContent},
      {"/rss/channel/item/enclosure", Action::kEntryEnclosure},
      {"/rss/channel/item/guid", Action::kEntryUid},
      {"/feed/entry/id", Action::kEntryUid},
      {"/rss/channel/item/pubDate", Action::kEntryDateRFC822},
      {"/rss/channel/item/dc:date", Action::kEntryDateRFC822},
      {"/feed/entry/updated", Action::kEntryDateRFC3339},
      {"/feed/entry/rights", Action::kEntryRights},
      {"/rss/channel/item", Action::kEntryEnd},
      {"/feed/entry", Action::kEntryEnd},
  };
  return table;
}

// Fills one RSSFeed from the events of one document.
class FeedEventHandler final : public XmlSaxHandler {
 public:
  RSSFeed takeFeed() && { return std::move(feed_); }

  void startElement(std::string_view name, std::span<const XmlAttribute> attributes) override {
    if (xhtml_.active()) return xhtml_.startElement(name, attributes);
    if (depth_ == 0 && path_.empty()) rootName_ = name;
    if (name == "rss") feed_.type = RSSFeedType::kRSS;
    if (name == "feed") feed_.type = RSSFeedType::kAtom;
    if (name == "item" || name == "entry") entry_.emplace();
    // Frames are kept when popped, so their buffers are reused by the next element at that depth.
    if (depth_ == frames_.size()) frames_.emplace_back();
    Frame& frame = frames_[depth_++];
    frame.text.clear();
    frame.attributes.resize(attributes.size());
    for (std::size_t i = 0; i < attributes.size(); ++i) {
      frame.attributes[i].first.assign(attributes[i].name);
      frame.attributes[i].second.assign(attributes[i].value);
    }
    pathLengths_.push_back(path_.size());
    path_ += '/';
    path_ += name;
    frame.xhtml = XhtmlCapture::opensConstruct(rootName_, attributes);
    if (frame.xhtml) xhtml_.begin();
  }

  void endElement(std::string_view name) override {
    // An XHTML construct's text is its content written back as markup.
    if (xhtml_.active()) {
      if (xhtml_.endElement(name)) return;
      frames_[depth_ - 1].text = xhtml_.take();
    }
    const auto& table = pathTable();
    if (auto it = table.find(path_); it != table.end()) apply(it->second, frames_[depth_ - 1]);
    --depth_;
    path_.resize(pathLengths_.back());
    pathLengths_.pop_back();
  }

  void characters(std::string_view text) override {
    if (xhtml_.active()) {
      xhtml_.characters(text);
    } else if (depth_ > 0) {
      frames_[depth_ - 1].text.append(text);
    }
  }

 private:
  struct Frame {
    std::vector<std::pair<std::string, std::string>> attributes;
    std::string text;
    bool xhtml = false;  // an Atom construct of type "xhtml": `text` is markup

    // The text as a plain field (a title, a subtitle, rights) shows it.
    std::string plainText() const { return xhtml ? xhtmlText(text) : text; }
    std::optional<std::string> attribute(std::string_view name) const {
      for (const auto& [key, value] : attributes) {
        if (key == name) return value;
      }
      return std::nullopt;
    }
    std::string attributeOrText(std::string_view name) const { return attribute(name).value_or(text); }
  };

  void apply(Action action, const Frame& frame) {
    const std::string& text = frame.text;
    switch (action) {
      case Action::kFeedTitle:
        feed_.title = frame.plainText();
        return;
      case Action::kFeedDescription:
        feed_.descriptionText = frame.plainText();
        return;
      case Action::kFeedUid:
        feed_.uid = text;
        return;
      case Action::kFeedLink:
        feed_.url = frame.attributeOrText("href");
        return;
      case Action::kFeedLanguage:
        feed_.language = text;
        return;
      case Action::kFeedCopyright:
        feed_.copyright = frame.plainText();
        return;
      case Action::kFeedCategory:
        feed_.categories.push_back(frame.attributeOrText("term"));
        return;
      case Action::kFeedGenerator:
        feed_.generator = text;
        return;
      case Action::kFeedTtl:
        feed_.validTime = floatValue(text);
        return;
      case Action::kFeedIcon:
        feed_.iconUrl = text;
        return;
      case Action::kFeedCloud: {
        RSSCloudService cloud;
        cloud.domain = frame.attribute("domain");
        cloud.port = intValue(frame.attribute("port").value_or(""));
        cloud.path = frame.attribute("path");
        cloud.procedure = frame.attribute("registerProcedure");
        cloud.protocol = frame.attribute("protocol");
        feed_.cloudService = std::move(cloud);
        return;
      }
      case Action::kFeedDateRFC822:
        feed_.date = dateFromInternetDateTimeString(text, DateFormatHint::kRFC822);
        return;
      case Action::kFeedDateRFC3339:
        feed_.date = dateFromInternetDateTimeString(text, DateFormatHint::kRFC3339);
        return;
      case Action::kFeedManagingEditor:
        feed_.author = text;
        return;
      case Action::kFeedAuthorName:
        authorName_ = text;
        feed_.author = combinedAuthor();
        return;
      case Action::kFeedAuthorEmail:
        authorEmail_ = text;
        feed_.author = combinedAuthor();
        return;
      default:
        break;
    }
    if (!entry_) return;
    RSSEntry& entry = *entry_;
    switch (action) {
      case Action::kEntryTitle:
        entry.title = frame.plainText();
        return;
      case Action::kEntryLink:
        entry.url = frame.attributeOrText("href");
        return;
      case Action::kEntrySummary:
        entry.summary = text;
        return;
      case Action::kEntryCategory:
        entry.categories.push_back(frame.attributeOrText("term"));
        return;
      case Action::kEntryComments:
        entry.comments = text;
        return;
      case Action::kEntryAuthor:
        entry.author = text;
        return;
      case Action::kEntryContent:
        entry.content = text;
        return;
      case Action::kEntryEnclosure: {
        RSSAttachedMedia media;
        media.url = frame.attribute("url");
        media.length = intValue(frame.attribute("length").value_or(""));
        media.type = frame.attribute("type");
        entry.attachedMedia = std::move(media);
        return;
      }
      case Action::kEntryUid:
        entry.uid = text;
        return;
      case Action::kEntryDateRFC822:
        entry.date = dateFromInternetDateTimeString(text, DateFormatHint::kRFC822);
        return;
      case Action::kEntryDateRFC3339:
        entry.date = dateFromInternetDateTimeString(text, DateFormatHint::kRFC3339);
        return;
      case Action::kEntryRights:
        entry.copyright = frame.plainText();
        return;
      case Action::kEntryEnd:
        feed_.articles.push_back(std::move(entry));
        entry_.reset();
        return;
      default:
        return;
    }
  }

  // The first of name and e-mail stands alone; with both, "name (e-mail)".
  std::string combinedAuthor() const {
    if (authorName_ && authorEmail_) return fmt::format("{} ({})", *authorName_, *authorEmail_);
    return authorName_ ? *authorName_ : authorEmail_.value_or("");
  }

  RSSFeed feed_;
  std::optional<RSSEntry> entry_;
  std::vector<Frame> frames_;
  std::size_t depth_ = 0;
  std::string path_;
  std::vector<std::size_t> pathLengths_;
  std::optional<std::string> authorName_;
  std::optional<std::string> authorEmail_;
  std::string rootName_;
  XhtmlCapture xhtml_;
};

}  // namespace

RSSParser RSSParser::withData(std::string data) { return RSSParser(std::move(data)); }

RSSParser RSSParser::withFile(std::filesystem::path file) { return RSSParser(std::move(file)); }

Result<RSSFeed> RSSParser::fetch() {
  FeedEventHandler handler;
  const Result<void> parsed =
      std::holds_alternative<std::string>(source_)
          ? XmlSaxParser::parse(std::get<std::string>(source_), handler, XmlInputEncoding::kDeclared, limits_)
          : XmlSaxParser::parseFile(std::get<std::filesystem::path>(source_), handler, limits_);
  if (!parsed) {
    if (delegate_) delegate_->errorOccurred(*this, parsed.error());
    return fail(parsed.error());
  }
  RSSFeed feed = std::move(handler).takeFeed();
  if (delegate_) delegate_->parsedFeed(*this, feed);
  return feed;
}

}  // namespace lectern
