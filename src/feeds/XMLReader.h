#pragma once

#include <string_view>

#include "core/Error.h"
#include "feeds/XmlNode.h"
#include "feeds/XmlSaxParser.h"

namespace lectern {

// Reads an XML document into the dictionary tree the feed and OPML readers work on.
// Stateless; any thread may call it.
//
// Each element becomes a dictionary holding its attributes, its children under their qualified
// names (a name that repeats under one parent holds a list, in document order; an attribute and
// a child of the same name share a list) and its character data under "textNode", untrimmed.
// Text is gathered in one buffer that the next element end stores, so text split by a child
// element lands on the element that ends first. White space alone next to a child element is
// layout, not content, and is dropped; an element without children keeps its text as written.
// Under an Atom feed, an element with type="xhtml" holds its content written back as markup
// under "textNode" (see XhtmlCapture), and no child dictionaries.
class XMLReader {
 public:
  // When the bytes are not well-formed XML they are read once more as repaired UTF-8 text,
  // whatever encoding the document declares: bytes that are not UTF-8 taken as Windows-1252
  // characters, control characters XML forbids dropped, white space before the declaration
  // dropped and an '&' that starts no reference escaped. If that fails too, its error is returned.
  // HTML's named characters (&nbsp;) read as their characters in either reading.
  static Result<XmlDocument> dictionaryForXMLData(std::string_view data, const XmlParseLimits& limits = {});
  // Text is already UTF-8 here, so this is the same as reading its bytes.
  static Result<XmlDocument> dictionaryForXMLString(std::string_view text,
                                                    const XmlParseLimits& limits = {}) {
    return dictionaryForXMLData(text, limits);
  }
};

}  // namespace lectern
