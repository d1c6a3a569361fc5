#include "net/NetworkSession.h"

#include "core/Error.h"
#include "net/CurlTransport.h"
#include "net/DefaultHeaders.h"

namespace lectern {
namespace {

NetworkSessionOptions completed(NetworkSessionOptions options) {
  if (options.preferredLanguages.empty()) options.preferredLanguages = preferredLanguagesFromEnvironment();
  if (options.systemRelease.empty()) options.systemRelease = systemRelease();
  if (!options.clock) options.clock = std::make_shared<SystemClock>();
  if (!options.nonceSource) options.nonceSource = std::make_shared<UUIDNonceSource>();
  return options;
}

std::unique_ptr<Transport> curlTransportFor(const NetworkSessionOptions& options) {
  CurlTransportOptions curl;
  curl.verifyTLS = options.verifyTLS;
  curl.maximumRedirects = options.maximumRedirects;
  curl.acceptCookies = options.acceptCookies;
  return std::make_unique<CurlTransport>(curl);
}

}  // namespace

NetworkSession::NetworkSession(MainQueue& mainQueue, Reachability& reachability,
                               NetworkSessionOptions options)
    : NetworkSession(mainQueue, reachability, curlTransportFor(options), options) {}

NetworkSession::NetworkSession(MainQueue& mainQueue, Reachability& reachability,
                               std::unique_ptr<Transport> transport, NetworkSessionOptions options)
    : mainQueue_(mainQueue),
      reachability_(reachability),
      options_(completed(std::move(options))),
      transport_(std::move(transport)) {
  if (!transport_) throw InternalInconsistency("Invalid parameter not satisfying: transport");
}

NetworkSession::~NetworkSession() {
  // Transfers still running end now with the cancelled error; then the queues drain.
  transport_.reset();
  for (auto* queue : {&jsonQueue_, &xmlQueue_, &propertyListQueue_, &imageQueue_, &backgroundQueue_}) {
    queue->waitUntilAllOperationsAreFinished();
  }
}

OperationQueue& NetworkSession::processingQueue(ResponseProcessing kind) {
  switch (kind) {
    case ResponseProcessing::kXML:
      return xmlQueue_;
    case ResponseProcessing::kPropertyList:
      return propertyListQueue_;
    case ResponseProcessing::kImage:
      return imageQueue_;
    case ResponseProcessing::kJSON:
    case ResponseProcessing::kNone:
      return jsonQueue_;
  }
  return jsonQueue_;
}

void NetworkSession::setPendingXAuthCallbacks(XAuthCallbacks callbacks) {
  std::lock_guard lock(xAuthMutex_);
  xAuthCallbacks_ = std::move(callbacks);
}

XAuthCallbacks NetworkSession::pendingXAuthCallbacks() const {
  std::lock_guard lock(xAuthMutex_);
  return xAuthCallbacks_;
}

}  // namespace lectern
