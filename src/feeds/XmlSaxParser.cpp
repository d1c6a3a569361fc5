#include "feeds/XmlSaxParser.h"

#include <fmt/format.h>
#include <libxml/HTMLparser.h>
#include <libxml/SAX2.h>
#include <libxml/entities.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/xmlerror.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/Strings.h"

namespace lectern {
namespace {

constexpr std::size_t kExpansionSlack = std::size_t{1} << 20;
constexpr std::string_view kAtomNamespace = "http://www.w3.org/2005/Atom";

std::string_view view(const xmlChar* text) {
  return text ? std::string_view(reinterpret_cast<const char*>(text)) : "";
}

Error parserError(int code, std::string_view recoverySuggestion) {
  return Error::make(kXmlParserErrorDomain, code, "Couldn't read the XML document", recoverySuggestion);
}

Error errorFromLibxml(const xmlError& error) {
  // libxml2 ends its messages with a line break and sometimes puts the offending bytes on a second line.
  std::string message =
      replaceAll(trimView(view(reinterpret_cast<const xmlChar*>(error.message))), "\n", " ");
  if (message.empty()) message = "The document is not well-formed XML.";
  Error result = parserError(
      error.code,
      error.line > 0 ? fmt::format("Line {}, column {}: {}", error.line, error.int2, message) : message);
  if (error.line > 0) {
    result.userInfo["line"] = std::to_string(error.line);
    result.userInfo["column"] = std::to_string(error.int2);
  }
  return result;
}

// Where the bytes come from, read in chunks as libxml2 asks for them: the parser then holds only
// the part it is working on, never a second copy of the whole document.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  virtual int read(char* buffer, int length) = 0;  // bytes read, 0 at the end, -1 on failure

  static int read(void* source, char* buffer, int length) {
    return static_cast<ByteSource*>(source)->read(buffer, length);
  }
  static int close(void*) { return 0; }
};

class MemorySource final : public ByteSource {
 public:
  explicit MemorySource(std::string_view bytes) : bytes_(bytes) {}
  int read(char* buffer, int length) override {
    const std::size_t n = std::min(bytes_.size() - offset_, static_cast<std::size_t>(length));
    std::memcpy(buffer, bytes_.data() + offset_, n);
    offset_ += n;
    return static_cast<int>(n);
  }

 private:
  std::string_view bytes_;
  std::size_t offset_ = 0;
};

class FileSource final : public ByteSource {
 public:
  explicit FileSource(std::FILE* file) : file_(file) {}
  ~FileSource() override { std::fclose(file_); }
  FileSource(const FileSource&) = delete;
  FileSource& operator=(const FileSource&) = delete;
  int read(char* buffer, int length) override {
    const std::size_t n = std::fread(buffer, 1, static_cast<std::size_t>(length), file_);
    return n == 0 && std::ferror(file_) ? -1 : static_cast<int>(n);
  }

 private:
  std::FILE* file_;
};

struct PointerPairHash {
  std::size_t operator()(const std::pair<const void*, const void*>& p) const noexcept {
    return std::hash<const void*>()(p.first) * 31 + std::hash<const void*>()(p.second);
  }
};

// The state of one parse, reached from libxml2's callbacks through the context's _private slot
// (libxml2 carries that slot into the contexts it makes for entity contents).
class Session {
 public:
  Session(XmlSaxHandler& handler, const XmlParseLimits& limits, std::size_t documentBytes)
      : handler_(handler),
        limits_(limits),
        textBudget_(documentBytes * limits.maxExpansion + kExpansionSlack) {}

