#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "core/Error.h"

namespace lectern {

class ServiceBase;

// The end of a sign-in that trades the password for a token (or token pair): the secret the
// service answered with replaces the password in the secret store, so the password is never kept,
// and the next client is built with it. Errors are titled `failureTitle`. Main thread.
std::optional<Error> keepSignInSecret(ServiceBase& service, Result<std::string> secret, std::string_view failureTitle);

}  // namespace lectern
