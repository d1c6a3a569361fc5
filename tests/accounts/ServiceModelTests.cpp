#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <tuple>

#include "AccountsTestSupport.h"
#include "accounts/AccountErrors.h"
#include "accounts/BookmarkService.h"
#include "accounts/FeedService.h"
#include "accounts/ReadLaterService.h"
#include "accounts/ServiceFactory.h"
#include "services/smartfolders/SmartFolderService.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/ObjectContext.h"
#include "store/PredicateText.h"
#include "store/SmartFolder.h"

namespace lectern::test {
namespace {

class ServiceModelTest : public AccountsTest {
 protected:
  ServiceBase& serviceOf(Account& account) {
    if (auto service = serviceObjectOf(account)) return *service;  // the account keeps it
    throw std::runtime_error("no service object");
  }

  // (entity, title, folder_id) of every folder of the account, by position.
  std::vector<std::string> folderList(Account& account) {
    std::vector<std::string> list;
    const auto folders = account.allFolders().value();
    for (const auto& folder : folders) {
      list.push_back(fmt::format("{} {} {}", folder->entityName(), folder->title().value_or("-"),
                                 folder->folder_id().value_or("-")));
    }
    return list;
  }
};

TEST_F(ServiceModelTest, EachServiceAnswersLikeTheIdentifierTable) {
  // The store names keychain items and preferences by the table's canLogin while the rest of
  // Lectern asks the service object: the two must never disagree.
  for (int number = 0; number <= static_cast<int>(ServiceType::kFeedly); ++number) {
    const auto type = static_cast<ServiceType>(number);
    if (!ServiceFactory::hasServiceClass(type)) continue;
    SCOPED_TRACE(number);
    auto account = makeAccount(serviceNameWithType(type).value());
    ServiceBase& service = serviceOf(*account);
    EXPECT_EQ(service.serviceType(), type);
    EXPECT_EQ(service.descriptionName(), serviceDescriptionName(type));
    const auto answers =
        std::make_tuple(service.isFeedService(), service.isReadLaterService(), service.isBookmarkService(),
                        service.canLogin(), service.isTagAccount(), service.isSmartFolderAccount());
    EXPECT_EQ(answers, std::make_tuple(isFeedService(type), isReadLaterService(type), isBookmarkService(type),
                                       canLogin(type), isTagAccount(type), isSmartFolderAccount(type)));
    // The capability goes with the class that carries its operations.
    EXPECT_EQ(dynamic_cast<FeedService*>(&service) != nullptr, isFeedService(type));
    EXPECT_EQ(dynamic_cast<ReadLaterService*>(&service) != nullptr, isReadLaterService(type));
    EXPECT_EQ(dynamic_cast<BookmarkService*>(&service) != nullptr, isBookmarkService(type));
    // No client exists in this version: none is made, and dropping none is harmless.
    EXPECT_EQ(service.apiClient(), nullptr);
    service.resetApiClient();
    account->clearAllRequest();
  }
}

TEST_F(ServiceModelTest, TypesWithoutClassRaiseInvalidServiceType) {
  auto account = makeAccount("feedbin");
  for (int type : {3, 5, 999, -1}) {
    SCOPED_TRACE(type);
    try {
      ServiceFactory::serviceWithType(static_cast<ServiceType>(type), *account, dependencies_);
      ADD_FAILURE() << "no exception";
    } catch (const InternalInconsistency& error) {
      EXPECT_STREQ(error.what(), "Invalid service type");
    }
  }
  // A stored retired account reads back as 999: the factory refuses it, while the store's hook
  // answers no service so that start-up can still delete the account.
  auto retired = makeAccount("readability", "bob");
  EXPECT_EQ(retired->serviceType(), ServiceType::kObsolete);
  EXPECT_THROW(ServiceFactory::serviceForAccount(*retired, dependencies_), InternalInconsistency);
  EXPECT_EQ(retired->serviceObject(), nullptr);
  EXPECT_EQ(makeAccount("mystery")->serviceObject(), nullptr);
}

TEST_F(ServiceModelTest, EveryServiceGetsItsDefaultFoldersOnce) {
  const std::map<std::string_view, std::vector<std::string>> expected = {
      {"instapaper", {"Folder Unread unread", "Folder Favorited starred", "Folder Archives archive"}},
      {"pocket",
       {"Folder Unread unread", "Folder Favorites starred", "Folder Archives archive",
        "Folder Articles article", "Folder Videos video", "Folder Images image"}},
      {"pinboard",
       {"Folder Unread unread", "Folder Archives archive", "Folder Private private", "Folder Shared shared"}},
      {"fever", {"FeedFolder Sparks sparks"}},  // it holds the spark feeds
      {"smart-folders",
       {"SmartFolder Read Later smart-folder", "SmartFolder RSS News smart-folder",
        "SmartFolder RSS Starred smart-folder"}},
      {"feedbin", {}},
      {"feedly", {}},
      {"feedwrangler", {}},
      {"newsblur", {}},
      {"localrss", {}},
  };
  for (const auto& [service, folders] : expected) {
    SCOPED_TRACE(service);
    // The store makes the built-in folders from its table and then asks the service for its own:
    // the two must not add up to doubles, and asking again adds nothing.
    auto account = makeAccount(service);
    EXPECT_EQ(folderList(*account), folders);
    serviceOf(*account).createDefaultFolders(*account);
    account->setService(std::string(service));
    ASSERT_TRUE(context().save());
    EXPECT_EQ(folderList(*account), folders);
  }
}

TEST_F(ServiceModelTest, DefaultSmartFoldersStoreTheirPredicatesAsText) {
  auto account = makeAccount("smart-folders", std::nullopt);
  const std::string readLater =
      "(account.service == \"instapaper\" OR account.service == \"pocket\" OR account.service == "
      "\"pinboard\" OR "
      "account.service == \"readability\" OR account.service == \"delicious\" OR account.service == "
      "\"obsolete\")";
  const std::string feeds =
      "(account.service == \"newsblur\" OR account.service == \"localrss\" OR account.service == \"fever\" "
      "OR "
      "account.service == \"feedwrangler\" OR account.service == \"feedbin\" OR account.service == "
      "\"feedly\")";
  const std::map<std::string, std::string> expected = {
      {"Read Later", readLater + " AND ANY folders.folder_id CONTAINS \"unread\" AND is_archived == 0"},
      {"RSS News", feeds + " AND is_archived == 0"},
      {"RSS Starred", feeds + " AND is_favorited == 1"},
  };
  ObjectContext::FetchRequest request;
  request.where = "account = ?";
  request.arguments = {account->objectID().row};
  request.orderBy = "pos";
  const auto folders = context().fetch<SmartFolder>(request).value();
  ASSERT_EQ(folders.size(), 3u);
  for (const auto& folder : folders) {
    const std::string title = folder->title().value_or("");
    SCOPED_TRACE(title);
    EXPECT_EQ(folder->predicate(), expected.at(title));
    EXPECT_EQ(folder->folder_id(), "smart-folder");
    // The service clause stays one part: its alternatives are inside the parentheses.
    const auto parts = extractPredicatesFromCompoundPredicate(*folder->predicate());
    EXPECT_EQ(parts.front().find("account.service"), 0u);
    EXPECT_EQ(std::count(parts.front().begin(), parts.front().end(), '='), 12);
  }
  EXPECT_EQ(extractPredicatesFromCompoundPredicate(expected.at("Read Later")).size(), 3u);
}

// Collects completions so a test can wait for all of them.
struct Outcomes {
  std::vector<std::optional<Error>> errors;
  ServiceCompletion add() {
    return [this](std::optional<Error> error) { errors.push_back(std::move(error)); };
  }
};

TEST_F(ServiceModelTest, HostedServicesRefuseWhatNeedsTheirClient) {
  // Feedbin without a password stored refuses the same way (its reason says so).
  for (std::string_view name : {"feedbin", "feedly", "fever", "feedwrangler", "newsblur", "instapaper",
                                "pocket", "pinboard", "smart-folders"}) {
    SCOPED_TRACE(name);
    auto account = makeAccount(name);
    auto bookmark = context().insertNewObject<Bookmark>();
    bookmark->setBookmark_id("b1");
    bookmark->setAccount(*account);
    auto folder = account->addFeedFolderWithTitle("Folder", 0, "f1");
    ASSERT_TRUE(context().save());
    ServiceBase& service = serviceOf(*account);

    Outcomes outcomes;
    service.markBookmarks({bookmark}, *account, /*archived=*/true, outcomes.add());
    service.markBookmarkFavorited(*bookmark, true, outcomes.add());
    service.markBookmarkShared(*bookmark, true, outcomes.add());
    service.deleteBookmark(*account, "b1", std::nullopt, outcomes.add());
    service.moveBookmark(*bookmark, *folder, outcomes.add());
    service.updateTags(*bookmark, outcomes.add());
    service.updateReadProgress(*bookmark, 0.5, outcomes.add());
    size_t expected = 7;
    if (auto* feeds = dynamic_cast<FeedService*>(&service)) {
      auto feed = account->addFeedWithTitle("Feed", "http://example.org/feed", "42");
      ASSERT_TRUE(context().save());
      // A change the service does not offer may never call back (a Feedbin folder is a tag name,
      // Feed Wrangler's are smart streams): only the offered ones are awaited.
      using Change = FeedService::SubscriptionChange;
      if (feeds->offers(Change::kUnsubscribe)) {
        feeds->deleteFeed(*feed, outcomes.add());
        ++expected;
      }
      if (feeds->offers(Change::kMoveFeed)) {
        feeds->moveFeed(*feed, folder.get(), outcomes.add());
        ++expected;
      }
      if (feeds->offers(Change::kSubscribe)) {
        feeds->addFeedWithUrl("http://example.org/other", nullptr, [&](Result<std::shared_ptr<Feed>> added) {
          outcomes.errors.push_back(added ? std::nullopt : std::optional<Error>(added.error()));
        });
        ++expected;
      }
      if (feeds->offers(Change::kRenameFolder)) {
        feeds->addOrRenameFolder("Renamed", folder.get(), [&](Result<std::shared_ptr<FeedFolder>> renamed) {
          outcomes.errors.push_back(renamed ? std::nullopt : std::optional<Error>(renamed.error()));
        });
        ++expected;
      }
      ASSERT_TRUE(pumpUntil([&] { return outcomes.errors.size() == expected; }));
      EXPECT_EQ(account->feeds().value().size(), 1u);  // nothing was deleted
      EXPECT_EQ(folder->title(), "Folder");
    }
    if (auto* readLater = dynamic_cast<ReadLaterService*>(&service)) {
      readLater->addBookmarkWithUrl("http://example.org/a", "A", std::nullopt, outcomes.add());
      ++expected;
    }
    ASSERT_TRUE(pumpUntil([&] { return outcomes.errors.size() == expected; }));
    for (size_t i = 0; i < outcomes.errors.size(); ++i) {
      const auto& error = outcomes.errors[i];
      ASSERT_TRUE(error.has_value());
      EXPECT_EQ(error->domain, "com.quillhq.Lectern.Account");
      // Pocket has nothing to move items into and keeps no reading position: it says so, client or not.
      const bool offered = !(name == "pocket" && (i == 4 || i == 6));
      EXPECT_EQ(error->code, offered ? kServiceClientUnavailable : kChangeNotOffered) << i;
      EXPECT_TRUE(error->description.starts_with(fmt::format("{}: Failed to ", service.descriptionName())))
          << error->description;
      EXPECT_FALSE(error->recoverySuggestion.empty());
    }
    EXPECT_EQ(outcomes.errors.front()->description,
              fmt::format("{}: Failed to mark items read", service.descriptionName()));

    // Through the store's entry point, as the user's change arrives, a change that could not be
    // sent waits in the offline queue instead of being lost.
    if (name == "smart-folders") continue;
    std::optional<std::optional<Error>> marked;
    Bookmark::markBookmarks({bookmark}, *account, /*archived=*/false,
                            [&](std::optional<Error> error) { marked = std::move(error); });
    ASSERT_TRUE(pumpUntil([&] { return marked.has_value(); }));
    EXPECT_FALSE(marked->has_value());
    auto queued = account->offlineOperationsWithType(OfflineOperationType::kMarkUnread);
    ASSERT_TRUE(queued);
    EXPECT_EQ(queued->size(), 1u);
  }
}

TEST_F(ServiceModelTest, BuiltInReaderItemChangesSucceedLocally) {
  auto account = makeAccount("localrss", std::nullopt);
  auto bookmark = context().insertNewObject<Bookmark>();
  bookmark->setBookmark_id("b1");
  bookmark->setAccount(*account);
  ASSERT_TRUE(context().save());
  Outcomes outcomes;
  Bookmark::markBookmarks({bookmark}, *account, /*archived=*/true, outcomes.add());
  Bookmark::markBookmark(*bookmark, Bookmark::Favorited{true}, outcomes.add());
  Bookmark::deleteBookmarkWithId("b1", *account, outcomes.add());
  ASSERT_TRUE(pumpUntil([&] { return outcomes.errors.size() == 3; }));
  for (const auto& error : outcomes.errors) EXPECT_EQ(error, std::nullopt);
  EXPECT_EQ(account->findBookmarkWithId("b1").value(), nullptr);
}

}  // namespace
}  // namespace lectern::test
