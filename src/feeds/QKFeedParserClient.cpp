#include "feeds/QKFeedParserClient.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include "core/Log.h"
#include "core/Strings.h"
#include "feeds/FeedDocumentParser.h"
#include "feeds/FeedURLSplit.h"
#include "net/QKKindURLErrorMessage.h"
#include "net/URLError.h"

namespace lectern {
namespace {

constexpr std::string_view kLogCategory = "QKFeedParserClient";

// An address the transport can be asked for: scheme and host present.
bool isFetchable(std::string_view url) {
  const auto parsed = URL::parse(url);
  return parsed && parsed->isAbsolute() && parsed->hasAuthority() && !parsed->host().empty();
}

// The HTTP client needs an absolute base; an address that gives none gets a base that names no host.
std::string clientBaseURL(const FeedURLSplit& split) {
  return isFetchable(split.baseUrl) ? split.baseUrl : std::string("about:blank");
}

// The bytes of whatever the operation handed on: raw bytes, or XML input when an XML operation
// class was chosen.
std::string_view responseBytes(const ResponseObject& object, const std::string& fallback) {
  if (const auto* bytes = std::get_if<std::string>(&object)) return *bytes;
  if (const auto* xml = std::get_if<XMLParserInput>(&object)) return xml->data;
  return fallback;
}

std::string sha256Hex(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
  return hexEncode(std::string_view(reinterpret_cast<const char*>(digest), length));
}

}  // namespace

QKFeedParserClient::QKFeedParserClient(NetworkSession& session, std::string_view url)
    : QKFeedParserClient(session, url, FeedURLSplit::fromURL(url)) {}

QKFeedParserClient::QKFeedParserClient(NetworkSession& session, std::string_view url, FeedURLSplit split)
    : AFHTTPClient(session, clientBaseURL(split)),
      url_(url),
      path_(std::move(split.path)),
      baseUrl_(std::move(split.baseUrl)),
      fetchable_(isFetchable(url)) {
  setDefaultHeader("Accept", "*/*");
  setMaximumResponseSize(kMaximumFeedBytes);
}

HttpRequest QKFeedParserClient::requestWithMethod(std::string_view method, std::string_view path,
                                                  const nlohmann::json& parameters) {
  if (path != path_ || !parameters.is_null())
    return AFHTTPClient::requestWithMethod(method, path, parameters);
  HttpRequest request = AFHTTPClient::requestWithMethod(method, "", nullptr);
  // The split puts an explicit port at the front of the path, where resolving it against the base
  // would lose it: the feed URL as given is the address the split came from. An empty URL makes
  // the transport fail with -1000.
  request.url = fetchable_ ? url_ : std::string();
  return request;
}

Error QKFeedParserClient::fetchError(const Error& transportError, std::string_view feedURL) {
  return QKKindURLErrorMessage::kindErrorFromNSURLError(transportError,
                                                        fmt::format("Failed to fetch feed: {}", feedURL));
}

void QKFeedParserClient::fetchFeed(Completion onComplete) {
  NetworkSession& session = this->session();
  auto operation = HTTPRequestOperationWithRequest(
      requestWithMethod("GET", path_, nullptr),
      // Parsing a large feed takes a while: it runs on the processing queue, not the main thread.
      [&session, onComplete](AFHTTPRequestOperation& operation, const ResponseObject& object) {
        const std::string fallback =
            std::holds_alternative<std::monostate>(object) ? operation.responseData() : "";
        Result<RSSFeed> feed = FeedDocumentParser::parseFeedData(
            responseBytes(object, fallback), session.clock().now(), operation.request().url);
        if (!feed) logDebugMessage(kLogCategory, "Feed not parsed: {}", feed.error().message());
        session.mainQueue().post([onComplete, feed = std::make_shared<Result<RSSFeed>>(std::move(
                                                  feed))]() mutable { onComplete(std::move(*feed)); });
      },
      [url = url_, onComplete](AFHTTPRequestOperation&, const Error& error) {
        onComplete(fail(fetchError(error, url)));
      });
  operation->setSuccessCallbackQueue(callbackQueueFor(session.processingQueue(ResponseProcessing::kXML)));
  enqueueHTTPRequestOperation(std::move(operation));
}

Result<RSSFeed> QKFeedParserClient::synchronouslyFetchFeed() {
  auto fetched = synchronouslyFetchFeed(FeedValidators{});
  if (!fetched) return fail(fetched.error());
  // Nothing was held, so nothing could be "not modified"; a 304 anyway is a server's mistake.
  if (!fetched->feed)
    return fail(fetchError(
        makeURLError(URLErrorCode::kBadServerResponse, url_, "Not modified, though nothing was held"), url_));
  return std::move(*fetched->feed);
}

Result<ConditionalFeed> QKFeedParserClient::synchronouslyFetchFeed(const FeedValidators& held) {
  HttpRequest request = requestWithMethod("GET", path_, nullptr);
  if (held.etag) request.headers.set("If-None-Match", *held.etag);
  if (held.lastModified) request.headers.set("If-Modified-Since", *held.lastModified);
  const SynchronousResponse response = synchronouslyPerformRequest(std::move(request), synchronousTimeout_);
  const auto head = response.operation ? response.operation->response() : std::nullopt;
  const bool conditional = held.etag || held.lastModified;
  if (conditional && head && head->statusCode == 304) {
    logDebugMessage(kLogCategory, "Not modified: {}", url_);
    return ConditionalFeed{std::nullopt, held};
  }
  if (response.error) return fail(fetchError(*response.error, url_));
  const std::string fallback = std::holds_alternative<std::monostate>(response.responseObject)
                                   ? response.operation->responseData()
                                   : std::string();
  const std::string_view bytes = responseBytes(response.responseObject, fallback);
  FeedValidators validators;
  if (head) {
    validators.etag = head->headers.value("ETag");
    validators.lastModified = head->headers.value("Last-Modified");
  }
  // Hashing the document costs a small fraction of parsing it.
  validators.bodyHash = sha256Hex(bytes);
  if (held.bodyHash == validators.bodyHash) {
    logDebugMessage(kLogCategory, "Same document as before: {}", url_);
    return ConditionalFeed{std::nullopt, std::move(validators)};
  }
  auto feed = FeedDocumentParser::parseFeedData(bytes, session().clock().now(), url_);
  if (!feed) return fail(feed.error());
  return ConditionalFeed{std::move(*feed), std::move(validators)};
}

}  // namespace lectern
