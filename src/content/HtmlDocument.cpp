#include "content/HtmlDocument.h"

#include <libxml/HTMLparser.h>
#include <libxml/HTMLtree.h>
#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlsave.h>
#include <libxml/xpath.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <mutex>
#include <optional>

#include "core/QuietLibxml.h"
#include "core/Strings.h"

namespace lectern {
namespace {

// libxml2 wants its one-time set-up done before threads use it concurrently.
void initializeLibxml() {
  static std::once_flag once;
  std::call_once(once, [] { xmlInitParser(); });
}

// Recovering, silent, offline; the text is already UTF-8, so <meta charset> must not re-decode it.
constexpr int kParseOptions = HTML_PARSE_RECOVER | HTML_PARSE_NOERROR | HTML_PARSE_NOWARNING |
                              HTML_PARSE_NONET | HTML_PARSE_COMPACT | HTML_PARSE_IGNORE_ENC;

const char* asChars(const xmlChar* text) { return reinterpret_cast<const char*>(text); }

// An expression made only of descendant steps by name, joined by "|": "//p | //td", ".//table",
// "//*", "//comment()".
struct NameSteps {
  bool relative = false;  // ".//" steps, from the context node
  bool anyElement = false;
  bool comments = false;
  std::vector<std::string> names;
};

bool isNameStart(char c) { return std::isalpha(static_cast<unsigned char>(c)) || c == '_'; }
bool isNameCharacter(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.';
}

std::optional<NameSteps> nameSteps(std::string_view xpath) {
  NameSteps steps;
  const std::vector<std::string> parts = split(xpath, "|");
  for (size_t i = 0; i < parts.size(); ++i) {
    std::string_view step = trimView(parts[i]);
    const bool relative = step.starts_with(".//");
    if (!relative && !step.starts_with("//")) return std::nullopt;
    if (i > 0 && relative != steps.relative) return std::nullopt;
    steps.relative = relative;
    step.remove_prefix(relative ? 3 : 2);
    if (step == "*") {
      steps.anyElement = true;
    } else if (step == "comment()") {
      steps.comments = true;
    } else if (!step.empty() && isNameStart(step.front()) &&
               std::all_of(step.begin() + 1, step.end(), isNameCharacter)) {
      steps.names.emplace_back(step);
    } else {
      return std::nullopt;
    }
  }
  return steps;
}
const xmlChar* asXmlChars(const char* text) { return reinterpret_cast<const xmlChar*>(text); }

}  // namespace

Result<std::unique_ptr<HtmlDocument>> HtmlDocument::parse(std::string_view utf8) {
  if (utf8.size() > static_cast<size_t>(INT_MAX)) {
    return fail(kLecternErrorDomain, 0, "Failed to read page", "The page is too large.");
  }
  initializeLibxml();
  QuietLibxml quiet;
  htmlDocPtr doc = nullptr;
  if (!utf8.empty()) {
    doc = htmlReadMemory(utf8.data(), static_cast<int>(utf8.size()), nullptr, nullptr, kParseOptions);
  }
  // libxml2 gives no document for an empty or blank page; an empty one reads the same.
  if (!doc) doc = htmlNewDocNoDtD(nullptr, nullptr);
  if (!doc) return fail(kLecternErrorDomain, 0, "Failed to read page", "Out of memory.");
  return std::unique_ptr<HtmlDocument>(new HtmlDocument(doc));
}

HtmlDocument::HtmlDocument(xmlDocPtr doc) : doc_(doc) {}

HtmlDocument::~HtmlDocument() {
  // Removed nodes still use the document's name dictionary: they go first.
  for (xmlNodePtr node : removed_) xmlFreeNode(node);
  xmlFreeDoc(doc_);
}

std::vector<xmlNodePtr> HtmlDocument::select(const char* xpath, xmlNodePtr context) const {
  const auto steps = nameSteps(xpath);
  if (!steps) return evaluateXPath(xpath, context);
  std::vector<xmlNodePtr> nodes;
  const xmlNodePtr start = steps->relative && context ? context : reinterpret_cast<xmlNodePtr>(doc_);
  forEachNode(start, [&](xmlNodePtr node) {
    if (node == start) return;
    if (node->type == XML_ELEMENT_NODE) {
      if (steps->anyElement ||
          std::any_of(steps->names.begin(), steps->names.end(),
                      [&](const std::string& name) { return name == asChars(node->name); })) {
        nodes.push_back(node);
      }
    } else if (node->type == XML_COMMENT_NODE && steps->comments) {
      nodes.push_back(node);
    }
  });
  return nodes;
}

std::vector<xmlNodePtr> HtmlDocument::evaluateXPath(const char* xpath, xmlNodePtr context) const {
  std::vector<xmlNodePtr> nodes;
  QuietLibxml quiet;
  std::unique_ptr<xmlXPathContext, decltype(&xmlXPathFreeContext)> xpathContext(xmlXPathNewContext(doc_),
                                                                                &xmlXPathFreeContext);
  if (!xpathContext) return nodes;
  xpathContext->node = context ? context : reinterpret_cast<xmlNodePtr>(doc_);
  std::unique_ptr<xmlXPathObject, decltype(&xmlXPathFreeObject)> result(
      xmlXPathEvalExpression(asXmlChars(xpath), xpathContext.get()), &xmlXPathFreeObject);
  if (!result || result->type != XPATH_NODESET || !result->nodesetval) return nodes;
  const int count = xmlXPathNodeSetGetLength(result->nodesetval);
  nodes.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) nodes.push_back(xmlXPathNodeSetItem(result->nodesetval, i));
  return nodes;
}

