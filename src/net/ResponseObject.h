#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <variant>

namespace lectern {

// The body of an XML response, handed to an XML consumer (an event-driven parser) unparsed: the
// feed reader retries a body its parser rejects, so the operation passes judgement on nothing.
struct XMLParserInput {
  std::string data;
  bool operator==(const XMLParserInput&) const = default;
};

// Image bytes whose signature matched an image format; kept as they are (nothing decodes them).
struct ResponseImage {
  std::string data;
  std::string format;  // "png", "jpeg", "gif", "tiff", "bmp", "ico"
  bool operator==(const ResponseImage&) const = default;
};

// What a request operation hands its success block: nothing (an empty or " " JSON body), the raw
// body (plain HTTP operations), JSON or a property list (both as nlohmann::json), XML input or an image.
using ResponseObject =
    std::variant<std::monostate, std::string, nlohmann::json, XMLParserInput, ResponseImage>;

}  // namespace lectern
