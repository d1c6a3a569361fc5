#pragma once

// Internal to the content module: the only place besides its .cpp files that sees libxml2.

#include <libxml/tree.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/Error.h"

namespace lectern {

// A parsed HTML page with the XPath queries and edits the extractor makes on it.
// Owned by one QKContentParser; used by one thread at a time.
class HtmlDocument {
 public:
  // Parses UTF-8 text with libxml2's recovering HTML parser: no network, no output, at most
  // 256 levels of nesting (libxml2 stops reading deeper pages, keeping what came before).
  static Result<std::unique_ptr<HtmlDocument>> parse(std::string_view utf8);
  ~HtmlDocument();
  HtmlDocument(const HtmlDocument&) = delete;
  HtmlDocument& operator=(const HtmlDocument&) = delete;

  xmlDocPtr doc() const { return doc_; }

  // The nodes `xpath` selects, in document order. A relative expression starts at `context`
  // (the document when null). A bad expression selects nothing. Unions of descendant steps by
  // name ("//p | //td | //div", ".//table", "//*", "//comment()"), most of what the extractor
  // asks, are answered by one walk of the tree; everything else goes to evaluateXPath.
  std::vector<xmlNodePtr> select(const char* xpath, xmlNodePtr context = nullptr) const;
  // The same through libxml2's XPath engine, whatever the expression.
  std::vector<xmlNodePtr> evaluateXPath(const char* xpath, xmlNodePtr context = nullptr) const;
  xmlNodePtr first(const char* xpath, xmlNodePtr context = nullptr) const;

  // Takes `node` out of the tree. It stays allocated until the document goes, so node lists
  // taken before the removal may still be walked; removing a removed node does nothing.
  void remove(xmlNodePtr node);
  // Makes `root` the document's root element; the old tree is kept like a removed node.
  void replaceRoot(xmlNodePtr root);
  xmlNodePtr newElement(const char* name);

  // `node` written as XML (UTF-8, no declaration, no added white space), except that an empty
  // element other than a void one (img, br, hr ...) gets an end tag: "<div></div>", never "<div/>".
  static std::string serialize(xmlNodePtr node);

 private:
  explicit HtmlDocument(xmlDocPtr doc);

  xmlDocPtr doc_;
  std::vector<xmlNodePtr> removed_;
};

// Small reads on nodes, total over any node pointer.

// The element name ("" for other nodes). libxml2's HTML parser lower-cases names.
std::string_view elementName(const xmlNode* node);
bool isElement(const xmlNode* node, std::string_view name);
// An attribute's value, "" when it is missing.
std::string attribute(const xmlNode* node, const char* name);
// The text of the node and its descendants, concatenated.
std::string textContent(const xmlNode* node);
// Characters (code points) in UTF-8 text.
size_t characterCount(std::string_view utf8);

// Calls `visit(node)` for `root` and every node below it, in document order. Iterative, so a
// deep tree costs no stack.
template <typename Visit>
void forEachNode(xmlNodePtr root, Visit&& visit) {
  if (!root) return;
  xmlNodePtr node = root;
  while (true) {
    visit(node);
    if (node->children && (node->type == XML_ELEMENT_NODE || node->type == XML_HTML_DOCUMENT_NODE ||
                           node->type == XML_DOCUMENT_NODE)) {
      node = node->children;
      continue;
    }
    while (node != root && !node->next) node = node->parent;
    if (node == root) return;
    node = node->next;
  }
}

}  // namespace lectern
