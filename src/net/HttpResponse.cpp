#include "net/HttpResponse.h"

#include <charconv>

#include "core/Strings.h"
#include "net/Redaction.h"

namespace lectern {

std::string HttpResponse::MIMEType() const {
  const auto contentType = headers.value("Content-Type");
  if (!contentType) return {};
  const auto semicolon = contentType->find(';');
  return toLowerASCII(trimView(std::string_view(*contentType).substr(0, semicolon)));
}

std::optional<std::string> HttpResponse::textEncodingName() const {
  const auto contentType = headers.value("Content-Type");
  if (!contentType) return std::nullopt;
  auto parameters = split(*contentType, ";");
  for (size_t i = 1; i < parameters.size(); ++i) {
    const std::string_view parameter = trimView(parameters[i]);
    const auto equals = parameter.find('=');
    if (equals == std::string_view::npos) continue;
    if (!equalsIgnoringASCIICase(trimView(parameter.substr(0, equals)), "charset")) continue;
    std::string_view value = trimView(parameter.substr(equals + 1));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
      value = value.substr(1, value.size() - 2);
    if (value.empty()) return std::nullopt;
    return toLowerASCII(value);
  }
  return std::nullopt;
}

std::int64_t HttpResponse::expectedContentLength() const {
  const auto length = headers.value("Content-Length");
  if (!length) return -1;
  const std::string_view text = trimView(*length);
  std::int64_t value = -1;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || value < 0) return -1;
  return value;
}

std::string HttpResponse::description() const {
  return "<" + std::to_string(statusCode) + " " + redactedURL(url) + ">";
}

}  // namespace lectern
