#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "net/STLOAuthClient.h"

namespace lectern {

inline constexpr std::string_view kLecternLowercaseErrorDomain = "com.quillhq.lectern";

// A signing client that exchanges the user's name and password once for a token pair (xAuth), then signs
// with the token and speaks JSON. Thread-safe; the exchange's blocks run on the main queue.
class QKXAuthClient : public STLOAuthClient {
 public:
  using AuthenticationSuccess = std::function<void(std::optional<std::string> accessToken,
                                                   std::optional<std::string> accessTokenSecret)>;
  using AuthenticationFailure = std::function<void(const Error& error)>;

  using STLOAuthClient::STLOAuthClient;
  ~QKXAuthClient() override;

  // Posts `parameters` to `path`. On success the body's "oauth_token" and "oauth_token_secret"
  // become the access token, the client switches to JSON (parameters as JSON, "Accept" "text/json",
  // QKJSONRequestOperation registered), forgets the user name and password (later requests carry no
  // x_auth_* values) once a token came, and the success block gets the pair (nothing for a missing
  // key). The blocks are kept once for the whole program: a second exchange replaces the first's.
  void authenticate(std::string_view path, const nlohmann::json& parameters, AuthenticationSuccess success,
                    AuthenticationFailure failure);

  std::optional<std::string> accessToken() const;
  std::optional<std::string> accessTokenSecret() const;
  std::optional<std::string> encodedUserId() const;
  void setEncodedUserId(std::optional<std::string> id);

  // Signed requests, made into operations and enqueued. A non-zero timeout bounds the POST.
  std::shared_ptr<AFHTTPRequestOperation> getResourceWithUrl(std::string_view path,
                                                             const nlohmann::json& parameters,
                                                             Success success, Failure failure);
  std::shared_ptr<AFHTTPRequestOperation> postResourceWithUrl(std::string_view path,
                                                              const nlohmann::json& parameters,
                                                              std::chrono::duration<double> timeout,
                                                              Success success, Failure failure);
  std::shared_ptr<AFHTTPRequestOperation> deleteResourceWithUrl(std::string_view path,
                                                                const nlohmann::json& parameters,
                                                                Success success, Failure failure);

  // Line-oriented answers: one object per non-empty line, "&"-separated "key=value" pairs, "+"
  // standing for a space and percent-escapes decoded.
  static nlohmann::json convertToJSONFromQline(std::string_view text);
  // The token pair from an access-token answer: the part after the last "?", "&"-separated pairs
  // split at the first "=", both sides percent-unescaped.
  static std::pair<std::optional<std::string>, std::optional<std::string>> tokenPairFromResponseBody(
      std::string_view body);

  // The error shown for a failed call: the underlying error's domain and code with the title as
  // description and its description as recovery suggestion; without one, "com.quillhq.lectern"
  // 100, the title and "Unknown error". Services override it to read their error bodies.
  virtual Error errorFromResponseData(std::string_view responseData, const std::optional<Error>& error,
                                      std::string_view titleMessage) const;

 private:
  std::shared_ptr<AFHTTPRequestOperation> enqueueSigned(std::string_view method, std::string_view path,
                                                        const nlohmann::json& parameters,
                                                        std::chrono::duration<double> timeout,
                                                        Success success, Failure failure);

  mutable std::mutex tokenMutex_;  // guards the three members below
  std::optional<std::string> accessToken_;
  std::optional<std::string> accessTokenSecret_;
  std::optional<std::string> encodedUserId_;
  // Lets a late exchange answer (run on the main queue) tell whether this client still exists.
  std::shared_ptr<QKXAuthClient*> self_ = std::make_shared<QKXAuthClient*>(this);
};

}  // namespace lectern
