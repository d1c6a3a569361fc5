#pragma once

#include <span>
#include <string>
#include <string_view>

#include "core/Error.h"

namespace lectern {

// The kind of service an account talks to. Stored as `Account.service` text; the numbers are
// the service types the rest of Lectern switches on. Never renumber.
enum class ServiceType : int {
  kUnknown = -1,
  kSmartFolders = 0,
  kInstapaper = 1,
  kPocket = 2,
  kRetired3 = 3,
  kPinboard = 4,
  kRetired5 = 5,
  kNewsBlur = 6,
  kLocalRSS = 7,
  kFever = 8,
  kFeedWrangler = 9,
  kFeedbin = 10,
  kFeedly = 11,
  kObsolete = 999,
};

inline constexpr std::string_view kSmartFoldersServiceName = "smart-folders";
inline constexpr std::string_view kLocalRSSServiceName = "localrss";
inline constexpr std::string_view kObsoleteServiceName = "obsolete";

// "readability", "delicious" and "obsolete" are retired (999); any other unknown name is -1.
ServiceType serviceTypeWithName(std::string_view name);
// "obsolete" for 3, 5 and 999; "Unknown service: <n>" as an error for numbers not in the table.
Result<std::string> serviceNameWithType(ServiceType type);
// The service's display name ("Built-in RSS Reader"); empty for retired and unknown types.
std::string_view serviceDescriptionName(ServiceType type);

// What each kind of service can do. Retired and unknown types can do nothing.
bool isFeedService(ServiceType type);
bool isReadLaterService(ServiceType type);
bool isBookmarkService(ServiceType type);
bool canLogin(ServiceType type);
bool isTagAccount(ServiceType type);
bool isSmartFolderAccount(ServiceType type);
// A service that still exists (the table's types with a service class).
bool isKnownService(ServiceType type);
// Changes to the account's items must reach a server: a live service other than the built-in
// reader (its items live here alone) and smart folders.
bool hasRemoteService(ServiceType type);

// Identifiers of the built-in folders.
inline constexpr std::string_view kUnreadFolderId = "unread";
inline constexpr std::string_view kStarredFolderId = "starred";
inline constexpr std::string_view kArchiveFolderId = "archive";
inline constexpr std::string_view kArticleFolderId = "article";
inline constexpr std::string_view kVideoFolderId = "video";
inline constexpr std::string_view kImageFolderId = "image";
inline constexpr std::string_view kPrivateFolderId = "private";
inline constexpr std::string_view kSharedFolderId = "shared";
inline constexpr std::string_view kSparksFolderId = "sparks";
inline constexpr std::string_view kSmartFolderId = "smart-folder";

struct BuiltInFolder {
  std::string_view title;
  std::string_view folderId;
};
// The built-in folders an account of `type` owns, in sidebar order (title, folder_id).
std::span<const BuiltInFolder> builtInFolders(ServiceType type);

}  // namespace lectern
