#pragma once

#include <cstddef>
#include <filesystem>
#include <span>
#include <string_view>

#include "core/Error.h"

namespace lectern {

// Errors of reading XML: libxml2's own error codes, and ours for the limits below.
inline constexpr std::string_view kXmlParserErrorDomain = "com.quillhq.Lectern.XMLParser";
enum XmlLimitError : int {
  kXmlErrorDocumentTooLarge = 10001,
  kXmlErrorTooManyElements = 10002,
  kXmlErrorTooDeep = 10003,
  kXmlErrorExpansionTooLarge = 10004,
};
inline bool isXmlLimitError(const Error& error) {
  return error.domain == kXmlParserErrorDomain && error.code >= kXmlErrorDocumentTooLarge &&
         error.code <= kXmlErrorExpansionTooLarge;
}

// What a hostile or broken document may cost before it is refused. The text handed out
// (character data and attribute values, entities expanded) may not exceed
// `maxExpansion` times the document's size plus a megabyte.
struct XmlParseLimits {
  std::size_t maxDocumentBytes = std::size_t{64} << 20;
  std::size_t maxElements = 4'000'000;
  std::size_t maxDepth = 256;
  std::size_t maxExpansion = 4;
};

// How the bytes are decoded: as the document declares (or libxml2 detects), or as UTF-8
// whatever the declaration says.
enum class XmlInputEncoding { kDeclared, kUTF8 };

struct XmlAttribute {
  std::string_view name;  // qualified, as written ("xml:lang", "xmlns:dc")
  std::string_view value;
};

// Receives the events of one parse. Names are qualified as written, prefixes unresolved
// ("dc:date"), with one exception: in a document whose root element is in the Atom namespace,
// an element in that namespace is named by its local name whatever prefix binds it
// (<a:entry> is "entry"). Every view, the names included, is valid until the parse ends.
class XmlSaxHandler {
 public:
  virtual ~XmlSaxHandler() = default;
  virtual void startElement(std::string_view name, std::span<const XmlAttribute> attributes) = 0;
  virtual void endElement(std::string_view name) = 0;
  virtual void characters(std::string_view text) = 0;
  virtual void cdataBlock(std::string_view text) { characters(text); }
};

// An event-driven XML parse over libxml2 that never touches the network or loads an external
// entity or DTD, expands internal entities within bounds and stops at the first fatal error.
// Stateless: any thread may parse, each parse on its own.
class XmlSaxParser {
 public:
  static Result<void> parse(std::string_view bytes, XmlSaxHandler& handler,
                            XmlInputEncoding encoding = XmlInputEncoding::kDeclared,
                            const XmlParseLimits& limits = {});
  // Reads the file in chunks, so a large one is never held in memory whole.
  static Result<void> parseFile(const std::filesystem::path& file, XmlSaxHandler& handler,
                                const XmlParseLimits& limits = {});
};

}  // namespace lectern
