#pragma once

#include <cstdint>
#include <memory>
#include <memory_resource>
#include <span>
#include <string_view>

namespace lectern {

struct XmlEntry;
class XmlNode;

// One value of the dictionary tree: a string (an attribute or "textNode"), a dictionary (an
// element) or a list (an element name that repeats under one parent). A view into its XmlDocument.
class XmlValue {
 public:
  enum class Kind : std::uint8_t { kString, kDictionary, kList };

  XmlValue() = default;  // the empty string

  static XmlValue string(std::string_view text);
  static XmlValue dictionary(std::span<const XmlEntry> entries);
  static XmlValue list(std::span<const XmlValue> members);

  Kind kind() const { return kind_; }
  bool isString() const { return kind_ == Kind::kString; }
  bool isDictionary() const { return kind_ == Kind::kDictionary; }
  bool isList() const { return kind_ == Kind::kList; }

  // Each gives an empty value when the kind differs.
  std::string_view asString() const;
  XmlNode asDictionary() const;
  std::span<const XmlValue> asList() const;

 private:
  XmlValue(const void* data, std::uint32_t size, Kind kind) : data_(data), size_(size), kind_(kind) {}

  const void* data_ = nullptr;
  std::uint32_t size_ = 0;
  Kind kind_ = Kind::kString;
};

struct XmlEntry {
  std::string_view key;  // a qualified element or attribute name, or "textNode"
  XmlValue value;
};

// The dictionary of one element: its attributes, children and text under their names, each name
// once, in the order the names first appeared. A cheap view into its XmlDocument.
class XmlNode {
 public:
  XmlNode() = default;
  explicit XmlNode(std::span<const XmlEntry> entries) : entries_(entries) {}

  std::span<const XmlEntry> entries() const { return entries_; }
  bool empty() const { return entries_.empty(); }
  // The value stored under `key`, or nullptr.
  const XmlValue* find(std::string_view key) const;
  // The text under `key` when it is a string ("" otherwise).
  std::string_view string(std::string_view key) const;

 private:
  std::span<const XmlEntry> entries_;
};

// The key under which an element's character content is stored.
inline constexpr std::string_view kXmlTextNodeKey = "textNode";

// The dictionary tree of one document. Owns every node and string the tree's views point to;
// moving it keeps them valid. Immutable once built, so any thread may read it.
class XmlDocument {
 public:
  XmlDocument(std::unique_ptr<std::pmr::monotonic_buffer_resource> arena, XmlNode root)
      : arena_(std::move(arena)), root_(root) {}

  // The dictionary that holds the document element under its name.
  XmlNode root() const { return root_; }

 private:
  std::unique_ptr<std::pmr::monotonic_buffer_resource> arena_;
  XmlNode root_;
};

}  // namespace lectern
