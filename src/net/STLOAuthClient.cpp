#include "net/STLOAuthClient.h"

#include <algorithm>

#include "net/AFQueryStringPair.h"

namespace lectern {

STLOAuthClient::STLOAuthClient(NetworkSession& session, std::string_view baseURL)
    : AFHTTPClient(session, baseURL) {}

STLOAuthClient::STLOAuthClient(NetworkSession& session, std::string_view baseURL, std::string consumerKey,
                               std::string consumerSecret, std::optional<std::string> username,
                               std::optional<std::string> password)
    : AFHTTPClient(session, baseURL),
      consumerKey_(std::move(consumerKey)),
      consumerSecret_(std::move(consumerSecret)),
      username_(std::move(username)),
      password_(std::move(password)),
      signRequests_(true),
      xAuthWithHeader_(true) {}

void STLOAuthClient::setConsumerKey(std::optional<std::string> key, std::optional<std::string> secret) {
  std::lock_guard lock(signingMutex_);
  consumerKey_ = std::move(key);
  consumerSecret_ = std::move(secret);
}

void STLOAuthClient::setAccessToken(std::optional<std::string> token, std::optional<std::string> secret) {
  std::lock_guard lock(signingMutex_);
  tokenIdentifier_ = std::move(token);
  tokenSecret_ = std::move(secret);
}

std::optional<std::string> STLOAuthClient::consumerKey() const {
  std::lock_guard lock(signingMutex_);
  return consumerKey_;
}

std::optional<std::string> STLOAuthClient::tokenIdentifier() const {
  std::lock_guard lock(signingMutex_);
  return tokenIdentifier_;
}

std::optional<std::string> STLOAuthClient::tokenSecret() const {
  std::lock_guard lock(signingMutex_);
  return tokenSecret_;
}

bool STLOAuthClient::signRequests() const {
  std::lock_guard lock(signingMutex_);
  return signRequests_;
}

void STLOAuthClient::setSignRequests(bool sign) {
  std::lock_guard lock(signingMutex_);
  signRequests_ = sign;
}

std::optional<std::string> STLOAuthClient::realm() const {
  std::lock_guard lock(signingMutex_);
  return realm_;
}

void STLOAuthClient::setRealm(std::optional<std::string> realm) {
  std::lock_guard lock(signingMutex_);
  realm_ = std::move(realm);
}

void STLOAuthClient::setUsername(std::optional<std::string> username) {
  std::lock_guard lock(signingMutex_);
  username_ = std::move(username);
}

void STLOAuthClient::setPassword(std::optional<std::string> password) {
  std::lock_guard lock(signingMutex_);
  password_ = std::move(password);
}

std::optional<std::string> STLOAuthClient::username() const {
  std::lock_guard lock(signingMutex_);
  return username_;
}

bool STLOAuthClient::hasPassword() const {
  std::lock_guard lock(signingMutex_);
  return password_.has_value();
}

void STLOAuthClient::forgetUserCredentials() {
  std::lock_guard lock(signingMutex_);
  // Overwritten before release, so the text does not linger in freed memory.
  if (password_) std::fill(password_->begin(), password_->end(), '\0');
  password_.reset();
  username_.reset();
  xAuthWithHeader_ = false;
}

bool STLOAuthClient::isXAuthWithAuthhenticationHeader() const {
  std::lock_guard lock(signingMutex_);
  return xAuthWithHeader_;
}

void STLOAuthClient::setXAuthWithAuthhenticationHeader(bool value) {
  std::lock_guard lock(signingMutex_);
  xAuthWithHeader_ = value;
}

HttpRequest STLOAuthClient::requestWithMethod(std::string_view method, std::string_view path,
                                              const nlohmann::json& parameters) {
  return requestWithMethod(method, path, parameters, parameterEncoding());
}

HttpRequest STLOAuthClient::requestWithMethod(std::string_view method, std::string_view path,
                                              const nlohmann::json& parameters,
                                              AFHTTPClientParameterEncoding encoding) {
  return signRequests() ? signedRequestWithMethod(method, path, parameters, encoding)
                        : unsignedRequestWithMethod(method, path, parameters, encoding);
}

HttpRequest STLOAuthClient::unsignedRequestWithMethod(std::string_view method, std::string_view path,
                                                      const nlohmann::json& parameters,
                                                      std::optional<AFHTTPClientParameterEncoding> encoding) {
  return AFHTTPClient::requestWithMethod(method, path, parameters, encoding.value_or(parameterEncoding()));
}

HttpRequest STLOAuthClient::signedRequestWithMethod(std::string_view method, std::string_view path,
                                                    const nlohmann::json& parameters,
                                                    std::optional<AFHTTPClientParameterEncoding> encoding) {
  HttpRequest request = unsignedRequestWithMethod(method, path, parameters, encoding);
  if (request.url.empty()) return request;
  std::string header = authorizationHeaderValueForMethod(method, path, parameters);
  if (!header.empty()) request.setValue("Authorization", std::move(header));
  return request;
}

OAuthParameters STLOAuthClient::oauthParametersWithTimestampAndNonce() {
  OAuthParameters parameters{{"oauth_signature_method", "HMAC-SHA1"}, {"oauth_version", "1.0"}};
  {
    std::lock_guard lock(signingMutex_);
    if (consumerKey_) parameters.emplace_back("oauth_consumer_key", *consumerKey_);
    if (tokenIdentifier_) parameters.emplace_back("oauth_token", *tokenIdentifier_);
    if (xAuthWithHeader_) {
      parameters.emplace_back("x_auth_mode", "client_auth");
      if (username_) parameters.emplace_back("x_auth_username", *username_);
      if (password_) parameters.emplace_back("x_auth_password", *password_);
    }
  }
  auto stamp = session().nonceLedger().next(session().clock(), session().nonceSource());
  parameters.emplace_back("oauth_timestamp", std::move(stamp.timestamp));
  parameters.emplace_back("oauth_nonce", std::move(stamp.nonce));
  return parameters;
}

std::string STLOAuthClient::authorizationHeaderValueForMethod(std::string_view method, std::string_view path,
                                                              const nlohmann::json& parameters) {
  auto url = baseURLComponents().resolve(path);
  if (!url) url = URL::parse(path);
  // Nothing to sign: the request cannot be sent either (a host-less URL would throw in the signer).
  if (!url || !url->isAbsolute() || url->host().empty()) return {};
  OAuthSigningInput input;
  input.method = std::string(method);
  input.url = url->string();
  input.oauthParameters = oauthParametersWithTimestampAndNonce();
  if (!parameters.is_null()) {
    for (auto& pair : queryStringPairsFromDictionary(parameters)) {
      input.requestParameters.emplace_back(std::move(pair.field), pair.value.value_or(""));
    }
  }
  {
    std::lock_guard lock(signingMutex_);
    input.consumerSecret = consumerSecret_.value_or("");
    input.tokenSecret = tokenSecret_.value_or("");
    input.realm = realm_;
  }
  return oauthSign(input).headerValue;
}

}  // namespace lectern
