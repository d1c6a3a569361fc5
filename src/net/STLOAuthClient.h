#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "net/AFHTTPClient.h"
#include "net/oauth/OAuthSigning.h"

namespace lectern {

// An HTTP client that signs each request it builds with OAuth 1.0a HMAC-SHA1 in an "Authorization" header,
// with the session's clock and nonce source. Thread-safe.
class STLOAuthClient : public AFHTTPClient {
 public:
  // Signs nothing until told to (signRequests false).
  STLOAuthClient(NetworkSession& session, std::string_view baseURL);
  // xAuth mode: every request is signed, and the header also carries the user's credentials.
  STLOAuthClient(NetworkSession& session, std::string_view baseURL, std::string consumerKey,
                 std::string consumerSecret, std::optional<std::string> username,
                 std::optional<std::string> password);

  void setConsumerKey(std::optional<std::string> key, std::optional<std::string> secret);
  void setAccessToken(std::optional<std::string> token, std::optional<std::string> secret);
  std::optional<std::string> consumerKey() const;
  std::optional<std::string> tokenIdentifier() const;
  std::optional<std::string> tokenSecret() const;
  bool signRequests() const;
  void setSignRequests(bool sign);
  std::optional<std::string> realm() const;
  void setRealm(std::optional<std::string> realm);
  void setUsername(std::optional<std::string> username);
  void setPassword(std::optional<std::string> password);
  std::optional<std::string> username() const;
  // Whether the client still holds the user's password.
  bool hasPassword() const;
  // Drops the user name and password and turns the xAuth header values off: from here on only the
  // token signs. Done once an exchange has turned them into a token.
  void forgetUserCredentials();
  // While true, "x_auth_mode", "x_auth_username" and "x_auth_password" travel in the signed header.
  bool isXAuthWithAuthhenticationHeader() const;
  void setXAuthWithAuthhenticationHeader(bool value);

  // The base client's request, signed when signRequests is on.
  HttpRequest requestWithMethod(std::string_view method, std::string_view path,
                                const nlohmann::json& parameters = nullptr) override;
  HttpRequest requestWithMethod(std::string_view method, std::string_view path,
                                const nlohmann::json& parameters,
                                AFHTTPClientParameterEncoding encoding) override;
  // The parameter encoding is the client's unless one is given for this request.
  HttpRequest unsignedRequestWithMethod(std::string_view method, std::string_view path,
                                        const nlohmann::json& parameters = nullptr,
                                        std::optional<AFHTTPClientParameterEncoding> encoding = {});
  // A request whose URL could not be built stays unsigned: it fails with -1000 without being sent.
  HttpRequest signedRequestWithMethod(std::string_view method, std::string_view path,
                                      const nlohmann::json& parameters = nullptr,
                                      std::optional<AFHTTPClientParameterEncoding> encoding = {});
  // A fresh signature (new timestamp and nonce) over the method, the normalised URL of `path` and
  // the OAuth and request parameters. "" when `path` gives no URL with a host.
  std::string authorizationHeaderValueForMethod(std::string_view method, std::string_view path,
                                                const nlohmann::json& parameters);

 private:
  // The OAuth parameters in header order, timestamp and nonce included.
  OAuthParameters oauthParametersWithTimestampAndNonce();

  mutable std::mutex signingMutex_;  // guards the members below
  std::optional<std::string> consumerKey_;
  std::optional<std::string> consumerSecret_;
  std::optional<std::string> tokenIdentifier_;
  std::optional<std::string> tokenSecret_;
  std::optional<std::string> realm_;
  std::optional<std::string> username_;
  std::optional<std::string> password_;
  bool signRequests_ = false;
  bool xAuthWithHeader_ = false;
};

}  // namespace lectern
