#pragma once

#include <expected>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

namespace lectern {

// Error domains shared by more than one subsystem.
inline constexpr std::string_view kLecternErrorDomain = "com.quillhq.Lectern";
// User-info key of the HTTP status a server answered with, when a failure had an answer: it tells
// a refusal (a 4xx) from a change that never reached the server.
inline constexpr std::string_view kHTTPStatusCodeErrorKey = "HTTPStatusCode";

// A failure the network, the disk, a server or the user can cause. Returned, never thrown.
struct Error {
  std::string domain;
  int code = 0;
  std::string description;         // names the failed action: "Failed to fetch feed: ..."
  std::string recoverySuggestion;  // the server's message, or a fixed sentence
  std::map<std::string, std::string> userInfo;  // further keys (failing URL, status code ...)

  static Error make(std::string_view domain, int code, std::string_view description,
                    std::string_view recoverySuggestion = {});

  // "description" or "description: recovery suggestion", for logs and the terminal.
  std::string message() const;
  // A user-info value, or "" when absent.
  std::string info(std::string_view key) const;

  bool operator==(const Error&) const = default;
};

template <typename T>
using Result = std::expected<T, Error>;

inline std::unexpected<Error> fail(Error error) { return std::unexpected<Error>(std::move(error)); }
inline std::unexpected<Error> fail(std::string_view domain, int code, std::string_view description,
                                   std::string_view recoverySuggestion = {}) {
  return std::unexpected<Error>(Error::make(domain, code, description, recoverySuggestion));
}

// A broken caller contract ("Invalid service type"). Only main and tests catch it.
class InternalInconsistency : public std::logic_error {
 public:
  explicit InternalInconsistency(const std::string& message) : std::logic_error(message) {}
};

// The fixed texts of the programming errors raised by the toolkit's users.
inline constexpr std::string_view kInvalidServiceType = "Invalid service type";
inline constexpr std::string_view kMustUseInitWithURL = "Must use initWithURL: instead.";

}  // namespace lectern
