#include "feeds/XmlNode.h"

namespace lectern {

XmlValue XmlValue::string(std::string_view text) {
  return XmlValue(text.data(), static_cast<std::uint32_t>(text.size()), Kind::kString);
}

XmlValue XmlValue::dictionary(std::span<const XmlEntry> entries) {
  return XmlValue(entries.data(), static_cast<std::uint32_t>(entries.size()), Kind::kDictionary);
}

XmlValue XmlValue::list(std::span<const XmlValue> members) {
  return XmlValue(members.data(), static_cast<std::uint32_t>(members.size()), Kind::kList);
}

std::string_view XmlValue::asString() const {
  if (kind_ != Kind::kString || size_ == 0) return {};
  return {static_cast<const char*>(data_), size_};
}

XmlNode XmlValue::asDictionary() const {
  if (kind_ != Kind::kDictionary || size_ == 0) return {};
  return XmlNode({static_cast<const XmlEntry*>(data_), size_});
}

std::span<const XmlValue> XmlValue::asList() const {
  if (kind_ != Kind::kList || size_ == 0) return {};
  return {static_cast<const XmlValue*>(data_), size_};
}

const XmlValue* XmlNode::find(std::string_view key) const {
  for (const auto& entry : entries_) {
    if (entry.key == key) return &entry.value;
  }
  return nullptr;
}

std::string_view XmlNode::string(std::string_view key) const {
  const XmlValue* value = find(key);
  return value ? value->asString() : std::string_view();
}

}  // namespace lectern
