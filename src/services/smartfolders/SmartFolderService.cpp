#include "services/smartfolders/SmartFolderService.h"

#include <fmt/format.h>

#include "core/Log.h"
#include "core/Strings.h"
#include "store/Account.h"
#include "store/ObjectContext.h"
#include "store/SmartFolder.h"

namespace lectern {

namespace {

constexpr std::string_view kLogCategory = "SmartFolderService";

// Every identifier a read-later or bookmark account has carried: the three live services and
// the retired ones, whose items may still sit in a library until start-up removes their accounts.
constexpr std::string_view kReadLaterServices[] = {"instapaper",  "pocket",    "pinboard",
                                                   "readability", "delicious", "obsolete"};
// The six feed services, types 6 to 11.
constexpr ServiceType kFeedServices[] = {ServiceType::kNewsBlur, ServiceType::kLocalRSS,
                                         ServiceType::kFever,    ServiceType::kFeedWrangler,
                                         ServiceType::kFeedbin,  ServiceType::kFeedly};

// "(account.service == \"a\" OR account.service == \"b\" ...)"
std::string serviceClause(const std::vector<std::string>& services) {
  std::vector<std::string> alternatives;
  for (const auto& service : services)
    alternatives.push_back(fmt::format("account.service == \"{}\"", service));
  return "(" + join(alternatives, " OR ") + ")";
}

std::vector<SmartFolderService::DefaultSmartFolder> makeDefaultSmartFolders() {
  const std::string readLater =
      serviceClause(std::vector<std::string>(std::begin(kReadLaterServices), std::end(kReadLaterServices)));
  std::vector<std::string> feedNames;
  for (auto type : kFeedServices) feedNames.push_back(serviceNameWithType(type).value());
  const std::string feeds = serviceClause(feedNames);
  return {
      {"Read Later", readLater + " AND ANY folders.folder_id CONTAINS \"unread\" AND is_archived == 0"},
      {"RSS News", feeds + " AND is_archived == 0"},
      {"RSS Starred", feeds + " AND is_favorited == 1"},
  };
}

// Shown like an account's list: unread count on the badge, grouped by day, newest first.
constexpr std::int64_t kDefaultBadgeIndex = 1;
constexpr std::int64_t kDefaultGroupIndex = 2;
constexpr std::int64_t kDefaultSortIndex = 0;

}  // namespace

const std::vector<SmartFolderService::DefaultSmartFolder>& SmartFolderService::defaultSmartFolders() {
  static const std::vector<DefaultSmartFolder> folders = makeDefaultSmartFolders();
  return folders;
}

void SmartFolderService::addDefaultSmartFolders(Account& account) {
  auto& context = account.managedObjectContext();
  std::int64_t pos = 0;
  for (const auto& folder : defaultSmartFolders()) {
    ObjectContext::FetchRequest request;
    request.where = "account = ? AND title = ?";
    request.arguments = {account.objectID().row, folder.title};
    auto found = context.fetchFirst<SmartFolder>(std::move(request));
    if (!found) {
      logError(kLogCategory, "Failed to look for the smart folder {}: {}", folder.title,
               found.error().message());
      return;
    }
    if (!*found) {
      auto smartFolder = context.insertNewObject<SmartFolder>();
      smartFolder->setTitle(folder.title);
      smartFolder->setFolder_id(std::string(kSmartFolderId));
      smartFolder->setPos(pos);
      smartFolder->setPredicate(folder.predicate);
      smartFolder->setShowNotification(false);
      smartFolder->setBadgeIndex(kDefaultBadgeIndex);
      smartFolder->setGroupIndex(kDefaultGroupIndex);
      smartFolder->setSortIndex(kDefaultSortIndex);
      smartFolder->setAccount(account);
    }
    ++pos;
  }
}

std::string SmartFolderService::unavailableReason() const {
  return "Smart folders hold no items of their own: change the item in its account.";
}

}  // namespace lectern
