#include "content/QKContentParser.h"

#include <fmt/format.h>
#include <libxml/tree.h>

#include <algorithm>
#include <cctype>
#include <optional>
#include <vector>

#include "content/ElementStats.h"
#include "content/HtmlDocument.h"
#include "content/KeywordPattern.h"
#include "content/PageDecoder.h"
#include "core/Log.h"
#include "core/Regex.h"
#include "core/Strings.h"

namespace lectern {
namespace {

// The class and id rules. Built once and shared: they are immutable.
struct Patterns {
  KeywordPattern unlikely{
      "combx|comment|community|disqus|extra|foot|header|menu|remark|rss|shoutbox|sidebar|sponsor|ad-break|"
      "agegate|"
      "pagination|pager|popup|respond|hidden|hide"};
  KeywordPattern maybeCandidate{"and|article|body|column|main|shadow"};
  KeywordPattern negative{
      "combx|comment|com-|contact|foot|footer|footnote|masthead|media|meta|outbrain|promo|related|scroll|"
      "shoutbox|"
      "sidebar|sponsor|shopping|tags|tool|widget"};
  KeywordPattern positive{
      "article|body|content|entry|hentry|main|page|pagination|post|text|blog|story|instapaper|readability"};
  KeywordPattern instapaperBody{"instapaper_body"};
  KeywordPattern clutter{"title|meta|related|author|share|sharing|menu|nav|navigation|date|hidden|hide"};
  Regex sentenceEnd = Regex::compileOrThrow("\\.( |$)");
};

const Patterns& patterns() {
  static const Patterns compiled;
  return compiled;
}

// Paragraphs, divs and a blockquote start ahead of other elements; forms and table headers behind.
std::int64_t nameBonus(std::string_view name) {
  const std::string lower = toLowerASCII(name);
  if (lower == "p") return 10;
  if (lower == "div") return 5;
  if (lower == "blockquote") return 3;
  if (lower == "form") return -3;
  if (lower == "th") return -5;
  return 0;
}

// A div holding none of these is a paragraph in disguise.
bool hasBlockChild(const xmlNode* div) {
  static constexpr std::string_view kBlockNames[] = {"blockquote", "a",   "div", "dl", "ol",
                                                     "img",        "pre", "p",   "ul", "table"};
  for (const xmlNode* child = div->children; child; child = child->next) {
    const std::string_view name = elementName(child);
    if (std::find(std::begin(kBlockNames), std::end(kBlockNames), name) != std::end(kBlockNames)) return true;
  }
  return false;
}

bool isEmptyParagraph(xmlNodePtr paragraph) {
  bool hasMedia = false;
  forEachNode(paragraph, [&](xmlNodePtr node) {
    const std::string_view name = elementName(node);
    hasMedia = hasMedia || name == "img" || name == "embed" || name == "object" || name == "iframe" ||
               name == "video";
  });
  return !hasMedia && trimView(textContent(paragraph)).empty();
}

// Whether a link target runs script. Browsers drop leading and trailing controls and spaces and
// every tab and line break inside a URL before reading its scheme, so "java\tscript:" counts too.
bool isScriptURL(std::string_view url) {
  constexpr std::string_view kScheme = "javascript:";
  std::size_t matched = 0;
  bool leading = true;
  for (const char c : url) {
    if (leading && static_cast<unsigned char>(c) <= 0x20) continue;
    leading = false;
    if (c == '\t' || c == '\n' || c == '\r') continue;
    if (std::tolower(static_cast<unsigned char>(c)) != kScheme[matched]) return false;
    if (++matched == kScheme.size()) return true;
  }
  return false;
}

// Event handlers (onclick, onerror ...) and script links: the article is shown, never run.
void removeActiveAttributes(xmlNodePtr element) {
  for (xmlAttrPtr attr = element->properties; attr;) {
    const xmlAttrPtr next = attr->next;
    const std::string name = toLowerASCII(attr->name ? reinterpret_cast<const char*>(attr->name) : "");
    bool active = name.starts_with("on");
    if (!active && (name == "href" || name == "src" || name == "xlink:href")) {
      xmlChar* value = xmlNodeGetContent(reinterpret_cast<const xmlNode*>(attr));
      active = value && isScriptURL(reinterpret_cast<const char*>(value));
      xmlFree(value);
    }
    if (active) xmlRemoveProp(attr);
    attr = next;
  }
}

// "table, ul, div" as the XPath of those elements below the context node.
std::string descendantsXPath(std::string_view selector) {
  std::vector<std::string> steps;
  for (const std::string& name : split(selector, ",")) {
    if (!trimView(name).empty()) steps.push_back(".//" + trim(name));
  }
  return join(steps, " | ");
}

}  // namespace

struct QKContentParser::Impl {
  explicit Impl(std::unique_ptr<HtmlDocument> page) : document(std::move(page)) {}

