#pragma once

// Internal to the content module.

#include <cstdint>
#include <vector>

#include "content/HtmlDocument.h"

namespace lectern {

// What the scoring rules measure about an element's subtree.
struct ElementCounts {
  std::int64_t textLength = 0;      // characters of all text below
  std::int64_t commas = 0;          // "," in that text
  std::int64_t linkTextLength = 0;  // summed text length of every <a> below (not the element itself)
  std::int64_t paragraphs = 0;      // <p> descendants
  std::int64_t images = 0;          // <img>
  std::int64_t listItems = 0;       // <li>
  std::int64_t inputs = 0;          // <input>
  std::int64_t embeds = 0;          // <embed>

  // Link text over text; 0 for an element without text.
  double linkDensity() const {
    return textLength == 0 ? 0.0 : static_cast<double>(linkTextLength) / static_cast<double>(textLength);
  }
};

// The counts of every element of a subtree, taken in one bottom-up pass; valid until it changes.
// Owned by the parser step that made it; marks the elements' `_private` field.
class ElementStats {
 public:
  // One walk for the whole subtree, so that scoring nested elements never walks a subtree per level.
  explicit ElementStats(xmlNodePtr root);

  // An element it did not measure is measured on demand.
  ElementCounts of(const xmlNode* element) const;

 private:
  ElementStats(xmlNodePtr root, bool mark);

  std::vector<const xmlNode*> elements_;
  std::vector<ElementCounts> counts_;
};

}  // namespace lectern