xmlNodePtr HtmlDocument::first(const char* xpath, xmlNodePtr context) const {
  const auto nodes = select(xpath, context);
  return nodes.empty() ? nullptr : nodes.front();
}

void HtmlDocument::remove(xmlNodePtr node) {
  if (!node || !node->parent) return;
  xmlUnlinkNode(node);
  removed_.push_back(node);
}

void HtmlDocument::replaceRoot(xmlNodePtr root) {
  if (xmlNodePtr old = xmlDocSetRootElement(doc_, root)) removed_.push_back(old);
}

xmlNodePtr HtmlDocument::newElement(const char* name) {
  return xmlNewDocNode(doc_, nullptr, asXmlChars(name), nullptr);
}

namespace {

// Elements HTML never gives content or an end tag.
bool isVoidElement(std::string_view name) {
  static constexpr std::string_view kVoid[] = {"area",  "base",  "basefont", "bgsound", "br",    "col",
                                               "embed", "frame", "hr",       "img",     "input", "keygen",
                                               "link",  "meta",  "param",    "source",  "track", "wbr"};
  return std::find(std::begin(kVoid), std::end(kVoid), name) != std::end(kVoid);
}

}  // namespace

std::string HtmlDocument::serialize(xmlNodePtr node) {
  if (!node) return {};
  QuietLibxml quiet;
  // Written straight into a string: libxml2's own buffers grow by the exact size needed, which
  // turns a large article into quadratic copying.
  std::string out;
  const auto write = [](void* context, const char* bytes, int length) {
    static_cast<std::string*>(context)->append(bytes, static_cast<size_t>(length));
    return length;
  };
  xmlSaveCtxtPtr save = xmlSaveToIO(write, nullptr, &out, "UTF-8", XML_SAVE_AS_XML | XML_SAVE_NO_DECL);
  if (!save) return {};
  // libxml2 writes a childless element as "<div/>", which an HTML reader takes for an open tag
  // that swallows what follows. An empty text child makes it write "<div></div>"; the children
  // added here are taken out again after writing, so the tree is left as it was.
  std::vector<xmlNodePtr> placeholders;
  forEachNode(node, [&](xmlNodePtr element) {
    if (element->type != XML_ELEMENT_NODE || element->children || isVoidElement(elementName(element))) return;
    if (xmlNodePtr empty = xmlNewDocText(element->doc, asXmlChars(""))) {
      placeholders.push_back(xmlAddChild(element, empty));
    }
  });
  xmlSaveTree(save, node);
  xmlSaveClose(save);
  for (xmlNodePtr empty : placeholders) {
    xmlUnlinkNode(empty);
    xmlFreeNode(empty);
  }
  return out;
}

std::string_view elementName(const xmlNode* node) {
  if (!node || node->type != XML_ELEMENT_NODE || !node->name) return {};
  return asChars(node->name);
}

bool isElement(const xmlNode* node, std::string_view name) { return elementName(node) == name; }

std::string attribute(const xmlNode* node, const char* name) {
  if (!node || node->type != XML_ELEMENT_NODE) return {};
  for (const xmlAttr* attr = node->properties; attr; attr = attr->next) {
    if (!attr->name || std::string_view(asChars(attr->name)) != name) continue;
    // Almost always one text child; anything else goes through libxml2.
    if (attr->children && !attr->children->next && attr->children->type == XML_TEXT_NODE) {
      return attr->children->content ? asChars(attr->children->content) : "";
    }
    xmlChar* value = xmlNodeGetContent(reinterpret_cast<const xmlNode*>(attr));
    std::string text = value ? asChars(value) : "";
    xmlFree(value);
    return text;
  }
  return {};
}

std::string textContent(const xmlNode* node) {
  std::string text;
  forEachNode(const_cast<xmlNodePtr>(node), [&](xmlNodePtr n) {
    if ((n->type == XML_TEXT_NODE || n->type == XML_CDATA_SECTION_NODE) && n->content)
      text += asChars(n->content);
  });
  return text;
}

size_t characterCount(std::string_view utf8) {
  size_t count = 0;
  for (const char c : utf8) count += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  return count;
}

}  // namespace lectern
