#include "net/CannedTransport.h"

#include "net/ExceptionBarrier.h"
#include "net/URLError.h"

namespace lectern {

CannedTransport::CannedTransport(Handler handler)
    : handler_(std::move(handler)), thread_([this] { run(); }) {}

CannedTransport::~CannedTransport() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

Transport::TransferId CannedTransport::start(HttpRequest request,
                                             std::shared_ptr<TransferDelegate> delegate) {
  std::lock_guard lock(mutex_);
  const TransferId id = nextId_++;
  jobs_.push_back(Job{id, std::move(request), std::move(delegate)});
  changed_.notify_all();
  return id;
}

void CannedTransport::cancel(TransferId transfer) {
  std::lock_guard lock(mutex_);
  cancelled_.insert(transfer);
}

TransportStatistics CannedTransport::statistics() const {
  std::lock_guard lock(mutex_);
  return TransportStatistics{nextId_ - 1, 0};
}

std::vector<HttpRequest> CannedTransport::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

void CannedTransport::run() {
  for (;;) {
    Job job;
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
      if (jobs_.empty()) return;
      job = std::move(jobs_.front());
      jobs_.pop_front();
    }
    deliver(job);
  }
}

void CannedTransport::deliver(Job& job) {
  // As on the real network thread, nothing the delegate throws may leave this thread.
  auto complete = [&](std::optional<Error> error) {
    runLoggingExceptions("CannedTransport", "a transfer's completion",
                         [&] { job.delegate->didComplete(std::move(error)); });
  };
  auto thrownError = [&](const std::string& message) {
    return makeURLError(URLErrorCode::kUnknown, job.request.url, "An unknown network error occurred.",
                        message);
  };
  auto isCancelled = [&] {
    std::lock_guard lock(mutex_);
    return cancelled_.contains(job.id) || stopping_;
  };
  for (;;) {
    if (isCancelled()) {
      complete(makeURLError(URLErrorCode::kCancelled, job.request.url, "cancelled"));
      return;
    }
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(job.request);
    }
    if (job.request.url.empty()) {
      complete(makeURLError(URLErrorCode::kBadURL, "", "The URL is not valid."));
      return;
    }
    const Answer answer = handler_(job.request);
    if (!answer.sendHead) {
      complete(answer.error);
      return;
    }
    HttpResponse response{answer.statusCode, job.request.url, answer.headers};
    ResponseDisposition disposition;
    if (auto thrown =
            exceptionMessageFrom([&] { disposition = job.delegate->didReceiveResponse(response); })) {
      complete(thrownError(*thrown));
      return;
    }
    if (disposition.failWith) {
      complete(std::move(disposition.failWith));
      return;
    }
    if (disposition.restartWith) {
      job.request = std::move(*disposition.restartWith);
      continue;
    }
    // Two pieces, so code that appends chunks is exercised.
    const size_t half = answer.body.size() / 2;
    for (std::string_view piece :
         {std::string_view(answer.body).substr(0, half), std::string_view(answer.body).substr(half)}) {
      if (piece.empty()) continue;
      std::optional<Error> error;
      if (auto thrown = exceptionMessageFrom([&] { error = job.delegate->didReceiveData(piece); })) {
        error = thrownError(*thrown);
      }
      if (error) {
        complete(std::move(error));
        return;
      }
    }
    complete(answer.error);
    return;
  }
}

}  // namespace lectern
