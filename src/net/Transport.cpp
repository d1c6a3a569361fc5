#include "net/Transport.h"

#include <condition_variable>
#include <mutex>

namespace lectern {
namespace {

class CollectingDelegate final : public TransferDelegate {
 public:
  ResponseDisposition didReceiveResponse(const HttpResponse& response) override {
    std::lock_guard lock(mutex_);
    exchange_.response = response;
    exchange_.body.clear();
    return ResponseDisposition::allow();
  }
  std::optional<Error> didReceiveData(std::string_view bytes) override {
    std::lock_guard lock(mutex_);
    exchange_.body.append(bytes);
    return std::nullopt;
  }
  void didComplete(std::optional<Error> error) override {
    std::lock_guard lock(mutex_);
    error_ = std::move(error);
    done_ = true;
    changed_.notify_all();
  }
  Result<Transport::Exchange> wait() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return done_; });
    if (error_) return fail(*error_);
    return exchange_;
  }

 private:
  std::mutex mutex_;  // guards exchange_, error_, done_
  std::condition_variable changed_;
  Transport::Exchange exchange_;
  std::optional<Error> error_;
  bool done_ = false;
};

}  // namespace

Result<Transport::Exchange> Transport::send(const HttpRequest& request) {
  auto delegate = std::make_shared<CollectingDelegate>();
  start(request, delegate);
  return delegate->wait();
}

}  // namespace lectern
