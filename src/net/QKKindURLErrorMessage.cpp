#include "net/QKKindURLErrorMessage.h"

#include <map>

namespace lectern {
namespace {

// The spellings are the ones users have always seen; keep them.
const std::map<int, std::string_view>& urlErrorMessages() {
  static const std::map<int, std::string_view> kMessages = {
      {-1, "Unknown error happened"},
      {-999, "Request cancelled"},
      {-1000, "URL is malformed and a request cannot be initiated"},
      {-1001, "Request is timed out"},
      {-1002, "URL cannot be handled"},
      {-1003, "Host not found"},
      {-1004, "Cannot connect to host"},
      {-1005, "Network connection lost"},
      {-1006, "Host not found (DNS Error)"},
      {-1007, "Too many redirects"},
      {-1008, "The requested resource was not found"},
      {-1009, "Internet connection is not available"},
      {-1010, "Redirected to a non-existent location"},
      {-1011,
       "The response received from the server for request could not be processed. It may be caused by an "
       "exception in the server."},
      {-1012, "Authentication required"},
      {-1013, "Authentication required"},
      {-1014, "Network connection terminated"},
      {-1015, "Content data cannot be decoded"},
      {-1016, "Content data cannot be decoded"},
      {-1017, "Content data cannot be decoded"},
      {-1018, "International roaming is disabled"},
      {-1019, "Simultaneous phone and data communication not allowed"},
      {-1020, "Cellular network disallows the connection"},
      {-1021, "Body stream exhausted"},
      {-1100, "File doesn't exist"},
      {-1101, "The requested file is not a plain file, but a directory"},
      {-1102, "Resource cannot be read due to insufficient permissions"},
      {-1103, "Response data exceeds the maximum allowed"},
      {-1200, "An attempt to establish a secure connection failed"},
      {-1201, "The server certificate expired"},
      {-1202, "The server certificate is signed by a root server which is not trusted"},
      {-1203, "The server certificate is not signed by any root server"},
      {-1204, "The server certificate is not yet valid"},
      {-1205, "The server certificate is rejected"},
      {-1206, "A client certificate is required to authenticate the SSL connection"},
      {-2000, "Item cannot load from cache"},
      {-3000, "Unable to create the downloaded file on disk due to a I/O failure"},
      {-3001, "Unable to open the downloaded file on disk"},
      {-3002, "Unable to close the downloaded file on disk"},
      {-3003, "Unable to write to the downloaded file on disk"},
      {-3004, "Unable to remove a downloaded file from disk"},
      {-3005, "Unable to move a downloaded file on disk"},
      {-3006, "Failed to decode an encoded file during the download"},
      {-3007, "Failed to decode an encoded file after download"},
  };
  return kMessages;
}

const std::map<int, std::string_view>& httpStatusMessages() {
  static const std::map<int, std::string_view> kMessages = {
      {400, "Invalid request"},
      {401, "Authentication required"},
      {402, "Payment Required"},
      {403, "You're authenticated, but access denied due to lack of permission or rate limiting"},
      {404, "The resource you requested does not exists"},
      {405, "A request was made of a resource using a request method not supported by that resource"},
      {406, "The contentent of requested resource is not acceptable"},
      {407, "Proxy Authentication Required"},
      {408, "Request Timeout"},
      {409, "The item already exists"},
      {410, "The resource requested is no longer available and will not be available again"},
      {411, "The request did not specify the length of its content"},
      {412, "The server does not meet one of the preconditions that the requester put on the request"},
      {413, "The request is larger than the server is willing or able to process"},
      {414, "Request-URI Too Long"},
      {415, "Unsupported Media Type"},
      {416, "The client has asked for a portion of the file, but the server cannot supply that portion"},
      {417, "Expectation Failed"},
      {418, "I'm a teapot"},
      {422, "The request was well-formed but was unable to be followed due to semantic errors"},
      {426, "Upgrade Required"},
      {428, "Precondition Required"},
      {429, "Too many requests"},
      {431, "Request Header Fields Too Large"},
      {444, "No Response"},
      {451, "Unavailable For Legal Reasons"},
      {494, "Request Header Too Large"},
      {495, "Cert Error"},
      {496, "No Cert"},
      {497, "HTTP to HTTPS"},
      {499, "Client Closed Request"},
      {500, "An unknown error has occurred on the remote server"},
      {501,
       "The server either does not recognize the request method, or it lacks the ability to fulfill the "
       "request"},
      {502, "Received an invalid response from the upstream server"},
      {503, "The remote server is down for scheduled maintenance"},
      {504, "Timeout: did not receive a timely response from the upstream server"},
      {505, "The server does not support the HTTP protocol version used in the request"},
      {506, "Transparent content negotiation for the request results in a circular reference"},
      {507, "The server is unable to store the representation needed to complete the request"},
      {508, "The server detected an infinite loop while processing the request"},
      {509, "Bandwidth Limit Exceeded"},
      {510, "Further extensions to the request are required for the server to fulfill it"},
      {511, "Network Authentication Required"},
      {598, "Network read timeout error"},
      {599, "Network connect timeout error"},
  };
  return kMessages;
}

}  // namespace

std::optional<std::string_view> QKKindURLErrorMessage::messageForURLErrorCode(int code) {
  const auto& messages = urlErrorMessages();
  const auto it = messages.find(code);
  if (it == messages.end()) return std::nullopt;
  return it->second;
}

std::optional<std::string_view> QKKindURLErrorMessage::messageForHTTPStatusCode(int statusCode) {
  const auto& messages = httpStatusMessages();
  const auto it = messages.find(statusCode);
  if (it == messages.end()) return std::nullopt;
  return it->second;
}

namespace {
// The status a server answered travels with the user's error: it tells a refusal from a change
// that never arrived (the offline queue keeps the latter).
Error withStatus(Error error, std::string status) {
  if (!status.empty()) error.userInfo[std::string(kHTTPStatusCodeErrorKey)] = std::move(status);
  return error;
}
}  // namespace

Error QKKindURLErrorMessage::kindErrorFromNSURLError(const Error& error, std::string_view title) {
  const auto message = messageForURLErrorCode(error.code);
  if (!message) return error;
  return withStatus(Error::make(error.domain, error.code, title, *message), error.info(kHTTPStatusCodeErrorKey));
}

std::optional<Error> QKKindURLErrorMessage::kindErrorFromResponse(const std::optional<HttpResponse>& response,
                                                                  std::string_view title,
                                                                  const std::optional<Error>& error) {
  if (response) {
    if (const auto message = messageForHTTPStatusCode(response->statusCode)) {
      return withStatus(Error::make(kQuillHQErrorDomain, error ? error->code : response->statusCode, title, *message),
                        std::to_string(response->statusCode));
    }
  }
  if (!error) return std::nullopt;
  return kindErrorFromNSURLError(*error, title);
}

}  // namespace lectern
