#include "FuzzLibrary.h"

#include <unistd.h>

#include <charconv>
#include <chrono>
#include <stdexcept>

#include "accounts/ServiceDependencies.h"
#include "accounts/ServiceFactory.h"

namespace lectern::fuzz {

namespace {

// Where the store goes: memory-backed when the machine has it, as the fuzzer makes thousands.
std::filesystem::path freshFolder() {
  static int counter = 0;
  std::error_code ec;
  std::filesystem::path root = std::filesystem::is_directory("/dev/shm", ec)
                                   ? std::filesystem::path("/dev/shm")
                                   : std::filesystem::temp_directory_path();
  auto folder = root / ("lectern-fuzz-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
  std::filesystem::remove_all(folder, ec);
  std::filesystem::create_directories(folder);
  return folder;
}

std::string acceptedType(const HttpRequest& request) {
  const std::string accept = request.headers.value("Accept").value_or("");
  const std::string first = accept.substr(0, accept.find_first_of(",;"));
  if (first.empty() || first.find('*') != std::string::npos) return "application/json; charset=utf-8";
  return first;
}

}  // namespace

AnswerScript::AnswerScript(std::vector<std::string_view> answers) {
  for (auto answer : answers) answers_.emplace_back(answer);
}

CannedTransport::Answer AnswerScript::next(const HttpRequest& request) {
  std::lock_guard guard(lock_);
  const auto index = static_cast<size_t>(served_++);
  CannedTransport::Answer answer;
  if (index >= answers_.size()) {
    answer.statusCode = 404;
    return answer;
  }
  std::string_view body = answers_[index];
  constexpr std::string_view kStatus = "HTTP ";
  if (body.starts_with(kStatus)) {
    const auto end = body.find('\n');
    int status = 0;
    const auto digits = body.substr(kStatus.size(), end == std::string_view::npos ? body.npos : end - kStatus.size());
    if (std::from_chars(digits.data(), digits.data() + digits.size(), status).ec == std::errc{} && status >= 100 &&
        status <= 599) {
      answer.statusCode = status;
    }
    body = end == std::string_view::npos ? std::string_view{} : body.substr(end + 1);
  }
  answer.headers.set("Content-Type", acceptedType(request));
  answer.body = std::string(body);
  return answer;
}

FuzzLibrary::FuzzLibrary(CannedTransport::Handler answer)
    : folder_(freshFolder()),
      paths_(Paths::under(folder_)),
      clock_(std::chrono::system_clock::now()),
      session_(mainQueue_, reachability_, std::make_unique<CannedTransport>(std::move(answer))),
      dataManager_(std::make_unique<QKDataManager>(paths_, defaults_, mainQueue_, clock_, reachability_, &secrets_)),
      environment_{*dataManager_, defaults_, mainQueue_, reachability_, clock_, session_} {
  registerLecternDefaults(defaults_);
  registerServiceFactory(*dataManager_, ServiceDependencies{mainQueue_, clock_, &session_});
  manager_ = std::make_unique<QKSyncManager>(environment_);
}

FuzzLibrary::~FuzzLibrary() {
  manager_.reset();
  dataManager_.reset();
  mainQueue_.drain();
  std::error_code ec;
  std::filesystem::remove_all(folder_, ec);
}

ObjectContext& FuzzLibrary::context() {
  auto opened = dataManager_->managedObjectContext();
  if (!opened) throw std::runtime_error(opened.error().message());
  return **opened;
}

void FuzzLibrary::sync(const std::shared_ptr<Account>& account) {
  if (manager_->syncAccounts({account}) == 0) return;
  // A sync that never ends is a fault of its own: the fuzzer's timeout reports it.
  while (!manager_->waitUntilSyncFinished(std::chrono::seconds(60))) {
  }
}

}  // namespace lectern::fuzz
