#include "accounts/TokenSignIn.h"

#include "accounts/AccountErrors.h"
#include "accounts/ServiceBase.h"
#include "store/Account.h"

namespace lectern {

std::optional<Error> keepSignInSecret(ServiceBase& service, Result<std::string> secret, std::string_view failureTitle) {
  auto failure = [&](std::string_view reason) {
    return Error::make(kAccountErrorDomain, kInvalidAccountSettings, failureTitle, reason);
  };
  if (!secret) return secret.error();
  auto owner = service.account();
  if (!owner || owner->isDeleted()) return failure("The account was removed.");
  if (auto stored = owner->setTokenSecret(*secret); !stored) return failure(stored.error().message());
  service.resetApiClient();
  return std::nullopt;
}

}  // namespace lectern
