#include "services/ServiceRequests.h"

#include "net/AFHTTPClient.h"
#include "net/QKKindURLErrorMessage.h"
#include "net/URLError.h"

namespace lectern {
namespace {

struct Chain {
  std::weak_ptr<AFHTTPClient> client;
  std::vector<HttpRequest> requests;
  size_t next = 0;
  std::string title;
  std::function<void(std::optional<Error>)> onCompleted;
  RequestErrorReader readError;

  void complete(std::optional<Error> error) {
    auto done = std::move(onCompleted);
    if (done) done(std::move(error));
  }
};

void sendNext(const std::shared_ptr<Chain>& chain) {
  if (chain->next == chain->requests.size()) {
    chain->complete(std::nullopt);
    return;
  }
  auto client = chain->client.lock();
  if (!client) {
    chain->complete(
        titledError(std::nullopt, makeURLError(URLErrorCode::kCancelled, "", "cancelled"), chain->title));
    return;
  }
  auto operation = client->HTTPRequestOperationWithRequest(
      std::move(chain->requests[chain->next++]),
      [chain](AFHTTPRequestOperation&, const ResponseObject&) { sendNext(chain); },
      [chain](AFHTTPRequestOperation& operation, const Error& error) {
        chain->complete(chain->readError ? chain->readError(operation, error, chain->title)
                                         : titledError(operation.response(), error, chain->title));
      });
  client->enqueueHTTPRequestOperation(std::move(operation));
}

}  // namespace

Error titledError(const std::optional<HttpResponse>& response, const Error& error, std::string_view title) {
  Error titled = QKKindURLErrorMessage::kindErrorFromResponse(response, title, error).value_or(error);
  // An error without a sentence of its own (an answer that is not JSON) keeps its text.
  if (titled.description != title) {
    titled.recoverySuggestion = titled.description;
    titled.description = std::string(title);
  }
  return titled;
}

void sendInOrder(const std::shared_ptr<AFHTTPClient>& client, std::vector<HttpRequest> requests,
                 std::string title, std::function<void(std::optional<Error>)> onCompleted,
                 RequestErrorReader readError) {
  sendNext(std::make_shared<Chain>(
      Chain{client, std::move(requests), 0, std::move(title), std::move(onCompleted), std::move(readError)}));
}

}  // namespace lectern
