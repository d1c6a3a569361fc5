#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "core/Error.h"

namespace lectern {

enum class PropertyListFormat : int { kXML = 100, kBinary = 200 };

struct PropertyList {
  nlohmann::json value;
  PropertyListFormat format = PropertyListFormat::kXML;
};

// Reads an XML property list: dict -> object, array -> array, string/date/data -> string (data
// stays Base64), integer/real -> number, true/false -> boolean. Binary lists and malformed
// documents fail (domain "NSCocoaErrorDomain", code 3840). No network access, no external entities.
Result<PropertyList> propertyListFromData(std::string_view data);

// Writes an XML property list. Nulls have no form there and are left out.
std::string xmlPropertyListFromJSON(const nlohmann::json& value);

}  // namespace lectern
