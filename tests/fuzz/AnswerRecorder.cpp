#include "AnswerRecorder.h"

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "ServicesFuzz.h"

namespace lectern::fuzz {

namespace {

class RecordingDelegate final : public TransferDelegate {
 public:
  RecordingDelegate(std::shared_ptr<TransferDelegate> inner, std::shared_ptr<AnswerRecorder> recorder)
      : inner_(std::move(inner)), recorder_(std::move(recorder)) {}

  std::optional<HttpRequest> willRedirect(HttpRequest proposed, const HttpResponse& response) override {
    return inner_->willRedirect(std::move(proposed), response);
  }
  ResponseDisposition didReceiveResponse(const HttpResponse& response) override {
    status_ = response.statusCode;
    body_.clear();
    return inner_->didReceiveResponse(response);
  }
  std::optional<Error> didReceiveData(std::string_view bytes) override {
    body_.append(bytes);
    return inner_->didReceiveData(bytes);
  }
  void didSendBodyData(std::uint64_t written, std::uint64_t total, std::int64_t expected) override {
    inner_->didSendBodyData(written, total, expected);
  }
  void didComplete(std::optional<Error> error) override {
    if (!error && status_ != 0) recorder_->record(status_, std::move(body_));
    inner_->didComplete(std::move(error));
  }

 private:
  std::shared_ptr<TransferDelegate> inner_;
  std::shared_ptr<AnswerRecorder> recorder_;
  int status_ = 0;
  std::string body_;
};

class RecordingTransport final : public Transport {
 public:
  RecordingTransport(std::unique_ptr<Transport> inner, std::shared_ptr<AnswerRecorder> recorder)
      : inner_(std::move(inner)), recorder_(std::move(recorder)) {}
  TransferId start(HttpRequest request, std::shared_ptr<TransferDelegate> delegate) override {
    return inner_->start(std::move(request), std::make_shared<RecordingDelegate>(std::move(delegate), recorder_));
  }
  void cancel(TransferId transfer) override { inner_->cancel(transfer); }
  TransportStatistics statistics() const override { return inner_->statistics(); }

 private:
  std::unique_ptr<Transport> inner_;
  std::shared_ptr<AnswerRecorder> recorder_;
};

}  // namespace

std::unique_ptr<Transport> AnswerRecorder::wrap(std::unique_ptr<Transport> transport,
                                                std::shared_ptr<AnswerRecorder> recorder) {
  return std::make_unique<RecordingTransport>(std::move(transport), std::move(recorder));
}

void AnswerRecorder::record(int statusCode, std::string body) {
  std::lock_guard guard(lock_);
  answers_.push_back(statusCode == 200 ? std::move(body) : "HTTP " + std::to_string(statusCode) + "\n" + body);
}

void AnswerRecorder::clear() {
  std::lock_guard guard(lock_);
  answers_.clear();
}

std::string AnswerRecorder::seed(unsigned char serviceIndex) const {
  std::lock_guard guard(lock_);
  std::string seed(1, static_cast<char>(serviceIndex));
  for (size_t i = 0; i < answers_.size(); ++i) seed += (i == 0 ? "" : "\n--\n") + answers_[i];
  return seed;
}

std::string answerRecordingFolder() {
  const char* folder = std::getenv("LECTERN_RECORD_ANSWERS");
  return folder == nullptr ? std::string() : std::string(folder);
}

void writeAnswerSeed(const AnswerRecorder& recorder, const std::string& suite, const std::string& test) {
  const std::string folder = answerRecordingFolder();
  if (folder.empty()) return;
  // A parameterised suite is "Instance/Suite"; its tests are "Name/0".
  const std::string name = suite.substr(suite.rfind('/') + 1);
  std::string lowered;
  for (const char c : name) lowered += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  // The longest name that starts the suite's ("feedwrangler" before "feed..." names).
  int best = -1;
  for (size_t i = 0; i < std::size(kFuzzedServices); ++i) {
    if (lowered.starts_with(kFuzzedServices[i].name) &&
        (best < 0 || kFuzzedServices[i].name.size() > kFuzzedServices[static_cast<size_t>(best)].name.size()))
      best = static_cast<int>(i);
  }
  if (best < 0) return;
  const std::string seed = recorder.seed(static_cast<unsigned char>(best));
  if (seed.size() <= 1) return;
  std::filesystem::create_directories(folder);
  std::string file = name + "." + test + ".seed";
  for (char& c : file) c = c == '/' ? '-' : c;
  std::ofstream(std::filesystem::path(folder) / file, std::ios::binary) << seed;
}

}  // namespace lectern::fuzz
