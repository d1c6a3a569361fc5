#pragma once

#include <optional>

#include "core/Error.h"

namespace lectern {

// How a change sent to an account's service ended, as the offline queue sees it.
enum class Delivery {
  kDelivered,     // the service took it
  kRefused,       // the server answered and declined it: sending it again would not help
  kNotDelivered,  // it never got an answer (no network, a server in trouble, cancelled, no client)
};

// A failure with an HTTP status of 4xx is a refusal, except "request timeout" (408) and "too many
// requests" (429), which ask to try later; a 2xx status means the server took the change even if
// its answer could not be read. Everything else was not delivered.
Delivery deliveryOf(const std::optional<Error>& error);

}  // namespace lectern
