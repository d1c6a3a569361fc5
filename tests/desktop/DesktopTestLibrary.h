#pragma once

// A small library for the desktop's tests: the built-in reader with a folder "Food" holding the
// feed "Fruit" (two unread stories) and the feed "News" in no folder (one read story, failing).

#include <cstdint>
#include <memory>
#include <string>

#include "core/Clock.h"

namespace lectern {
class Account;
class Feed;
class ObjectContext;
}  // namespace lectern

namespace lectern::desktop::fixtures {

struct TestLibrary {
  std::shared_ptr<Account> account;
  std::shared_ptr<Feed> fruit, news;
  std::int64_t apple = 0, pear = 0, election = 0;
};

// Fills the main context's library (saved); throws when the store refuses.
TestLibrary fillTestLibrary(ObjectContext& context, Date now);

}  // namespace lectern::desktop::fixtures
