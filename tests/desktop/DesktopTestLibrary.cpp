#include "DesktopTestLibrary.h"

#include <stdexcept>

#include "accounts/BuiltInReader.h"
#include "store/Account.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/ObjectContext.h"

namespace lectern::desktop::fixtures {
namespace {

void save(ObjectContext& context) {
  if (auto saved = context.save(); !saved) throw std::runtime_error(saved.error().message());
}

std::int64_t addStory(ObjectContext& context, Account& account, Feed& feed, const std::string& title, Date date,
                      const std::string& html, bool read) {
  auto story = context.insertNewObject<FeedStory>();
  story->setAccount(account);
  story->setFeed(feed);
  story->setBookmark_id("http://example.com/" + title);
  story->setUrl("http://example.com/" + title);
  story->setTitle(title);
  story->setAuthor("Ann Author");
  story->setHtml(html);
  story->setDate_added(date);
  story->setIs_archived(read);
  save(context);
  return story->objectID().row;
}

}  // namespace

TestLibrary fillTestLibrary(ObjectContext& context, Date now) {
  TestLibrary library;
  auto reader = ensureLocalRSSAccount(context);
  if (!reader) throw std::runtime_error(reader.error().message());
  library.account = *reader;
  auto folder = library.account->addFeedFolderWithTitle("Food", 0, "Food");
  library.fruit = library.account->addFeedWithTitle("Fruit", std::nullopt, "http://127.0.0.1:9/fruit", folder.get());
  library.news = library.account->addFeedWithTitle("News", std::nullopt, "http://127.0.0.1:9/news", nullptr);
  save(context);
  using std::chrono::hours;
  library.apple = addStory(context, *library.account, *library.fruit, "Apple harvest", now - hours(1),
                           "<p>Apples everywhere this autumn.</p><p>Orchards report a record year.</p>", false);
  library.pear = addStory(context, *library.account, *library.fruit, "Pear season", now - hours(2), "<p>Pears</p>", false);
  library.election = addStory(context, *library.account, *library.news, "Election night", now - hours(30),
                              "<p>Votes</p>", true);
  library.news->recordRefreshFailed(now, "The server answered 404");
  save(context);
  return library;
}

}  // namespace lectern::desktop::fixtures
