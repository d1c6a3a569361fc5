#include "net/AFJSONRequestOperation.h"

#include "core/Strings.h"
#include "net/TextEncoding.h"
#include "net/URLError.h"

namespace lectern {
namespace {

Error notJSON(std::string_view reason) {
  Error error = Error::make(kCocoaErrorDomain, 3840,
                            "The data couldn't be read because it isn't in the correct format.");
  error.userInfo[std::string(kDebugDescriptionErrorKey)] = std::string(reason);
  return error;
}

Error notUTF8(std::string_view text) {
  Error error = Error::make(kAFNetworkingErrorDomain, URLErrorCode::kCannotDecodeContentData,
                            "Operation responseData failed decoding as a UTF-8 string");
  error.userInfo[std::string(kFailureReasonErrorKey)] = "Could not decode string: " + std::string(text);
  return error;
}

}  // namespace

Result<std::optional<nlohmann::json>> parseJSONResponseBody(std::string_view body,
                                                            const std::optional<std::string>& declaredCharset,
                                                            JSONReadingOptions options) {
  if (body.empty()) return std::optional<nlohmann::json>();
  std::string text;
  // A declared charset other than UTF-8 is honoured; otherwise the bytes must be UTF-8 (JSON's own
  // encoding), even when a "text/*" type without charset would make them Latin-1 as plain text.
  if (declaredCharset && !isUTF8Charset(*declaredCharset)) {
    auto decoded = decodeText(body, *declaredCharset);
    if (!decoded) return std::unexpected(notUTF8(sanitizeUTF8(body)));
    text = std::move(*decoded);
  } else {
    if (!isValidUTF8(body)) return std::unexpected(notUTF8(latin1ToUTF8(body)));
    text = std::string(body);
  }
  // Some servers answer "nothing" with a single space.
  if (text == " ") return std::optional<nlohmann::json>();
  auto value = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (value.is_discarded()) return std::unexpected(notJSON("invalid JSON text"));
  if (!options.allowFragments && !value.is_object() && !value.is_array()) {
    return std::unexpected(
        notJSON("JSON text did not start with array or object and option to allow fragments not set."));
  }
  return std::optional<nlohmann::json>(std::move(value));
}

AFJSONRequestOperation::AFJSONRequestOperation(NetworkSession& session, HttpRequest request)
    : AFHTTPRequestOperation(session, std::move(request)) {
  setAcceptableContentTypes(defaultAcceptableContentTypes());
}

std::shared_ptr<AFJSONRequestOperation> AFJSONRequestOperation::JSONRequestOperationWithRequest(
    NetworkSession& session, HttpRequest request, JSONSuccess success, JSONFailure failure) {
  auto operation = std::make_shared<AFJSONRequestOperation>(session, std::move(request));
  operation->setCompletionBlockWithSuccess(
      [success](AFHTTPRequestOperation& op, const ResponseObject& object) {
        if (!success) return;
        const auto* json = std::get_if<nlohmann::json>(&object);
        success(op.request(), op.response(), json != nullptr ? *json : nlohmann::json());
      },
      [failure](AFHTTPRequestOperation& op, const Error& error) {
        if (!failure) return;
        auto& jsonOperation = static_cast<AFJSONRequestOperation&>(op);
        auto json = jsonOperation.responseJSON();
        failure(op.request(), op.response(), error, json && *json ? **json : nlohmann::json());
      });
  return operation;
}

Result<std::optional<nlohmann::json>> AFJSONRequestOperation::responseJSON() {
  auto object = responseObject();
  if (!object) return std::unexpected(object.error());
  if (const auto* json = std::get_if<nlohmann::json>(&*object)) return std::optional<nlohmann::json>(*json);
  return std::optional<nlohmann::json>();
}

JSONReadingOptions AFJSONRequestOperation::readingOptions() const {
  std::lock_guard lock(lock_);
  return readingOptions_;
}

void AFJSONRequestOperation::setJSONReadingOptions(JSONReadingOptions options) {
  std::lock_guard lock(lock_);
  readingOptions_ = options;
}

Result<ResponseObject> AFJSONRequestOperation::parseResponse() {
  const auto current = response();
  auto parsed = parseJSONResponseBody(responseData(), current ? current->textEncodingName() : std::nullopt,
                                      readingOptions());
  if (!parsed) return std::unexpected(parsed.error());
  if (!*parsed) return ResponseObject();
  return ResponseObject(std::move(**parsed));
}

}  // namespace lectern
