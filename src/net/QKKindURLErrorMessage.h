#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "core/Error.h"
#include "net/HttpResponse.h"

namespace lectern {

// Turns transport errors and HTTP status codes into the errors the user sees: the title names
// the failed action, the recovery suggestion says what went wrong. Stateless.
class QKKindURLErrorMessage {
 public:
  // The error's domain and code with {description: title, recovery suggestion: the sentence for
  // the code}; the error itself when its code has no sentence.
  static Error kindErrorFromNSURLError(const Error& error, std::string_view title);

  // For a status code with a sentence: domain "com.quillhq.com", the given error's code (or the
  // status code when there is no error), title and sentence. Otherwise kindErrorFromNSURLError of
  // the given error, and nothing when there is none.
  static std::optional<Error> kindErrorFromResponse(const std::optional<HttpResponse>& response,
                                                    std::string_view title,
                                                    const std::optional<Error>& error);

  // The sentences themselves; nothing for a code without one.
  static std::optional<std::string_view> messageForURLErrorCode(int code);
  static std::optional<std::string_view> messageForHTTPStatusCode(int statusCode);
};

inline constexpr std::string_view kQuillHQErrorDomain = "com.quillhq.com";

}  // namespace lectern
