#include "AccountsTestSupport.h"

#include <fmt/format.h>

#include "accounts/ServiceFactory.h"

namespace lectern::test {

namespace {

constexpr std::string_view kFeed = R"(<?xml version="1.0" encoding="UTF-8"?>
<rss version="2.0"><channel>
  <title>  Lectern Notes </title><link>http://example.org/</link>
  <item><title>First</title><link>http://example.org/1</link></item>
</channel></rss>)";

constexpr std::string_view kUntitledFeed = R"(<?xml version="1.0"?>
<feed xmlns="http://www.w3.org/2005/Atom"><entry><title>x</title></entry></feed>)";

constexpr std::string_view kPage =
    "<!DOCTYPE html><html><head><title>Not a feed</title></head><body>Hi</body></html>";

}  // namespace

AccountsTest::AccountsTest()
    : paths_(Paths::under(temp_.path())),
      clock_(dateFromSecondsSince1970(1'700'000'000)),
      session_(mainQueue_, reachability_),
      dependencies_{mainQueue_, clock_, &session_} {
  manager_ = std::make_unique<QKDataManager>(paths_, defaults_, mainQueue_, clock_, reachability_, &secrets_);
  registerServiceFactory(*manager_, dependencies_);
}

AccountsTest::~AccountsTest() {
  manager_.reset();
  mainQueue_.drain();
}

ObjectContext& AccountsTest::context() {
  auto opened = manager_->managedObjectContext();
  if (!opened) throw std::runtime_error(opened.error().message());
  return **opened;
}

std::shared_ptr<Account> AccountsTest::makeAccount(std::string_view service,
                                                   std::optional<std::string> username) {
  auto account = Account::create(context(), service, std::move(username), std::string(service));
  if (auto saved = context().save(); !saved) throw std::runtime_error(saved.error().message());
  return account;
}

bool AccountsTest::pumpUntil(const std::function<bool()>& done) {
  return mainQueue_.runUntil(done, std::chrono::seconds(10));
}

std::optional<std::string> AccountsTest::secret(std::string_view identifier) {
  return secrets_.password(kPasswordServiceName, identifier).value();
}

nlohmann::json AccountsTest::storedPreferences(std::string_view identifier) const {
  const auto accounts = defaults_.dictionaryForKey(kAccounts);
  auto found = accounts.find(identifier);
  return found == accounts.end() ? nlohmann::json() : *found;
}

FeedServer::FeedServer() {
  auto serve = [this](std::string_view body, std::string_view type) {
    return [this, body, type](const httplib::Request&, httplib::Response& response) {
      ++requests_;
      response.set_content(std::string(body), std::string(type));
    };
  };
  server_.Get("/feed.xml", serve(kFeed, "application/rss+xml"));
  server_.Get("/untitled.xml", serve(kUntitledFeed, "application/atom+xml"));
  server_.Get("/page.html", serve(kPage, "text/html"));
  server_.Get("/missing.xml", [this](const httplib::Request&, httplib::Response& response) {
    ++requests_;
    response.status = 404;
    response.set_content("gone", "text/plain");
  });
  server_.set_keep_alive_timeout(1);  // idle connections go soon, so stopping is quick
  port_ = server_.bind_to_any_port("127.0.0.1");
  thread_ = std::thread([this] { server_.listen_after_bind(); });
  while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

FeedServer::~FeedServer() {
  server_.stop();
  thread_.join();
}

std::string FeedServer::url(std::string_view path) const {
  return fmt::format("http://127.0.0.1:{}{}", port_, path);
}

}  // namespace lectern::test
