#include "content/ElementStats.h"

#include <cstring>

namespace lectern {
namespace {

void addText(ElementCounts& counts, const xmlNode* text) {
  if (!text->content) return;
  for (const xmlChar* c = text->content; *c; ++c) {
    counts.textLength += (*c & 0xC0) != 0x80;
    counts.commas += *c == ',';
  }
}

void fold(ElementCounts& parent, const ElementCounts& child, std::string_view childName) {
  parent.textLength += child.textLength;
  parent.commas += child.commas;
  parent.linkTextLength += child.linkTextLength + (childName == "a" ? child.textLength : 0);
  parent.paragraphs += child.paragraphs + (childName == "p");
  parent.images += child.images + (childName == "img");
  parent.listItems += child.listItems + (childName == "li");
  parent.inputs += child.inputs + (childName == "input");
  parent.embeds += child.embeds + (childName == "embed");
}

// Walks `root` depth first without recursion, calling enter(node) on the way down and
// leave(node) once every child of it has been left.
template <typename Enter, typename Leave>
void walk(xmlNodePtr root, Enter&& enter, Leave&& leave) {
  xmlNodePtr node = root;
  enter(node);
  while (true) {
    if (node->type == XML_ELEMENT_NODE && node->children) {
      node = node->children;
      enter(node);
      continue;
    }
    while (true) {
      leave(node);
      if (node == root) return;
      if (node->next) {
        node = node->next;
        enter(node);
        break;
      }
      node = node->parent;
    }
  }
}

}  // namespace

ElementStats::ElementStats(xmlNodePtr root) : ElementStats(root, /*mark=*/true) {}

ElementStats::ElementStats(xmlNodePtr root, bool mark) {
  if (!root || root->type != XML_ELEMENT_NODE) return;
  std::vector<size_t> open;  // the elements being walked, innermost last
  walk(
      root,
      [&](xmlNodePtr node) {
        if (node->type == XML_ELEMENT_NODE) {
          const size_t index = counts_.size();
          elements_.push_back(node);
          counts_.emplace_back();
          if (mark) node->_private = reinterpret_cast<void*>(static_cast<std::uintptr_t>(index + 1));
          open.push_back(index);
        } else if ((node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE) && !open.empty()) {
          addText(counts_[open.back()], node);
        }
      },
      [&](xmlNodePtr node) {
        if (node->type != XML_ELEMENT_NODE) return;
        const size_t index = open.back();
        open.pop_back();
        if (!open.empty()) fold(counts_[open.back()], counts_[index], elementName(node));
      });
}

ElementCounts ElementStats::of(const xmlNode* element) const {
  if (!element || element->type != XML_ELEMENT_NODE) return {};
  const auto index = reinterpret_cast<std::uintptr_t>(element->_private);
  if (index >= 1 && index <= elements_.size() && elements_[index - 1] == element) return counts_[index - 1];
  const ElementStats fresh(const_cast<xmlNodePtr>(element), /*mark=*/false);
  return fresh.counts_.empty() ? ElementCounts{} : fresh.counts_.front();
}

}  // namespace lectern
