#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "feeds/XmlSaxParser.h"

namespace lectern {

// Writes the content of an Atom text construct of type "xhtml" (<content type="xhtml"><div
// xmlns="http://www.w3.org/1999/xhtml">...</div></content>) back as markup, from the parser events
// inside it. Owned by one reader's event handler; one parse at a time.
class XhtmlCapture {
 public:
  // Whether an element with these attributes, in a document whose root element is `rootName`,
  // opens such a construct: type="xhtml" under an Atom feed.
  static bool opensConstruct(std::string_view rootName, std::span<const XmlAttribute> attributes);

  // Called after the construct's own start; the events up to its end go here instead.
  void begin();
  bool active() const { return active_; }
  void startElement(std::string_view name, std::span<const XmlAttribute> attributes);
  // False when `name` ends the construct itself: the capture is over and take() has its value.
  bool endElement(std::string_view name);
  void characters(std::string_view text);

  // The markup inside the wrapping div when the construct holds that div alone (white space
  // aside), else the markup of everything it holds. Names lose the div's prefix ("xhtml:p" is
  // "p"), namespace declarations are dropped, and an empty element is written with an end tag
  // ("<a></a>") unless it is a void one ("<br/>").
  std::string take();

 private:
  std::string markup_;
  std::string divPrefix_;     // "xhtml:" when the wrapping div was written <xhtml:div>
  std::size_t depth_ = 0;     // elements open inside the construct
  std::size_t children_ = 0;  // elements directly inside the construct
  std::size_t divInner_ = 0;  // where the first child's content starts in markup_
  std::size_t divEnd_ = 0;    // and where it ends
  bool firstChildIsDiv_ = false;
  bool textOutside_ = false;   // text beside the elements directly inside the construct
  bool openStartTag_ = false;  // the last thing written is a start tag, without its '>'
  bool active_ = false;
};

}  // namespace lectern
