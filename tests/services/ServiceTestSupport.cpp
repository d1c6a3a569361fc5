#include "ServiceTestSupport.h"

#include <fmt/format.h>
#include <httplib.h>

#include <algorithm>
#include <ostream>
#include <thread>

#include "accounts/AccountCommands.h"
#include "accounts/ServiceFactory.h"
#include "net/CurlTransport.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/ObjectContext.h"
#include "store/OfflineOperation.h"

namespace lectern::test {

void PrintTo(const StoredStory& story, std::ostream* out) {
  *out << "{" << story.id << " \"" << story.title << "\"" << (story.read ? " read" : "")
       << (story.starred ? " starred" : "") << " feed " << story.feed << "}";
}

void consentInBrowser(const std::string& page) {
  std::thread([page] {
    const auto pathStart = page.find('/', std::string_view("http://").size());
    httplib::Client server(page.substr(0, pathStart));
    auto answer = server.Get(page.substr(pathStart));
    if (!answer || answer->status != 302) return;
    const std::string location = answer->get_header_value("Location");
    const auto backStart = location.find('/', std::string_view("http://").size());
    httplib::Client lectern(location.substr(0, backStart));
    (void)lectern.Get(location.substr(backStart));
  }).detach();
}

namespace {

// The real transport, listened to by `recorder` when it is set.
std::unique_ptr<Transport> testTransport(const std::shared_ptr<fuzz::AnswerRecorder>& recorder) {
  auto transport = std::make_unique<CurlTransport>();
  if (!recorder) return transport;
  return fuzz::AnswerRecorder::wrap(std::move(transport), recorder);
}

}  // namespace

ServiceTest::ServiceTest()
    : recorder_(fuzz::answerRecordingFolder().empty() ? nullptr : std::make_shared<fuzz::AnswerRecorder>()),
      paths_(Paths::under(temp_.path())),
      clock_(std::chrono::system_clock::now()),
      session_(mainQueue_, reachability_, testTransport(recorder_)),
      dataManager_(
          std::make_unique<QKDataManager>(paths_, defaults_, mainQueue_, clock_, reachability_, &secrets_)),
      environment_{*dataManager_, defaults_, mainQueue_, reachability_, clock_, session_} {
  registerLecternDefaults(defaults_);
  registerServiceFactory(*dataManager_, ServiceDependencies{mainQueue_, clock_, &session_});
  manager_ = std::make_unique<QKSyncManager>(environment_);
}

ServiceTest::~ServiceTest() {
  if (recorder_) {
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    fuzz::writeAnswerSeed(*recorder_, test->test_suite_name(), test->name());
  }
  manager_.reset();
  dataManager_.reset();
  mainQueue_.drain();
}

ObjectContext& ServiceTest::context() {
  auto opened = dataManager_->managedObjectContext();
  if (!opened) throw std::runtime_error(opened.error().message());
  return **opened;
}

Result<std::shared_ptr<Account>> ServiceTest::addAccount(const std::string& service,
                                                         const std::string& username,
                                                         const std::string& password,
                                                         const std::string& endpoint) {
  NewAccount request;
  request.service = service;
  request.username = username;
  request.password = password;
  request.endpoint = endpoint;
  std::optional<Result<std::shared_ptr<Account>>> outcome;
  lectern::addAccount(context(), request,
                      [&](Result<std::shared_ptr<Account>> added) { outcome = std::move(added); });
  if (!pumpUntil([&] { return outcome.has_value(); })) throw std::runtime_error("account add got no answer");
  return std::move(*outcome);
}

AccountSyncReport ServiceTest::sync(const std::shared_ptr<Account>& account) {
  if (manager_->syncAccounts({account}) == 0) return manager_->lastPassReports().at(0);
  if (!manager_->waitUntilSyncFinished(std::chrono::seconds(60)))
    throw std::runtime_error("the sync did not end");
  return manager_->lastPassReports().at(0);
}

bool ServiceTest::pumpUntil(const std::function<bool()>& done) {
  return mainQueue_.runUntil(done, std::chrono::seconds(20));
}

std::optional<Error> ServiceTest::waitFor(const std::function<void(ServiceCompletion)>& call) {
  std::optional<std::optional<Error>> outcome;
  call([&](std::optional<Error> error) { outcome = std::move(error); });
  if (!pumpUntil([&] { return outcome.has_value(); })) throw std::runtime_error("no completion");
  return *outcome;
}

std::vector<StoredStory> ServiceTest::stories(Account& account) {
  std::vector<StoredStory> found;
  auto all = account.bookmarks();
  if (!all) throw std::runtime_error(all.error().message());
  for (const auto& bookmark : *all) {
    StoredStory story{bookmark->bookmark_id().value_or(""), bookmark->title().value_or(""),
                      bookmark->is_archived(), bookmark->is_favorited(), ""};
    if (auto feedStory = std::dynamic_pointer_cast<FeedStory>(bookmark)) {
      if (auto feed = feedStory->feed(); feed && *feed) story.feed = (*feed)->folder_id().value_or("");
    }
    found.push_back(std::move(story));
  }
  std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.id < b.id; });
  return found;
}

std::shared_ptr<Bookmark> ServiceTest::story(Account& account, const std::string& id) {
  auto found = account.findBookmarkWithId(id);
  if (!found || !*found) throw std::runtime_error("no story " + id);
  return *found;
}

std::vector<std::string> ServiceTest::feedsAndFolders(Account& account) {
  std::vector<std::string> lines;
  auto feeds = account.feeds();
  if (!feeds) throw std::runtime_error(feeds.error().message());
  for (const auto& feed : *feeds) {
    std::vector<std::string> folders;
    if (auto feedFolders = feed->feedFolders()) {
      for (const auto& folder : *feedFolders) folders.push_back(folder->title().value_or(""));
    }
    std::sort(folders.begin(), folders.end());
    std::string line = feed->title().value_or("") + ":";
    for (size_t i = 0; i < folders.size(); ++i) line += (i == 0 ? " " : ", ") + folders[i];
    lines.push_back(std::move(line));
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

std::vector<std::string> ServiceTest::queued(Account& account) {
  std::vector<std::string> lines;
  using enum OfflineOperationType;
  for (const auto type : {kMarkRead, kMarkUnread, kStar, kUnstar, kDelete}) {
    auto operations = account.offlineOperationsWithType(type);
    if (!operations) throw std::runtime_error(operations.error().message());
    for (const auto& operation : *operations) {
      lines.push_back(fmt::format("{} {}", static_cast<int>(type), operation->bookmark_id().value_or("")));
    }
  }
  return lines;
}

}  // namespace lectern::test
