#include "feeds/XhtmlCapture.h"

#include <algorithm>
#include <iterator>

namespace lectern {
namespace {

bool isBlank(std::string_view text) { return text.find_first_not_of(" \t\r\n") == std::string_view::npos; }

bool isVoidElement(std::string_view name) {
  static constexpr std::string_view kVoid[] = {"area",  "base", "br",   "col",   "embed",  "hr",    "img",
                                               "input", "link", "meta", "param", "source", "track", "wbr"};
  return std::find(std::begin(kVoid), std::end(kVoid), name) != std::end(kVoid);
}

void appendEscaped(std::string& out, std::string_view text, bool attribute) {
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        if (attribute) {
          out += "&quot;";
          break;
        }
        [[fallthrough]];
      default:
        out += c;
    }
  }
}

}  // namespace

bool XhtmlCapture::opensConstruct(std::string_view rootName, std::span<const XmlAttribute> attributes) {
  if (rootName != "feed") return false;
  return std::any_of(attributes.begin(), attributes.end(),
                     [](const XmlAttribute& a) { return a.name == "type" && a.value == "xhtml"; });
}

void XhtmlCapture::begin() {
  markup_.clear();
  divPrefix_.clear();
  depth_ = children_ = divInner_ = divEnd_ = 0;
  firstChildIsDiv_ = textOutside_ = openStartTag_ = false;
  active_ = true;
}

void XhtmlCapture::startElement(std::string_view name, std::span<const XmlAttribute> attributes) {
  if (openStartTag_) markup_ += '>';
  if (depth_ == 0 && children_++ == 0) {
    const std::size_t colon = name.find(':');
    const std::string_view local = colon == std::string_view::npos ? name : name.substr(colon + 1);
    firstChildIsDiv_ = local == "div";
    if (firstChildIsDiv_ && colon != std::string_view::npos) divPrefix_ = name.substr(0, colon + 1);
  }
  ++depth_;
  if (!divPrefix_.empty() && name.starts_with(divPrefix_)) name.remove_prefix(divPrefix_.size());
  markup_ += '<';
  markup_ += name;
  for (const auto& attribute : attributes) {
    if (attribute.name == "xmlns" || attribute.name.starts_with("xmlns:")) continue;
    markup_ += ' ';
    markup_ += attribute.name;
    markup_ += "=\"";
    appendEscaped(markup_, attribute.value, /*attribute=*/true);
    markup_ += '"';
  }
  openStartTag_ = true;
  if (depth_ == 1 && children_ == 1) divInner_ = markup_.size() + 1;  // after the '>' to come
}

bool XhtmlCapture::endElement(std::string_view name) {
  if (depth_ == 0) {
    active_ = false;
    return false;
  }
  if (!divPrefix_.empty() && name.starts_with(divPrefix_)) name.remove_prefix(divPrefix_.size());
  const std::size_t contentEnd = openStartTag_ ? markup_.size() + 1 : markup_.size();
  if (openStartTag_ && isVoidElement(name)) {
    markup_ += "/>";
  } else {
    if (openStartTag_) markup_ += '>';
    markup_ += "</";
    markup_ += name;
    markup_ += '>';
  }
  openStartTag_ = false;
  if (--depth_ == 0 && children_ == 1) divEnd_ = std::max(contentEnd, divInner_);
  return true;
}

void XhtmlCapture::characters(std::string_view text) {
  if (openStartTag_) markup_ += '>';
  openStartTag_ = false;
  if (depth_ == 0 && !isBlank(text)) textOutside_ = true;
  appendEscaped(markup_, text, /*attribute=*/false);
}

std::string XhtmlCapture::take() {
  active_ = false;
  if (children_ == 1 && firstChildIsDiv_ && !textOutside_ && divEnd_ >= divInner_) {
    return markup_.substr(divInner_, divEnd_ - divInner_);
  }
  return std::move(markup_);
}

}  // namespace lectern
