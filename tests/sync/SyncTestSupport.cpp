#include "SyncTestSupport.h"

#include <fmt/format.h>

#include "core/Dates.h"
#include "core/HtmlStrings.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedStory.h"
#include "store/ObjectContext.h"

namespace lectern::test {
namespace {

constexpr std::chrono::seconds kWaitLimit{20};

// The smallest PNG signature the image check accepts, and a few bytes of body.
const std::string kPngBytes("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16);

}  // namespace

FeedServer::FeedServer() {
  server_.Get(R"(/feeds/(.+))", [this](const httplib::Request& request, httplib::Response& response) {
    answer(request.matches[1].str(), request, response);
  });
  server_.Get(R"(/images/(.+))", [this](const httplib::Request&, httplib::Response& response) {
    {
      std::lock_guard lock(mutex_);
      ++imageRequests_;
    }
    response.set_content(kPngBytes, "image/png");
  });
  server_.Get(R"(/site/(.*))", [this](const httplib::Request& request, httplib::Response& response) {
    std::lock_guard lock(mutex_);
    auto page = pages_.find(request.matches[1].str());
    if (page == pages_.end()) {
      response.status = 404;
      response.set_content("<html><body>Not here</body></html>", "text/html");
      return;
    }
    response.set_content(page->second.second, page->second.first);
  });
  server_.set_tcp_nodelay(true);  // otherwise delayed ACKs add 40 ms to each answer
  port_ = server_.bind_to_any_port("127.0.0.1");
  thread_ = std::thread([this] { server_.listen_after_bind(); });
  while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

FeedServer::~FeedServer() {
  release();
  server_.stop();
  thread_.join();
}

std::string FeedServer::url(const std::string& name) const {
  return fmt::format("http://127.0.0.1:{}/feeds/{}", port_, name);
}

std::string FeedServer::imageUrl(const std::string& name) const {
  return fmt::format("http://127.0.0.1:{}/images/{}", port_, name);
}

void FeedServer::setFeed(const std::string& name, const std::vector<TestEntry>& entries, Date now) {
  std::string body = R"(<?xml version="1.0" encoding="utf-8"?><feed xmlns="http://www.w3.org/2005/Atom">)";
  body += fmt::format("<title>{}</title>", name);
  for (const auto& entry : entries) {
    body += fmt::format("<entry><title>{}</title>", encodeHtmlEntities(entry.title));
    if (!entry.link.empty()) body += fmt::format(R"(<link href="{}"/>)", encodeHtmlEntities(entry.link));
    body += fmt::format("<updated>{}</updated>", rfc3339String(now - entry.age));
    body += fmt::format(R"(<content type="html">{}</content></entry>)", encodeHtmlEntities(entry.html));
  }
  body += "</feed>";
  setBody(name, std::move(body));
}

void FeedServer::setPage(const std::string& path, std::string body, std::string contentType) {
  std::lock_guard lock(mutex_);
  pages_[path] = {std::move(contentType), std::move(body)};
}

std::string FeedServer::pageUrl(const std::string& path) const {
  return fmt::format("http://127.0.0.1:{}/site/{}", port_, path);
}

void FeedServer::setBody(const std::string& name, std::string body, int status) {
  std::lock_guard lock(mutex_);
  if (bodies_[name] != std::pair{status, body}) ++versions_[name];
  bodies_[name] = {status, std::move(body)};
}

void FeedServer::answerConditionally() {
  std::lock_guard lock(mutex_);
  conditional_ = true;
}

int FeedServer::notModified(const std::string& name) const {
  std::lock_guard lock(mutex_);
  auto found = notModified_.find(name);
  return found == notModified_.end() ? 0 : found->second;
}

void FeedServer::setHook(const std::string& name, std::function<void()> hook) {
  std::lock_guard lock(mutex_);
  hooks_[name] = std::move(hook);
}

void FeedServer::rendezvous(int count, int total) {
  std::lock_guard lock(mutex_);
  rendezvous_ = count;
  rendezvousTotal_ = total;
}

void FeedServer::hold(const std::string& name) {
  std::lock_guard lock(mutex_);
  held_ = name;
  released_ = false;
}

void FeedServer::release() {
  std::lock_guard lock(mutex_);
  released_ = true;
  changed_.notify_all();
}

void FeedServer::answer(const std::string& name, const httplib::Request& request,
                        httplib::Response& response) {
  std::function<void()> hook;
  {
    std::unique_lock lock(mutex_);
    ++requests_[name];
    ++started_;
    maxInFlight_ = std::max(maxInFlight_, ++inFlight_);
    changed_.notify_all();
    // The waits end on their own after a while, so a broken client fails the test instead of hanging it.
    if (rendezvous_ > 0) {
      changed_.wait_for(lock, kWaitLimit,
                        [&] { return inFlight_ >= rendezvous_ || started_ >= rendezvousTotal_; });
    }
    if (name == held_) changed_.wait_for(lock, kWaitLimit, [&] { return released_; });
    auto found = hooks_.find(name);
    if (found != hooks_.end()) hook = found->second;
  }
  if (hook) hook();
  std::lock_guard lock(mutex_);
  --inFlight_;
  auto body = bodies_.find(name);
  if (body == bodies_.end()) {
    response.status = 404;
    return;
  }
  if (conditional_ && body->second.first == 200) {
    const int version = versions_[name];
    const std::string etag = fmt::format("\"{}-v{}\"", name, version);
    const std::string lastModified = fmt::format("Sun, {:02} Nov 2026 08:00:00 GMT", 1 + version % 28);
    const bool current = request.has_header("If-None-Match")
                             ? request.get_header_value("If-None-Match") == etag
                             : request.get_header_value("If-Modified-Since") == lastModified;
    response.set_header("ETag", etag);
    response.set_header("Last-Modified", lastModified);
    if (current) {
      ++notModified_[name];
      response.status = 304;
      return;
    }
  }
  response.status = body->second.first;
  response.set_content(body->second.second, "application/atom+xml");
}

int FeedServer::requests(const std::string& name) const {
  std::lock_guard lock(mutex_);
  auto found = requests_.find(name);
  return found == requests_.end() ? 0 : found->second;
}

int FeedServer::imageRequests() const {
  std::lock_guard lock(mutex_);
  return imageRequests_;
}

int FeedServer::maxConcurrent() const {
  std::lock_guard lock(mutex_);
  return maxInFlight_;
}

void RecordingService::record(std::string call, const ServiceCompletion& onCompleted) {
  {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
  }
  if (onCompleted) mainQueue_.post([onCompleted] { onCompleted(std::nullopt); });
}

void RecordingService::markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account&,
                                     bool archived, ServiceCompletion onCompleted) {
  std::string titles;
  for (const auto& bookmark : bookmarks)
    titles += (titles.empty() ? "" : ",") + bookmark->title().value_or("");
  record(fmt::format("{} {}", archived ? "read" : "unread", titles), onCompleted);
}

void RecordingService::markBookmarkFavorited(Bookmark& bookmark, bool favorited,
                                             ServiceCompletion onCompleted) {
  record(fmt::format("{} {}", favorited ? "star" : "unstar", bookmark.title().value_or("")), onCompleted);
}

void RecordingService::deleteBookmark(Account&, const std::string& bookmarkId,
                                      const std::optional<std::string>&, ServiceCompletion onCompleted) {
  record(fmt::format("delete {}", bookmarkId), onCompleted);
}

std::vector<std::string> RecordingService::calls() const {
  std::lock_guard lock(mutex_);
  return calls_;
}

SyncTest::SyncTest()
    : paths_(Paths::under(temp_.path())),
      clock_(dateFromSecondsSince1970(1'700'000'000)),
      session_(mainQueue_, reachability_),
      dataManager_(std::make_unique<QKDataManager>(paths_, defaults_, mainQueue_, clock_, reachability_)),
      environment_{*dataManager_, defaults_, mainQueue_, reachability_, clock_, session_} {
  registerLecternDefaults(defaults_);
  manager_ = std::make_unique<QKSyncManager>(environment_);
  manager_->setSyncPassObserver(&observer_);
}

SyncTest::~SyncTest() {
  server_.release();
  manager_.reset();
  dataManager_.reset();
  mainQueue_.drain();
}

ObjectContext& SyncTest::context() {
  auto opened = dataManager_->managedObjectContext();
  if (!opened) throw std::runtime_error(opened.error().message());
  return **opened;
}

std::shared_ptr<Account> SyncTest::makeAccount(std::string_view service, std::string username,
                                               std::string title) {
  auto account =
      Account::create(context(), service, username.empty() ? std::nullopt : std::optional(username), title);
  if (auto saved = context().save(); !saved) throw std::runtime_error(saved.error().message());
  return account;
}

std::shared_ptr<Account> SyncTest::localAccount() { return makeAccount(kLocalRSSServiceName, "", "Local"); }

std::shared_ptr<Feed> SyncTest::addFeed(Account& account, const std::string& name, FeedFolder* folder) {
  auto feed = account.addFeedWithTitle(name, std::nullopt, server_.url(name), folder);
  if (auto saved = context().save(); !saved) throw std::runtime_error(saved.error().message());
  return feed;
}

bool SyncTest::syncAndWait(const std::vector<std::shared_ptr<Account>>& accounts) {
  manager_->syncAccounts(accounts);
  return manager_->waitUntilSyncFinished(kWaitLimit);
}

std::vector<std::string> SyncTest::storiesOf(const Feed& feed) {
  std::vector<std::string> titles;
  auto stories = feed.stories();
  if (!stories) throw std::runtime_error(stories.error().message());
  for (const auto& story : *stories)
    titles.push_back(story->title().value_or("") + (story->is_archived() ? "*" : ""));
  return titles;
}

std::shared_ptr<FeedStory> SyncTest::addStory(Account& account, Feed& feed, const std::string& title,
                                              std::chrono::hours age, bool read, bool starred) {
  auto story = context().insertNewObject<FeedStory>();
  story->setAccount(account);
  story->setFeed(feed);
  story->setBookmark_id("http://example.com/" + title);
  story->setUrl("http://example.com/" + title);
  story->setTitle(title);
  story->setDate_added(clock_.now() - age);
  story->setIs_archived(read);
  story->setIs_favorited(starred);
  if (auto saved = context().save(); !saved) throw std::runtime_error(saved.error().message());
  return story;
}

}  // namespace lectern::test
