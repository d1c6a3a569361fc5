#include "net/PropertyList.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <charconv>
#include <memory>

#include "core/Strings.h"
#include "net/URLError.h"

namespace lectern {
namespace {

constexpr int kPropertyListReadCorruptError = 3840;

struct DocumentCloser {
  void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
};

Error corrupt(std::string_view reason) {
  Error error = Error::make(kCocoaErrorDomain, kPropertyListReadCorruptError,
                            "The data couldn't be read because it isn't in the correct format.");
  error.userInfo[std::string(kDebugDescriptionErrorKey)] = std::string(reason);
  return error;
}

std::string_view nameOf(const xmlNode* node) { return reinterpret_cast<const char*>(node->name); }

std::string textOf(const xmlNode* node) {
  xmlChar* content = xmlNodeGetContent(node);
  std::string text = content != nullptr ? reinterpret_cast<const char*>(content) : "";
  xmlFree(content);
  return text;
}

const xmlNode* nextElement(const xmlNode* node) {
  while (node != nullptr && node->type != XML_ELEMENT_NODE) node = node->next;
  return node;
}

Result<nlohmann::json> readValue(const xmlNode* node, int depth) {
  if (depth > 512) return fail(corrupt("nested too deeply"));
  const std::string_view name = nameOf(node);
  if (name == "dict") {
    nlohmann::json object = nlohmann::json::object();
    for (const xmlNode* key = nextElement(node->children); key != nullptr; key = nextElement(key->next)) {
      if (nameOf(key) != "key") return fail(corrupt("dict entry without key"));
      const xmlNode* value = nextElement(key->next);
      if (value == nullptr) return fail(corrupt("dict key without value"));
      auto parsed = readValue(value, depth + 1);
      if (!parsed) return parsed;
      object[textOf(key)] = std::move(*parsed);
      key = value;
    }
    return object;
  }
  if (name == "array") {
    nlohmann::json array = nlohmann::json::array();
    for (const xmlNode* child = nextElement(node->children); child != nullptr;
         child = nextElement(child->next)) {
      auto parsed = readValue(child, depth + 1);
      if (!parsed) return parsed;
      array.push_back(std::move(*parsed));
    }
    return array;
  }
  if (name == "string" || name == "date") return nlohmann::json(textOf(node));
  if (name == "data") {
    std::string text = textOf(node);
    std::erase_if(text, [](char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; });
    return nlohmann::json(text);
  }
  if (name == "true") return nlohmann::json(true);
  if (name == "false") return nlohmann::json(false);
  if (name == "integer") {
    const std::string text = trim(textOf(node));
    std::int64_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size()) return fail(corrupt("bad integer"));
    return nlohmann::json(value);
  }
  if (name == "real") {
    const std::string text = trim(textOf(node));
    double value = 0;
    const auto [end, ec] = fromChars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size()) return fail(corrupt("bad real"));
    return nlohmann::json(value);
  }
  return fail(corrupt("unknown element " + std::string(name)));
}

std::string escapeXML(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
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
      default:
        out += c;
    }
  }
  return out;
}

void writeValue(const nlohmann::json& value, int indent, std::string& out) {
  const std::string pad(static_cast<size_t>(indent), '\t');
  switch (value.type()) {
    case nlohmann::json::value_t::object:
      out += pad + "<dict>\n";
      for (const auto& [key, element] : value.items()) {
        if (element.is_null()) continue;
        out += pad + "\t<key>" + escapeXML(key) + "</key>\n";
        writeValue(element, indent + 1, out);
      }
      out += pad + "</dict>\n";
      break;
    case nlohmann::json::value_t::array:
      out += pad + "<array>\n";
      for (const auto& element : value) {
        if (!element.is_null()) writeValue(element, indent + 1, out);
      }
      out += pad + "</array>\n";
      break;
    case nlohmann::json::value_t::string:
      out += pad + "<string>" + escapeXML(value.get<std::string>()) + "</string>\n";
      break;
    case nlohmann::json::value_t::boolean:
      out += pad + (value.get<bool>() ? "<true/>\n" : "<false/>\n");
      break;
    case nlohmann::json::value_t::number_integer:
    case nlohmann::json::value_t::number_unsigned:
      out += pad + "<integer>" + value.dump() + "</integer>\n";
      break;
    case nlohmann::json::value_t::number_float:
      out += pad + "<real>" + value.dump() + "</real>\n";
      break;
    default:
      break;
  }
}

}  // namespace

Result<PropertyList> propertyListFromData(std::string_view data) {
  if (data.starts_with("bplist")) {
    return fail(corrupt("binary property lists are not supported"));
  }
  std::unique_ptr<xmlDoc, DocumentCloser> document(
      xmlReadMemory(data.data(), static_cast<int>(data.size()), "response.plist", nullptr,
                    XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  if (!document) return fail(corrupt("not a well-formed XML document"));
  const xmlNode* root = xmlDocGetRootElement(document.get());
  if (root == nullptr || nameOf(root) != "plist") return fail(corrupt("no plist root element"));
  const xmlNode* top = nextElement(root->children);
  if (top == nullptr) return fail(corrupt("empty property list"));
  auto value = readValue(top, 0);
  if (!value) return fail(value.error());
  return PropertyList{std::move(*value), PropertyListFormat::kXML};
}

std::string xmlPropertyListFromJSON(const nlohmann::json& value) {
  std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
  writeValue(value, 0, out);
  out += "</plist>\n";
  return out;
}

}  // namespace lectern
