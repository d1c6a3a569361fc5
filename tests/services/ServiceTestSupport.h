#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "accounts/ServiceDependencies.h"
#include "core/Clock.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "core/Reachability.h"
#include "core/SecretStore.h"
#include "core/UserDefaults.h"
#include "fuzz/AnswerRecorder.h"
#include "net/NetworkSession.h"
#include "store/Account.h"
#include "store/QKDataManager.h"
#include "support/TestSupport.h"
#include "sync/QKSyncManager.h"
#include "sync/SyncEnvironment.h"

namespace lectern::test {

// A story as a test compares it: its id, title, flags and its feed's remote id.
struct StoredStory {
  std::string id;
  std::string title;
  bool read = false;
  bool starred = false;
  std::string feed;
  bool operator==(const StoredStory&) const = default;
};
void PrintTo(const StoredStory& story, std::ostream* out);

// A library in a temporary folder with the real service factory, an in-memory secret store, a
// clock standing at the real time (mock servers date their items from it), a switchable network,
// a network session and the sync manager. The test's thread is the main thread.
// The person's browser: opens the sign-in page (on a separate thread, as the sign-in waits) and
// follows its one redirect back to 127.0.0.1.
void consentInBrowser(const std::string& page);

class ServiceTest : public ::testing::Test {
 protected:
  ServiceTest();
  ~ServiceTest() override;

  ObjectContext& context();
  // An account added as `lectern account add` does (credentials checked with the server).
  Result<std::shared_ptr<Account>> addAccount(const std::string& service, const std::string& username,
                                              const std::string& password, const std::string& endpoint);
  // One sync of the account, waited for: its report.
  AccountSyncReport sync(const std::shared_ptr<Account>& account);
  // Runs the main queue until `done` or twenty seconds pass; returns `done()`.
  bool pumpUntil(const std::function<bool()>& done);
  // Calls `call` with a completion and waits for it.
  std::optional<Error> waitFor(const std::function<void(ServiceCompletion)>& call);
  // The account's stories ordered by id as text.
  std::vector<StoredStory> stories(Account& account);
  std::shared_ptr<Bookmark> story(Account& account, const std::string& id);
  // "title: folder, folder" for each feed of the account, by title.
  std::vector<std::string> feedsAndFolders(Account& account);
  std::vector<std::string> queued(Account& account);

  // Set only while the mock servers' answers are recorded as seeds for the sync fuzz target.
  std::shared_ptr<fuzz::AnswerRecorder> recorder_;
  TempDir temp_;
  Paths paths_;
  UserDefaults defaults_;
  MainQueue mainQueue_;
  FixedClock clock_;
  FixedReachability reachability_;
  MemorySecretStore secrets_;
  NetworkSession session_;
  std::unique_ptr<QKDataManager> dataManager_;
  SyncEnvironment environment_;
  std::unique_ptr<QKSyncManager> manager_;
};

}  // namespace lectern::test
