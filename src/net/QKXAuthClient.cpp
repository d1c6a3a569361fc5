#include "net/QKXAuthClient.h"

#include "core/Strings.h"
#include "net/QKJSONRequestOperation.h"

namespace lectern {
namespace {

std::string qlineUnescape(std::string_view text) { return percentUnescape(replaceAll(text, "+", " ")); }

}  // namespace

QKXAuthClient::~QKXAuthClient() { self_.reset(); }

std::pair<std::optional<std::string>, std::optional<std::string>> QKXAuthClient::tokenPairFromResponseBody(
    std::string_view body) {
  std::optional<std::string> token;
  std::optional<std::string> secret;
  if (!isValidUTF8(body)) return {token, secret};
  const size_t question = body.rfind('?');
  const std::string_view query = question == std::string_view::npos ? body : body.substr(question + 1);
  for (const auto& pair : split(query, "&")) {
    const size_t equals = pair.find('=');
    if (equals == std::string::npos) continue;
    const std::string key = percentUnescape(std::string_view(pair).substr(0, equals));
    std::string value = percentUnescape(std::string_view(pair).substr(equals + 1));
    if (key == "oauth_token") token = std::move(value);
    if (key == "oauth_token_secret") secret = std::move(value);
  }
  return {token, secret};
}

void QKXAuthClient::authenticate(std::string_view path, const nlohmann::json& parameters,
                                 AuthenticationSuccess success, AuthenticationFailure failure) {
  session().setPendingXAuthCallbacks(XAuthCallbacks{std::move(success), std::move(failure)});
  NetworkSession* session = &this->session();
  postPath(
      path, parameters,
      [session, weak = std::weak_ptr<QKXAuthClient*>(self_)](AFHTTPRequestOperation& operation,
                                                             const ResponseObject&) {
        auto [token, secret] = tokenPairFromResponseBody(operation.responseData());
        if (auto self = weak.lock()) {
          QKXAuthClient& client = **self;
          {
            std::lock_guard lock(client.tokenMutex_);
            client.accessToken_ = token;
            client.accessTokenSecret_ = secret;
          }
          client.setAccessToken(token, secret);
          // The token stands in for the password from now on: it is not kept, and no later request
          // carries x_auth_* values. An answer without a token leaves them for another try.
          if (token) client.forgetUserCredentials();
          client.setParameterEncoding(AFHTTPClientParameterEncoding::kJSONParameterEncoding);
          client.setDefaultHeader("Accept", "text/json");
          client.registerHTTPOperationClass<QKJSONRequestOperation>();
        }
        auto callbacks = session->pendingXAuthCallbacks();
        if (callbacks.success) callbacks.success(std::move(token), std::move(secret));
      },
      [session](AFHTTPRequestOperation&, const Error& error) {
        auto callbacks = session->pendingXAuthCallbacks();
        if (callbacks.failure) callbacks.failure(error);
      });
}

std::optional<std::string> QKXAuthClient::accessToken() const {
  std::lock_guard lock(tokenMutex_);
  return accessToken_;
}

std::optional<std::string> QKXAuthClient::accessTokenSecret() const {
  std::lock_guard lock(tokenMutex_);
  return accessTokenSecret_;
}

std::optional<std::string> QKXAuthClient::encodedUserId() const {
  std::lock_guard lock(tokenMutex_);
  return encodedUserId_;
}

void QKXAuthClient::setEncodedUserId(std::optional<std::string> id) {
  std::lock_guard lock(tokenMutex_);
  encodedUserId_ = std::move(id);
}

std::shared_ptr<AFHTTPRequestOperation> QKXAuthClient::enqueueSigned(std::string_view method,
                                                                     std::string_view path,
                                                                     const nlohmann::json& parameters,
                                                                     std::chrono::duration<double> timeout,
                                                                     Success success, Failure failure) {
  HttpRequest request = signedRequestWithMethod(method, path, parameters);
  if (timeout.count() > 0) request.timeoutInterval = timeout;
  auto operation =
      HTTPRequestOperationWithRequest(std::move(request), std::move(success), std::move(failure));
  enqueueHTTPRequestOperation(operation);
  return operation;
}

std::shared_ptr<AFHTTPRequestOperation> QKXAuthClient::getResourceWithUrl(std::string_view path,
                                                                          const nlohmann::json& parameters,
                                                                          Success success, Failure failure) {
  return enqueueSigned("GET", path, parameters, {}, std::move(success), std::move(failure));
}

std::shared_ptr<AFHTTPRequestOperation> QKXAuthClient::postResourceWithUrl(
    std::string_view path, const nlohmann::json& parameters, std::chrono::duration<double> timeout,
    Success success, Failure failure) {
  return enqueueSigned("POST", path, parameters, timeout, std::move(success), std::move(failure));
}

std::shared_ptr<AFHTTPRequestOperation> QKXAuthClient::deleteResourceWithUrl(std::string_view path,
                                                                             const nlohmann::json& parameters,
                                                                             Success success,
                                                                             Failure failure) {
  return enqueueSigned("DELETE", path, parameters, {}, std::move(success), std::move(failure));
}

nlohmann::json QKXAuthClient::convertToJSONFromQline(std::string_view text) {
  nlohmann::json objects = nlohmann::json::array();
  for (const auto& rawLine : split(text, "\n")) {
    const std::string_view line = trimView(rawLine);
    if (line.empty()) continue;
    nlohmann::json object = nlohmann::json::object();
    for (const auto& pair : split(line, "&")) {
      if (pair.empty()) continue;
      const size_t equals = pair.find('=');
      const std::string key = qlineUnescape(std::string_view(pair).substr(0, equals));
      const std::string value = equals == std::string::npos
                                    ? std::string()
                                    : qlineUnescape(std::string_view(pair).substr(equals + 1));
      object[sanitizeUTF8(key)] = sanitizeUTF8(value);
    }
    objects.push_back(std::move(object));
  }
  return objects;
}

Error QKXAuthClient::errorFromResponseData(std::string_view, const std::optional<Error>& error,
                                           std::string_view titleMessage) const {
  if (error) return Error::make(error->domain, error->code, titleMessage, error->description);
  return Error::make(kLecternLowercaseErrorDomain, 100, titleMessage, "Unknown error");
}

}  // namespace lectern
