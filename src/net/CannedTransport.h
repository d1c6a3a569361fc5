#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "net/Transport.h"

namespace lectern {

// A transport that answers from a function instead of the network, for tests of the code above
// it. Answers are delivered in order on the transport's own thread, as the real one does.
class CannedTransport final : public Transport {
 public:
  struct Answer {
    int statusCode = 200;
    HttpHeaders headers;
    std::string body;
    std::optional<Error> error;  // the transfer fails with it after the head and body, if any
    bool sendHead = true;        // false: fail before any response arrives
  };
  using Handler = std::function<Answer(const HttpRequest&)>;

  explicit CannedTransport(Handler handler);
  ~CannedTransport() override;
  CannedTransport(const CannedTransport&) = delete;
  CannedTransport& operator=(const CannedTransport&) = delete;

  TransferId start(HttpRequest request, std::shared_ptr<TransferDelegate> delegate) override;
  void cancel(TransferId transfer) override;
  TransportStatistics statistics() const override;

  // Every request the handler saw, in order (restarts included).
  std::vector<HttpRequest> requests() const;

 private:
  struct Job {
    TransferId id;
    HttpRequest request;
    std::shared_ptr<TransferDelegate> delegate;
  };
  void run();
  void deliver(Job& job);

  Handler handler_;
  mutable std::mutex mutex_;  // guards jobs_, cancelled_, requests_, nextId_, stopping_
  std::condition_variable changed_;
  std::deque<Job> jobs_;
  std::set<TransferId> cancelled_;
  std::vector<HttpRequest> requests_;
  TransferId nextId_ = 1;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace lectern
