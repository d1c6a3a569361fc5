#include "net/AFPropertyListRequestOperation.h"

namespace lectern {

AFPropertyListRequestOperation::AFPropertyListRequestOperation(NetworkSession& session, HttpRequest request)
    : AFHTTPRequestOperation(session, std::move(request)) {
  setAcceptableContentTypes(defaultAcceptableContentTypes());
}

Result<std::optional<nlohmann::json>> AFPropertyListRequestOperation::responsePropertyList() {
  auto object = responseObject();
  if (!object) return std::unexpected(object.error());
  if (const auto* value = std::get_if<nlohmann::json>(&*object)) return std::optional<nlohmann::json>(*value);
  return std::optional<nlohmann::json>();
}

PropertyListFormat AFPropertyListRequestOperation::propertyListFormat() const {
  std::lock_guard lock(lock_);
  return format_;
}

Result<ResponseObject> AFPropertyListRequestOperation::parseResponse() {
  const std::string data = responseData();
  if (data.empty()) return ResponseObject();
  auto list = propertyListFromData(data);
  if (!list) return std::unexpected(list.error());
  std::lock_guard lock(lock_);
  format_ = list->format;
  return ResponseObject(std::move(list->value));
}

}  // namespace lectern
