#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Error.h"
#include "net/HttpRequest.h"
#include "net/HttpResponse.h"

namespace lectern {

class AFHTTPClient;
class AFHTTPRequestOperation;

// What every hosted service's client does with its requests and their failures.

// The error a person sees for a failed call: `title` names the call, the recovery suggestion is
// the sentence for the HTTP status or the network error (QKKindURLErrorMessage), else the
// failure's own text. The HTTP status stays in the user info.
Error titledError(const std::optional<HttpResponse>& response, const Error& error, std::string_view title);

// How a failed request becomes the error a person sees, for a client whose server explains its
// failures in the body; titledError of the response otherwise.
using RequestErrorReader =
    std::function<Error(const AFHTTPRequestOperation& operation, const Error& error, std::string_view title)>;

// Sends `requests` on `client`, one after the other; the first failure (titled `title`, read by
// `readError` when given) ends them, and `onCompleted` runs once, on the main queue. The client
// is held weakly between answers: dropped meanwhile, the call ends as cancelled.
void sendInOrder(const std::shared_ptr<AFHTTPClient>& client, std::vector<HttpRequest> requests,
                 std::string title, std::function<void(std::optional<Error>)> onCompleted,
                 RequestErrorReader readError = {});

}  // namespace lectern