  ~Session() {
    if (htmlEntities_) xmlFreeDoc(htmlEntities_);
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  static Session& of(void* context) {
    return *static_cast<Session*>(static_cast<xmlParserCtxtPtr>(context)->_private);
  }

  bool failed() const { return limitError_.has_value(); }
  const std::optional<Error>& limitError() const { return limitError_; }
  const std::optional<Error>& firstFatalError() const { return fatalError_; }

  void startElement(xmlParserCtxtPtr context, const xmlChar* localname, const xmlChar* prefix,
                    const xmlChar* uri, int namespaceCount, const xmlChar** namespaces, int attributeCount,
                    const xmlChar** attributes) {
    if (failed()) return;
    if (++elements_ > limits_.maxElements) {
      return stop(context, kXmlErrorTooManyElements,
                  fmt::format("The document has more than {} elements.", limits_.maxElements));
    }
    if (++depth_ > limits_.maxDepth) {
      return stop(context, kXmlErrorTooDeep,
                  fmt::format("The document nests deeper than {} elements.", limits_.maxDepth));
    }
    attributes_.clear();
    decoded_.clear();
    // Namespace declarations stay ordinary attributes, as they are without namespace processing.
    for (int i = 0; i < namespaceCount; ++i) {
      const xmlChar* nsPrefix = namespaces[2 * i];
      attributes_.push_back({nsPrefix ? qualifiedName(nsPrefix, kXmlnsMarker) : std::string_view("xmlns"),
                             view(namespaces[2 * i + 1])});
    }
    // Values that hold references arrive undecoded ("&#38;" for "&"); decode them into one buffer
    // first and take views after, as the buffer may move while it grows.
    decodedSpans_.clear();
    for (int i = 0; i < attributeCount; ++i) {
      const xmlChar** a = attributes + 5 * i;
      const auto length = static_cast<std::size_t>(a[4] - a[3]);
      std::string_view value(reinterpret_cast<const char*>(a[3]), length);
      if (value.find('&') != std::string_view::npos) {
        xmlChar* expanded =
            xmlStringLenDecodeEntities(context, a[3], static_cast<int>(length), XML_SUBSTITUTE_REF, 0, 0, 0);
        const std::size_t at = decoded_.size();
        decoded_ += view(expanded);
        xmlFree(expanded);
        decodedSpans_.emplace_back(attributes_.size(), at);
        value = {};
      }
      if (!spend(context, value.size())) return;
      attributes_.push_back({a[1] ? qualifiedName(a[1], a[0]) : view(a[0]), value});
    }
    for (std::size_t k = 0; k < decodedSpans_.size(); ++k) {
      const auto [index, at] = decodedSpans_[k];
      const std::size_t end = k + 1 < decodedSpans_.size() ? decodedSpans_[k + 1].second : decoded_.size();
      attributes_[index].value = std::string_view(decoded_).substr(at, end - at);
      if (!spend(context, end - at)) return;
    }
    if (depth_ == 1) atomDocument_ = view(uri) == kAtomNamespace;
    handler_.startElement(elementName(localname, prefix, uri), attributes_);
  }

  void endElement(const xmlChar* localname, const xmlChar* prefix, const xmlChar* uri) {
    if (failed()) return;
    --depth_;
    handler_.endElement(elementName(localname, prefix, uri));
  }

  void characters(xmlParserCtxtPtr context, const xmlChar* text, int length, bool cdata) {
    if (failed() || !spend(context, static_cast<std::size_t>(length))) return;
    const std::string_view chunk(reinterpret_cast<const char*>(text), static_cast<std::size_t>(length));
    cdata ? handler_.cdataBlock(chunk) : handler_.characters(chunk);
  }

  // Entities are looked up here; refusing them once over budget stops nested expansions at once.
  xmlEntityPtr entity(xmlParserCtxtPtr context, const xmlChar* name) {
    if (failed()) return nullptr;
    if (xmlEntityPtr declared = xmlSAX2GetEntity(context, name)) return declared;
    return context->inSubset == 0 ? htmlEntity(name) : nullptr;
  }

  void error(const xmlError& error) {
    if (error.level == XML_ERR_FATAL && !fatalError_) fatalError_ = errorFromLibxml(error);
  }

 private:
  // Marks the second half of the key under which "xmlns:<prefix>" is cached.
  static inline const xmlChar kXmlnsMarker[] = "xmlns";

  // Feeds use HTML's named characters (&nbsp;, &eacute;) without declaring them, or declare them in
  // a DTD that is never loaded. Such a name reads as its character, from entities kept in a
  // document of our own so the parser's document is left as it is.
  xmlEntityPtr htmlEntity(const xmlChar* name) {
    const htmlEntityDesc* html = htmlEntityLookup(name);
    if (!html) return nullptr;
    if (!htmlEntities_) {
      htmlEntities_ = xmlNewDoc(reinterpret_cast<const xmlChar*>("1.0"));
      if (!htmlEntities_) return nullptr;
      xmlCreateIntSubset(htmlEntities_, reinterpret_cast<const xmlChar*>("html"), nullptr, nullptr);
    }
    if (xmlEntityPtr made = xmlGetDocEntity(htmlEntities_, name)) return made;
    xmlChar content[5] = {};
    if (xmlCopyCharMultiByte(content, static_cast<int>(html->value)) <= 0) return nullptr;
    return xmlAddDocEntity(htmlEntities_, name, XML_INTERNAL_GENERAL_ENTITY, nullptr, nullptr, content);
  }

  bool spend(xmlParserCtxtPtr context, std::size_t bytes) {
    textBytes_ += bytes;
    if (textBytes_ <= textBudget_) return true;
    stop(context, kXmlErrorExpansionTooLarge,
         "The document's entities expand to more text than Lectern reads.");
    return false;
  }

  void stop(xmlParserCtxtPtr context, int code, std::string_view reason) {
    limitError_ = parserError(code, reason);
    xmlStopParser(context);
  }

  // The name as written, but an Atom element of an Atom document by its local name whatever
  // prefix it was given, so that <a:entry> reads as <entry>.
  std::string_view elementName(const xmlChar* localname, const xmlChar* prefix, const xmlChar* uri) {
    if (!prefix || (atomDocument_ && view(uri) == kAtomNamespace)) return view(localname);
    return qualifiedName(prefix, localname);
  }

  // "prefix:local", made once per name: libxml2 hands out each name as one interned pointer.
  std::string_view qualifiedName(const xmlChar* prefix, const xmlChar* localname) {
    auto [it, inserted] = qualifiedNames_.try_emplace({prefix, localname});
    if (inserted) {
      it->second = localname == kXmlnsMarker ? fmt::format("xmlns:{}", view(prefix))
                                             : fmt::format("{}:{}", view(prefix), view(localname));
    }
    return it->second;
  }

  XmlSaxHandler& handler_;
  const XmlParseLimits& limits_;
  std::size_t textBudget_;
  std::size_t textBytes_ = 0;
  std::size_t elements_ = 0;
  std::size_t depth_ = 0;
  std::optional<Error> limitError_;
  std::optional<Error> fatalError_;
  std::vector<XmlAttribute> attributes_;
  std::string decoded_;
  std::vector<std::pair<std::size_t, std::size_t>> decodedSpans_;  // (attribute index, offset in decoded_)
  std::unordered_map<std::pair<const void*, const void*>, std::string, PointerPairHash> qualifiedNames_;
  xmlDocPtr htmlEntities_ = nullptr;
  bool atomDocument_ = false;  // the root element is in the Atom namespace
};

void onStartElement(void* context, const xmlChar* localname, const xmlChar* prefix, const xmlChar* uri,
                    int namespaceCount, const xmlChar** namespaces, int attributeCount, int /*defaulted*/,
                    const xmlChar** attributes) {
  Session::of(context).startElement(static_cast<xmlParserCtxtPtr>(context), localname, prefix, uri,
                                    namespaceCount, namespaces, attributeCount, attributes);
}

void onEndElement(void* context, const xmlChar* localname, const xmlChar* prefix, const xmlChar* uri) {
  Session::of(context).endElement(localname, prefix, uri);
}

void onCharacters(void* context, const xmlChar* text, int length) {
  Session::of(context).characters(static_cast<xmlParserCtxtPtr>(context), text, length, false);
}

void onCdata(void* context, const xmlChar* text, int length) {
  Session::of(context).characters(static_cast<xmlParserCtxtPtr>(context), text, length, true);
}

xmlEntityPtr onGetEntity(void* context, const xmlChar* name) {
  return Session::of(context).entity(static_cast<xmlParserCtxtPtr>(context), name);
}

// Never loads anything from outside the document.
xmlParserInputPtr onResolveEntity(void*, const xmlChar*, const xmlChar*) { return nullptr; }

void onStructuredError(void* context, xmlErrorPtr error) {
  if (context && error) Session::of(context).error(*error);
}

// Errors libxml2 raises without a parser context (encoding conversion) would go to stderr.
void onStrayError(void*, xmlErrorPtr) {}

const xmlSAXHandler& saxHandler() {
  static const xmlSAXHandler handler = [] {
    xmlSAXHandler h;
    std::memset(&h, 0, sizeof h);
    // The SAX2 defaults keep the internal subset (entity declarations) in the context's document;
    // everything that would build a tree or reach outside is replaced or switched off.
    xmlSAXVersion(&h, 2);
    h.startElementNs = onStartElement;
    h.endElementNs = onEndElement;
    h.characters = onCharacters;
    h.ignorableWhitespace = onCharacters;
    h.cdataBlock = onCdata;
    h.getEntity = onGetEntity;
    h.resolveEntity = onResolveEntity;
    h.externalSubset = nullptr;
    h.reference = nullptr;
    h.comment = nullptr;
    h.processingInstruction = nullptr;
    h.startElement = nullptr;
    h.endElement = nullptr;
    h.warning = nullptr;
    h.error = nullptr;
    h.fatalError = nullptr;
    h.serror = onStructuredError;
    return h;
  }();
  return handler;
}

Result<void> run(ByteSource& source, std::size_t documentBytes, XmlSaxHandler& handler,
                 XmlInputEncoding encoding, const XmlParseLimits& limits) {
  static std::once_flag initialised;
  std::call_once(initialised, [] { xmlInitParser(); });
  if (documentBytes > limits.maxDocumentBytes) {
    return fail(parserError(kXmlErrorDocumentTooLarge,
                            fmt::format("The document is larger than {} bytes.", limits.maxDocumentBytes)));
  }

  Session session(handler, limits, documentBytes);
  // libxml2 keeps these per thread; restore the caller's afterwards.
  const xmlStructuredErrorFunc savedHandler = xmlStructuredError;
  void* const savedContext = xmlStructuredErrorContext;
  xmlSetStructuredErrorFunc(nullptr, onStrayError);

  xmlSAXHandler sax = saxHandler();
  const bool forceUTF8 = encoding == XmlInputEncoding::kUTF8;
  xmlParserCtxtPtr context =
      xmlCreateIOParserCtxt(&sax, nullptr, ByteSource::read, ByteSource::close, &source,
                            forceUTF8 ? XML_CHAR_ENCODING_UTF8 : XML_CHAR_ENCODING_NONE);
  if (!context) {
    xmlSetStructuredErrorFunc(savedContext, savedHandler);
    return fail(parserError(XML_ERR_NO_MEMORY, "The XML parser could not be started."));
  }
  context->_private = &session;
  xmlCtxtUseOptions(context, XML_PARSE_NONET | (forceUTF8 ? XML_PARSE_IGNORE_ENC : 0));
  xmlParseDocument(context);

  const bool wellFormed = context->wellFormed != 0;
  std::optional<Error> lastError;
  if (!wellFormed && !session.firstFatalError() && context->lastError.code != XML_ERR_OK) {
    lastError = errorFromLibxml(context->lastError);
  }
  if (context->myDoc) xmlFreeDoc(context->myDoc);
  xmlFreeParserCtxt(context);
  xmlSetStructuredErrorFunc(savedContext, savedHandler);

  if (session.limitError()) return fail(*session.limitError());
  if (wellFormed) return {};
  if (session.firstFatalError()) return fail(*session.firstFatalError());
  if (lastError) return fail(*lastError);
  return fail(parserError(XML_ERR_INTERNAL_ERROR, "The document is not well-formed XML."));
}

}  // namespace

Result<void> XmlSaxParser::parse(std::string_view bytes, XmlSaxHandler& handler, XmlInputEncoding encoding,
                                 const XmlParseLimits& limits) {
  MemorySource source(bytes);
  return run(source, bytes.size(), handler, encoding, limits);
}

Result<void> XmlSaxParser::parseFile(const std::filesystem::path& file, XmlSaxHandler& handler,
                                     const XmlParseLimits& limits) {
  std::error_code ec;
  const auto size = std::filesystem::file_size(file, ec);
  std::FILE* stream = ec ? nullptr : std::fopen(file.c_str(), "rb");
  if (!stream) {
    return fail(kLecternErrorDomain, ec ? ec.value() : errno, "Couldn't read " + file.string(),
                ec ? ec.message() : std::strerror(errno));
  }
  FileSource source(stream);
  return run(source, static_cast<std::size_t>(size), handler, XmlInputEncoding::kDeclared, limits);
}

}  // namespace lectern
