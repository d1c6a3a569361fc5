#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "core/Error.h"
#include "net/AFHTTPClient.h"
#include "services/pinboard/PinboardPacer.h"

namespace lectern {

// What posts/add sends: a new post, or an existing one again (same url) with changed fields.
struct PinboardPostFields {
  std::string url;
  std::optional<std::string> title;        // "description" on the wire
  std::optional<std::string> description;  // "extended" on the wire
  std::string tags;                        // comma-separated, as the library keeps them
  bool isShared = false;
  bool isArchive = false;
  // The post's own time ("dt"): a post sent again keeps its date instead of becoming new.
  std::optional<std::string> time;
  // Sent again over the post of the same url.
  bool replace = false;
};

// Pinboard's API, version 1: every call a GET with its parameters in the query, "format=json"
// and, once signed in, "auth_token=user:TOKEN". Calls wait their turn with the pacer rather than
// be refused. Owned by the account's PinboardService; blocking calls are for the sync thread, the
// others complete on the main queue. Thread-safe. Made with std::make_shared.
class QKPinboardClient final : public AFHTTPClient, public std::enable_shared_from_this<QKPinboardClient> {
 public:
  static constexpr int kApiVersion = 1;
  static constexpr std::string_view kDefaultBaseURL = "https://api.pinboard.in/";
  static constexpr std::string_view kErrorDomain = "Pinboard";
  static constexpr int kResponseErrorCode = 100;
  // The domain of an answer that explains nothing.
  static constexpr std::string_view kUnknownErrorDomain = "com.quillhq.com";

  struct ApiToken {
    std::string value;  // the secret half, without "user:"
  };

  using Completion = std::function<void(std::optional<Error>)>;
  using ObjectCompletion = std::function<void(Result<nlohmann::json>)>;
  using TokenCompletion = std::function<void(Result<std::string>)>;

  // initWithUsername:password: for signing in ("Accept: text/plain").
  QKPinboardClient(NetworkSession& session, std::string_view baseURL, std::string username, std::string password,
                   std::shared_ptr<PinboardPacer> pacer);
  // initWithUsername:apiToken: for everything else ("Accept: text/json").
  QKPinboardClient(NetworkSession& session, std::string_view baseURL, std::string username, ApiToken token,
                   std::shared_ptr<PinboardPacer> pacer);

  const std::string& username() const { return username_; }
  std::optional<std::string> apiToken() const;
  PinboardPacer& pacer() const { return *pacer_; }

  // {"format": "json"} and, once a token is known, "auth_token" = "user:token".
  nlohmann::json defaultParameters() const;

  // user/api_token with Basic authorisation (the only call that carries the password): the token,
  // which the client keeps; the Basic header is cleared again whatever the answer.
  void authenticate(TokenCompletion onCompleted);

  // posts/update: {"update_time": ...}.
  void getLastUpdate(ObjectCompletion onCompleted);
  // posts/all, blocking: the list of posts. Waits for its turn unless `isCancelled` says stop.
  Result<nlohmann::json> getAllBookmarksWithParams(nlohmann::json parameters,
                                                   const std::function<bool()>& isCancelled = {});
  // posts/get ("url" = one post): the whole answer, whose "posts" holds the list.
  void getBookmarksWithParams(nlohmann::json parameters, ObjectCompletion onCompleted);
  void addBookmarkWithUrl(const PinboardPostFields& post, Completion onCompleted);
  void deleteBookmarkWithUrl(const std::string& url, Completion onCompleted);

  // A dictionary whose "result_code" is there and is not "done".
  static bool isResponseError(const nlohmann::json& answer);
  // The error a body explains: a JSON "result_code", else the text of a body that is not JSON
  // (domain "Pinboard", kResponseErrorCode, "Pinboard said: ..."); otherwise the unknown API error.
  static Error errorFromResponseData(std::string_view body, std::string_view title);
  // The error a person sees for a failed call: a refusal said in a successful answer (status 400
  // in the user info, so that it is not queued again), a successful answer that is not what was
  // asked, or the transport's or status's sentence (429: when to try again).
  static Error errorFromOperation(const AFHTTPRequestOperation* operation, const Error& error, std::string_view title);

 private:
  std::string path(std::string_view resource) const;
  nlohmann::json withDefaultParameters(nlohmann::json parameters) const;
  // Waits for the pacer on the client's queue, then sends; `onCompleted` runs on the main queue.
  void request(PinboardPacer::Call kind, std::string_view resource, nlohmann::json parameters,
               std::string_view title, ObjectCompletion onCompleted);
  void enqueuePaced(PinboardPacer::Call kind, std::shared_ptr<AFHTTPRequestOperation> operation);
  void write(std::string_view resource, nlohmann::json parameters, std::string_view title, Completion onCompleted);

  const std::string username_;
  const std::string password_;  // sign-in only
  std::shared_ptr<PinboardPacer> pacer_;
  mutable std::mutex tokenMutex_;  // guards apiToken_
  std::optional<std::string> apiToken_;
};

}  // namespace lectern
