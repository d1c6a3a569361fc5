#include "services/pocket/PocketSyncOperation.h"

#include <fmt/format.h>

#include <map>

#include "accounts/ServiceBase.h"
#include "core/Log.h"
#include "core/Strings.h"
#include "services/pocket/QKPocketClient.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/ObjectContext.h"

namespace lectern {
namespace {

using nlohmann::json;

// Pocket's "status" of an item it deleted.
constexpr std::string_view kDeletedStatus = "2";

std::string seconds(double value) { return fmt::format("{:.0f}", value); }

}  // namespace

PocketSyncOperation::PocketSyncOperation(std::shared_ptr<Account> account, const SyncEnvironment& environment)
    : SyncOperation(std::move(account), environment) {}

void PocketSyncOperation::main() {
  nameCurrentThread(className());
  if (!setupManagedObjectContext()) {
    completeOperation();
    return;
  }
  auto service = std::dynamic_pointer_cast<ServiceBase>(this->service());
  client_ = service ? std::static_pointer_cast<QKPocketClient>(service->apiClient()) : nullptr;
  if (!client_) {
    setError(service ? service->clientUnavailableError("sync")
                     : Error::make(kLecternErrorDomain, 0, "Pocket: Failed to sync"));
    completeOperation();
    return;
  }
  // Nothing is read or changed when Pocket cannot be reached.
  if (auto reachable = client_->isNetworkEndpointReachable(); !reachable) {
    setError(reachable.error());
    completeOperation();
    return;
  }
  // What the person did here reaches Pocket before its list is read back.
  processOfflineOperations();

  bool clean = false;
  const auto lastSync = account().last_sync();
  if (lastSync && !isForced()) {
    clean = getPocketPages(json{{"since", seconds(secondsSince1970(*lastSync))}, {"detailType", "complete"}});
  } else {
    setIsForced(true);
    const json unread{{"offset", "0"},
                      {"count", std::to_string(kPageSize)},
                      {"state", "unread"},
                      {"detailType", "complete"}};
    clean = getPocketPages(unread);
    if (clean && !checkIsCancelled()) {
      json archive = unread;
      archive["state"] = "archive";
      clean = getPocketPages(archive);
    }
  }
  // Only a run that read every page moves the start of the next one: an interrupted first sync
  // is done again in full instead of leaving its later pages out for good.
  if (clean && since_ && !checkIsCancelled()) account().setLast_sync(dateFromSecondsSince1970(*since_));
  saveContext();
  completeOperation();
}

bool PocketSyncOperation::getPocketPages(json parameters) {
  while (true) {
    if (checkIsCancelled()) return false;
    const std::string offset = safeStringValue(parameters, "offset").value_or("0");
    logInfo(className(), "Pocket: fetching articles. Offset: {}", offset);
    auto answer = client_->getBookmarksWithParams(parameters);
    if (!answer) {
      if (!isCancelled()) {
        logError(className(), "{}", answer.error().message());
        setError(answer.error());
      }
      return false;
    }
    std::vector<std::shared_ptr<Bookmark>> downloads;
    const auto list = answer->find("list");
    const size_t received = list == answer->end() ? 0 : processPage(*list, downloads);
    noteSince(*answer);
    saveContext();
    downloadArticles(downloads);
    saveContext();

    // A page as long as the count asked for may have a next one. An incremental request asks no
    // count: Pocket then cuts its answer at its own limit, and a full one is followed too.
    const auto count = safeStringValue(parameters, "count");
    const size_t limit = count ? static_cast<size_t>(std::stoll(*count)) : kServerPageLimit;
    if (received == 0 || received < limit) return true;
    parameters["offset"] = fmt::format("{}", std::stoll(offset) + static_cast<long long>(received));
  }
}

size_t PocketSyncOperation::processPage(const json& list, std::vector<std::shared_ptr<Bookmark>>& downloads) {
  // An empty answer is a list ("[]"); items come keyed by id.
  if (!list.is_object()) return 0;
  std::vector<std::string> ids;
  for (const auto& [key, item] : list.items()) {
    if (auto id = safeStringValue(item, "item_id"); id && !id->empty()) ids.push_back(*id);
  }
  std::map<std::string, std::shared_ptr<Bookmark>> stored;
  if (auto found = account().findBookmarksWithIds(ids); found) {
    for (const auto& bookmark : *found) {
      if (auto id = bookmark->bookmark_id()) stored.emplace(*id, bookmark);
    }
  } else {
    logError(className(), "Pocket: failed to look up stored articles: {}", found.error().message());
    return 0;
  }

  for (const auto& [key, item] : list.items()) {
    const std::string id = safeStringValue(item, "item_id").value_or("");
    const auto existing = stored.find(id);
    if (safeStringValue(item, "status") == kDeletedStatus) {
      if (existing != stored.end()) {
        logInfo(className(), "Pocket: deleting article: {}", id);
        moc().deleteObject(*existing->second);
        stored.erase(existing);
      }
      continue;
    }
    if (!Bookmark::isValidForPocketMapping(item)) {
      logInfo(className(), "Pocket: validation failed for article: {}", key);
      continue;
    }
    std::shared_ptr<Bookmark> bookmark;
    if (existing != stored.end()) {
      bookmark = existing->second;
    } else {
      bookmark = moc().insertNewObject<Bookmark>();
      bookmark->setAccount(account());
      stored.emplace(id, bookmark);
    }
    bookmark->mapFromPocketDictionary(item, account());
    auto html = bookmark->html();
    if (isForced() || !html || !*html || (*html)->empty()) downloads.push_back(bookmark);
    logInfo(className(), "Pocket: adding article: {}", id);
  }
  return list.size();
}

void PocketSyncOperation::noteSince(const json& answer) {
  const auto since = answer.find("since");
  if (since == answer.end()) return;
  double value = 0;
  if (since->is_number()) {
    value = since->get<double>();
  } else if (auto text = safeStringValue(*since)) {
    try {
      value = std::stod(*text);
    } catch (const std::exception&) {
      return;
    }
  }
  if (value <= 0) return;
  since_ = since_ ? std::min(*since_, value) : value;
}

}  // namespace lectern
