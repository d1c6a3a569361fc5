#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

#include "core/Clock.h"
#include "feeds/XMLReader.h"

namespace lectern::test {

inline Date utc(int y, unsigned mo, unsigned d, int h = 0, int mi = 0, int s = 0, int ms = 0) {
  using namespace std::chrono;
  return Date(duration_cast<Date::duration>(sys_days(year(y) / month(mo) / day(d)).time_since_epoch() +
                                            hours(h) + minutes(mi) + seconds(s) + milliseconds(ms)));
}

// Text fields checked in one go: {name, actual, expected}.
using FieldCheck = std::tuple<const char*, std::optional<std::string>, std::optional<std::string>>;
inline void expectFields(std::initializer_list<FieldCheck> checks) {
  for (const auto& [name, actual, expected] : checks) EXPECT_EQ(actual, expected) << name;
}

// The tree as compact text, so a test states a whole tree at once: {key=value,...}, [a,b], "text".
inline std::string render(const XmlValue& value) {
  switch (value.kind()) {
    case XmlValue::Kind::kString: {
      std::string out = "\"";
      for (char c : value.asString()) out += c == '\n' ? std::string("\\n") : std::string(1, c);
      return out + "\"";
    }
    case XmlValue::Kind::kList: {
      std::string out = "[";
      for (const auto& member : value.asList()) out += (out.size() > 1 ? "," : "") + render(member);
      return out + "]";
    }
    case XmlValue::Kind::kDictionary: {
      std::string out = "{";
      for (const auto& entry : value.asDictionary().entries()) {
        out += (out.size() > 1 ? "," : "") + std::string(entry.key) + "=" + render(entry.value);
      }
      return out + "}";
    }
  }
  return {};
}

inline std::string render(const XmlNode& node) { return render(XmlValue::dictionary(node.entries())); }

// The tree of a document that must parse.
inline std::string renderXml(std::string_view xml) {
  auto document = XMLReader::dictionaryForXMLData(xml);
  if (!document) return "error: " + document.error().message();
  return render(document->root());
}

}  // namespace lectern::test
