#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ServiceTestSupport.h"
#include "mocks/FeedbinMockServer.h"

namespace lectern::test {

// A Feedbin account added against the mock server (me@example.org, "secret").
class FeedbinTest : public ServiceTest {
 protected:
  static constexpr std::string_view kUsername = "me@example.org";
  static constexpr std::string_view kPassword = "secret";

  void SetUp() override;

  // An entry published and first seen `age` ago.
  void addEntry(std::int64_t id, std::int64_t feedId, const std::string& title, std::chrono::minutes age,
                bool unread, bool starred = false);
  // The first value of a query parameter the request carried, "" when none.
  static std::string query(const mock::RecordedRequest& request, const std::string& key);
  // Every value of a query parameter, in order.
  static std::vector<std::string> queryValues(const mock::RecordedRequest& request, const std::string& key);
  // The titles of the account's folders of feeds, sorted.
  std::vector<std::string> folderTitles();
  std::shared_ptr<Feed> feedWithRemoteId(const std::string& remoteId);
  std::optional<std::string> feedLink(const std::string& remoteId);
  // "2024-01-02T03:04:05.000000Z", as the server writes dates.
  static std::string serverDate(Date date);

  mock::FeedbinMockServer server_{std::string(kUsername), std::string(kPassword)};
  std::shared_ptr<Account> account_;
};

}  // namespace lectern::test