  void removeComments();
  void prepareCandidates();
  void removeUnlikelyCandidates();
  void transformMisusedDivsIntoParagraphs();
  std::int64_t classWeight(const xmlNode* element);
  std::int64_t scoreNode(const xmlNode* element);
  void scoreParagraphs(std::uint64_t minimumLength);
  bool getArticle();
  void sanitizeElement(xmlNodePtr element);
  void cleanConditionallyNode(xmlNodePtr node, std::string_view selector);
  const std::string& readTitle();

  std::unique_ptr<HtmlDocument> document;
  QKContentCandidates candidates;
  bool weightClasses = true;
  bool removeEmptyNodes = false;
  bool cleanConditionally = true;
  std::uint64_t minContentLength = 25;
  std::optional<std::string> content;
  std::optional<std::string> title;
  std::string domain;
  // Measurements of the page as scored; assembling the article reads them too.
  std::optional<ElementStats> scoredStats;
  const Patterns& rules = patterns();
};

void QKContentParser::Impl::removeComments() {
  for (xmlNodePtr comment : document->select("//comment()")) document->remove(comment);
}

void QKContentParser::Impl::prepareCandidates() {
  for (xmlNodePtr node : document->select("//script | //style")) document->remove(node);
  removeUnlikelyCandidates();
  transformMisusedDivsIntoParagraphs();
  scoreParagraphs(minContentLength);
}

void QKContentParser::Impl::removeUnlikelyCandidates() {
  for (xmlNodePtr element : document->select("//*")) {
    const std::string name = toLowerASCII(elementName(element));
    if (name == "body" || name == "html") continue;
    const std::string match = attribute(element, "class") + attribute(element, "id");
    if (match.empty()) continue;  // no class and no id: nothing to match
    if (rules.unlikely.search(match) && !rules.maybeCandidate.search(match)) document->remove(element);
  }
}

void QKContentParser::Impl::transformMisusedDivsIntoParagraphs() {
  for (xmlNodePtr div : document->select("//div")) {
    if (hasBlockChild(div)) continue;
    logDebugMessage(kContentParserLogCategory, "Altering div(#{}.{}) to p", attribute(div, "id"),
                    attribute(div, "class"));
    xmlNodeSetName(div, reinterpret_cast<const xmlChar*>("p"));
  }
}

std::int64_t QKContentParser::Impl::classWeight(const xmlNode* element) {
  if (!weightClasses) return 0;
  std::int64_t weight = 0;
  if (const std::string className = attribute(element, "class"); !className.empty()) {
    if (rules.negative.search(className)) weight -= 25;
    if (rules.positive.search(className)) weight += 25;
    if (rules.instapaperBody.search(className)) weight += 500;
  }
  if (const std::string id = attribute(element, "id"); !id.empty()) {
    if (rules.negative.search(id)) weight -= 25;
    if (rules.positive.search(id)) weight += 25;
  }
  return weight;
}

std::int64_t QKContentParser::Impl::scoreNode(const xmlNode* element) {
  return classWeight(element) + nameBonus(elementName(element));
}

void QKContentParser::Impl::scoreParagraphs(std::uint64_t minimumLength) {
  scoredStats.emplace(xmlDocGetRootElement(document->doc()));
  const ElementStats& stats = *scoredStats;
  const auto raise = [&](xmlNodePtr element, std::int64_t by) {
    QKContentCandidate* candidate = candidates.candidateForElement(element);
    if (!candidate)
      candidate = &candidates.addContentCandidate(QKContentCandidate(element, scoreNode(element)));
    candidate->setScore(candidate->score() + by);
  };
  for (xmlNodePtr node : document->select("//p | //td | //div")) {
    if (isElement(node, "div") && !rules.positive.search(attribute(node, "class")) &&
        !rules.positive.search(attribute(node, "id"))) {
      continue;
    }
    const ElementCounts counts = stats.of(node);
    if (static_cast<std::uint64_t>(counts.textLength) < minimumLength) continue;
    // One point to start, one per comma-separated piece, one per hundred characters up to three.
    const std::int64_t contentScore =
        1 + (counts.commas + 1) + std::min<std::int64_t>(counts.textLength / 100, 3);
    xmlNodePtr parent = node->parent;
    if (!parent || parent->type != XML_ELEMENT_NODE) continue;
    raise(parent, contentScore);
    if (xmlNodePtr grandparent = parent->parent; grandparent && grandparent->type == XML_ELEMENT_NODE) {
      raise(grandparent, contentScore / 2);
    }
  }
  for (QKContentCandidate& candidate : candidates.allContentCandidates()) {
    const double linkDensity = stats.of(candidate.element()).linkDensity();
    candidate.setScore(
        static_cast<std::int64_t>((1.0 - linkDensity) * static_cast<double>(candidate.score())));
  }
}

// Gathers the best candidate and its worthy siblings into a new html/body/div page; false when
// nothing was scored.
bool QKContentParser::Impl::getArticle() {
  const QKContentCandidate* top = candidates.selectBestCandidate();
  if (!top) return false;
  xmlNodePtr topElement = top->element();
  const double threshold = std::max(10.0, 0.2 * static_cast<double>(top->score()));
  const ElementStats& stats = *scoredStats;

  std::vector<xmlNodePtr> joining;
  xmlNodePtr first = topElement->parent ? topElement->parent->children : topElement;
  for (xmlNodePtr sibling = first; sibling; sibling = sibling->next) {
    if (sibling->type != XML_ELEMENT_NODE) continue;
    bool append = sibling == topElement;
    if (const QKContentCandidate* candidate = candidates.candidateForElement(sibling);
        !append && candidate && static_cast<double>(candidate->score()) >= threshold) {
      append = true;
    }
    if (!append && isElement(sibling, "p")) {
      const ElementCounts counts = stats.of(sibling);
      const double linkDensity = counts.linkDensity();
      // A paragraph of exactly 80 characters passes neither test, by design of the rule.
      if (counts.textLength > 80 && linkDensity < 0.25) {
        append = true;
      } else if (counts.textLength < 80 && linkDensity == 0.0 &&
                 rules.sentenceEnd.search(textContent(sibling))) {
        append = true;
      }
    }
    if (append) joining.push_back(sibling);
  }

  readTitle();  // the title lives in the page being replaced
  xmlNodePtr article = document->newElement("div");
  for (xmlNodePtr sibling : joining) {
    if (!isElement(sibling, "div") && !isElement(sibling, "p")) {
      xmlNodeSetName(sibling, reinterpret_cast<const xmlChar*>("div"));
    }
    xmlUnlinkNode(sibling);
    xmlAddChild(article, sibling);
  }
  xmlNodePtr html = document->newElement("html");
  xmlNodePtr body = document->newElement("body");
  xmlAddChild(html, body);
  xmlAddChild(body, article);
  document->replaceRoot(html);
  return true;
}

void QKContentParser::Impl::sanitizeElement(xmlNodePtr element) {
  {
    const ElementStats stats(element);
    for (xmlNodePtr heading : document->select("//h1 | //h2 | //h3 | //h4 | //h5 | //h6")) {
      if (classWeight(heading) < 0 || stats.of(heading).linkDensity() > 0.33) document->remove(heading);
    }
  }
  for (xmlNodePtr node : document->select("//p | //div | //span | //ul | //ol")) {
    if (rules.clutter.search(attribute(node, "class")) || rules.clutter.search(attribute(node, "id")))
      document->remove(node);
  }
  for (xmlNodePtr node : document->select("//form | //header | //footer | //nav")) document->remove(node);
  for (xmlNodePtr paragraph : document->select("//p")) {
    if (removeEmptyNodes && isEmptyParagraph(paragraph)) document->remove(paragraph);
  }
  if (cleanConditionally) {
    if (xmlNodePtr body = document->first("//body")) cleanConditionallyNode(body, "table, ul, div");
  }
  for (xmlNodePtr node : document->select("//*")) {
    for (const char* name : {"style", "class", "align", "rel"}) {
      xmlUnsetProp(node, reinterpret_cast<const xmlChar*>(name));
    }
    removeActiveAttributes(node);
  }
}

void QKContentParser::Impl::cleanConditionallyNode(xmlNodePtr node, std::string_view selector) {
  const std::string xpath = descendantsXPath(selector);
  // Nodes come in document order, so a removal only ever changes the counts of nodes already
  // judged: one measurement serves the whole pass.
  const ElementStats stats(node);
  for (xmlNodePtr element : document->select(xpath.c_str(), node)) {
    const std::int64_t weight = classWeight(element);
    const QKContentCandidate* candidate = candidates.candidateForElement(element);
    const std::int64_t contentScore = candidate ? candidate->score() : 0;
    const std::string_view name = elementName(element);
    if (weight + contentScore < 0) {
      logDebugMessage(
          kContentParserLogCategory,
          "Conditionally cleaned {} #{}.{} with weight {} and content score {} because score + content "
          "score was less than zero.",
          name, attribute(element, "id"), attribute(element, "class"), weight, contentScore);
      document->remove(element);
      continue;
    }
    const ElementCounts counts = stats.of(element);
    // Only text with ten commas or more is examined further; shorter lists of clauses stay.
    if (counts.commas < 10) continue;
    const std::int64_t paragraphs = counts.paragraphs;
    const std::int64_t images = counts.images;
    const std::int64_t listItems = counts.listItems - 100;
    const std::int64_t inputs = counts.inputs;
    const std::int64_t embeds = counts.embeds;
    const double linkDensity = counts.linkDensity();
    const std::int64_t contentLength = counts.textLength;
    std::string reason;
    if (images > paragraphs) {
      reason = "too many images";
    } else if (listItems > paragraphs && name != "ul" && name != "ol") {
      reason = "more <li>s than <p>s";
    } else if (inputs > paragraphs / 3) {
      reason = "less than 3x <p>s than <input>s";
    } else if (static_cast<std::uint64_t>(contentLength) < minContentLength && (images == 0 || images > 2)) {
      reason = "too short a content length without a single image";
    } else if ((weight < 25 && linkDensity > 0.2) || (weight >= 25 && linkDensity > 0.5)) {
      reason = fmt::format("too many links for its weight ({})", weight);
    } else if ((embeds == 1 && contentLength < 75) || embeds > 1) {
      reason = "<embed>s with too short a content length, or too many <embed>s";
    }
    if (reason.empty()) continue;
    logDebugMessage(kContentParserLogCategory,
                    "Conditionally cleaned {}#{}.{} with weight {} and content score {} because it has {}.",
                    name, attribute(element, "id"), attribute(element, "class"), weight, contentScore,
                    reason);
    document->remove(element);
  }
}

const std::string& QKContentParser::Impl::readTitle() {
  if (!title) {
    xmlNodePtr titleNode = document->first("//title");
    title = titleNode ? textContent(titleNode) : "";
  }
  return *title;
}

QKContentParser::QKContentParser() { throw InternalInconsistency(std::string(kMustUseInitWithURL)); }

QKContentParser::QKContentParser(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
QKContentParser::QKContentParser(QKContentParser&&) noexcept = default;
QKContentParser& QKContentParser::operator=(QKContentParser&&) noexcept = default;
QKContentParser::~QKContentParser() = default;

Result<QKContentParser> QKContentParser::fromText(std::string_view utf8) {
  auto document = HtmlDocument::parse(utf8);
  if (!document) return fail(document.error());
  auto impl = std::make_unique<Impl>(*std::move(document));
  impl->removeComments();
  return QKContentParser(std::move(impl));
}

namespace {

Result<void> checkSize(std::string_view bytes) {
  if (bytes.size() <= QKContentParser::kMaxPageBytes) return {};
  return fail(kLecternErrorDomain, kContentPageTooLarge, "Failed to extract content",
              fmt::format("The page is {} bytes long; pages above {} bytes are not read.", bytes.size(),
                          QKContentParser::kMaxPageBytes));
}

}  // namespace

Result<QKContentParser> QKContentParser::initWithHTML(std::string_view html) {
  if (auto size = checkSize(html); !size) return fail(size.error());
  return fromText(textAsUTF8(html));
}

Result<QKContentParser> QKContentParser::initWithData(std::string_view data, std::string_view charset) {
  if (auto size = checkSize(data); !size) return fail(size.error());
  // Decoding never fails (unknown bytes become U+FFFD), so there is no second reading as plain text.
  return fromText(decodePage(data, charset).text);
}

const std::string& QKContentParser::fetchContent() {
  Impl& impl = *impl_;
  if (impl.content) return *impl.content;
  impl.content.emplace();
  impl.prepareCandidates();
  if (impl.getArticle()) {
    if (xmlNodePtr article = impl.document->first("//body/div")) {
      impl.sanitizeElement(article);
      *impl.content = HtmlDocument::serialize(article);
    }
  }
  impl.scoredStats.reset();
  return *impl.content;
}

const std::string& QKContentParser::title() { return impl_->readTitle(); }

bool QKContentParser::isWeightClasses() const { return impl_->weightClasses; }
void QKContentParser::setWeightClasses(bool weightClasses) { impl_->weightClasses = weightClasses; }
bool QKContentParser::isRemoveEmptyNodes() const { return impl_->removeEmptyNodes; }
void QKContentParser::setRemoveEmptyNodes(bool removeEmptyNodes) {
  impl_->removeEmptyNodes = removeEmptyNodes;
}
bool QKContentParser::isCleanConditionally() const { return impl_->cleanConditionally; }
void QKContentParser::setCleanConditionally(bool cleanConditionally) {
  impl_->cleanConditionally = cleanConditionally;
}
std::uint64_t QKContentParser::minContentLength() const { return impl_->minContentLength; }
void QKContentParser::setMinContentLength(std::uint64_t minContentLength) {
  impl_->minContentLength = minContentLength;
}
const std::string& QKContentParser::domain() const { return impl_->domain; }
void QKContentParser::setDomain(std::string domain) { impl_->domain = std::move(domain); }
const QKContentCandidates& QKContentParser::candidates() const { return impl_->candidates; }

}  // namespace lectern
