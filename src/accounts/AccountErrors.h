#pragma once

#include <string_view>

namespace lectern {

// Errors of the accounts layer and of the service objects: the bundle identifier with the
// component "Account".
inline constexpr std::string_view kAccountErrorDomain = "com.quillhq.Lectern.Account";

// Codes in kAccountErrorDomain. Shown to users and kept in logs: never renumber.
enum AccountErrorCode : int {
  // The service's network client does not exist in this version: the call did nothing.
  kServiceClientUnavailable = 1,
  kInvalidSubscriptionURL = 2,  // "Failed to add subscription: invalid url"
  kAddSubscriptionFailed = 3,   // "Failed to add subscription"
  kNoSuchAccount = 4,           // no account matches what the user named
  kAmbiguousAccount = 5,        // several accounts match a service name
  kAccountExists = 6,           // the account to create is already there
  kInvalidAccountSettings = 7,  // a service name, username or address that cannot be used
  kInvalidPreferenceValue = 8,  // a value of the wrong type for a known preference
  kNoSuchFeed = 9,              // no subscription with that local id
  kStoreFailed = 10,            // the library refused a read or a save
  kInvalidFolderName = 11,      // a folder without a name
  kChangeNotOffered = 12,       // the service does not offer that change of subscriptions or folders
  kNoSuchFolder = 13,           // no folder of feeds with that local id
  kStarredWouldBeLost = 14,     // removing the built-in reader would take its starred articles
};

}  // namespace lectern
