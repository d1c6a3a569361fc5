#include "net/URLError.h"

namespace lectern {

Error makeURLError(int code, std::string_view failingURL, std::string_view description,
                   std::string_view debugDescription) {
  Error error = Error::make(kURLErrorDomain, code, description);
  if (!failingURL.empty()) error.userInfo[std::string(kFailingURLErrorKey)] = std::string(failingURL);
  if (!debugDescription.empty())
    error.userInfo[std::string(kDebugDescriptionErrorKey)] = std::string(debugDescription);
  return error;
}

}  // namespace lectern
