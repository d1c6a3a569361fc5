#include "feeds/OPMLWriter.h"

#include <libxml/tree.h>

#include "core/Strings.h"

namespace lectern {
namespace {

const xmlChar* xml(const char* text) { return reinterpret_cast<const xmlChar*>(text); }

// Valid UTF-8 without the control characters XML 1.0 forbids (tab, line feed and carriage return stay).
std::string xmlText(std::string_view text) {
  std::string repaired = sanitizeUTF8(text);
  std::erase_if(repaired, [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r';
  });
  return repaired;
}

}  // namespace

struct OPMLWriter::Impl {
  xmlDocPtr doc = nullptr;
  xmlNodePtr body = nullptr;
  xmlNodePtr folder = nullptr;  // the open folder outline, if any
};

OPMLWriter::OPMLWriter(std::string_view title) : impl_(std::make_unique<Impl>()) {
  impl_->doc = xmlNewDoc(xml("1.0"));
  xmlNodePtr root = xmlNewNode(nullptr, xml("opml"));
  xmlDocSetRootElement(impl_->doc, root);
  xmlNewProp(root, xml("version"), xml("1.0"));
  xmlNodePtr head = xmlNewChild(root, nullptr, xml("head"), nullptr);
  xmlNodePtr titleNode = xmlNewChild(head, nullptr, xml("title"), nullptr);
  xmlNodeAddContent(titleNode, xml(xmlText(title).c_str()));
  impl_->body = xmlNewChild(root, nullptr, xml("body"), nullptr);
}

OPMLWriter::~OPMLWriter() { xmlFreeDoc(impl_->doc); }

void OPMLWriter::openFolder(std::string_view title) {
  impl_->folder = xmlNewChild(impl_->body, nullptr, xml("outline"), nullptr);
  xmlNewProp(impl_->folder, xml("text"), xml(xmlText(title).c_str()));
}

void OPMLWriter::closeFolder() { impl_->folder = nullptr; }

void OPMLWriter::addFeed(std::string_view title, std::string_view xmlUrl) {
  xmlNodePtr parent = impl_->folder ? impl_->folder : impl_->body;
  xmlNodePtr outline = xmlNewChild(parent, nullptr, xml("outline"), nullptr);
  const std::string text = xmlText(title);
  xmlNewProp(outline, xml("type"), xml("rss"));
  xmlNewProp(outline, xml("text"), xml(text.c_str()));
  xmlNewProp(outline, xml("title"), xml(text.c_str()));
  xmlNewProp(outline, xml("xmlUrl"), xml(xmlText(xmlUrl).c_str()));
}

std::string OPMLWriter::document() const {
  xmlChar* buffer = nullptr;
  int size = 0;
  xmlDocDumpFormatMemoryEnc(impl_->doc, &buffer, &size, "UTF-8", 1);
  std::string out(reinterpret_cast<const char*>(buffer), static_cast<size_t>(size > 0 ? size : 0));
  xmlFree(buffer);
  return out;
}

}  // namespace lectern
