#include "store/ServiceDelivery.h"

#include <charconv>
#include <string>

namespace lectern {

Delivery deliveryOf(const std::optional<Error>& error) {
  if (!error) return Delivery::kDelivered;
  const std::string status = error->info(kHTTPStatusCodeErrorKey);
  int code = 0;
  const auto* end = status.data() + status.size();
  if (status.empty() || std::from_chars(status.data(), end, code).ptr != end) return Delivery::kNotDelivered;
  if (code >= 200 && code < 300) return Delivery::kDelivered;
  if (code >= 400 && code < 500 && code != 408 && code != 429) return Delivery::kRefused;
  return Delivery::kNotDelivered;
}

}  // namespace lectern
