#include "store/ServiceIdentifiers.h"

#include <fmt/format.h>

namespace lectern {
namespace {

struct ServiceInfo {
  ServiceType type;
  std::string_view name;
  std::string_view descriptionName;
  bool feed, readLater, bookmark, login, tags, smartFolders;
};

constexpr ServiceInfo kServices[] = {
    {ServiceType::kSmartFolders, kSmartFoldersServiceName, "Smart Folder", false, false, false, false, false,
     true},
    {ServiceType::kInstapaper, "instapaper", "Instapaper", false, true, false, true, false, false},
    {ServiceType::kPocket, "pocket", "Pocket", false, true, false, true, true, false},
    {ServiceType::kPinboard, "pinboard", "Pinboard", false, false, true, true, true, false},
    {ServiceType::kNewsBlur, "newsblur", "NewsBlur", true, false, false, true, false, false},
    {ServiceType::kLocalRSS, kLocalRSSServiceName, "Built-in RSS Reader", true, false, false, false, false,
     false},
    {ServiceType::kFever, "fever", "Fever", true, false, false, true, false, false},
    {ServiceType::kFeedWrangler, "feedwrangler", "Feed Wrangler", true, false, false, true, false, false},
    {ServiceType::kFeedbin, "feedbin", "Feedbin", true, false, false, true, false, false},
    {ServiceType::kFeedly, "feedly", "Feedly", true, false, false, true, false, false},
};

const ServiceInfo* infoOf(ServiceType type) {
  for (const auto& info : kServices) {
    if (info.type == type) return &info;
  }
  return nullptr;
}

constexpr BuiltInFolder kInstapaperFolders[] = {
    {"Unread", kUnreadFolderId}, {"Favorited", kStarredFolderId}, {"Archives", kArchiveFolderId}};
constexpr BuiltInFolder kPocketFolders[] = {{"Unread", kUnreadFolderId},    {"Favorites", kStarredFolderId},
                                            {"Archives", kArchiveFolderId}, {"Articles", kArticleFolderId},
                                            {"Videos", kVideoFolderId},     {"Images", kImageFolderId}};
constexpr BuiltInFolder kPinboardFolders[] = {{"Unread", kUnreadFolderId},
                                              {"Archives", kArchiveFolderId},
                                              {"Private", kPrivateFolderId},
                                              {"Shared", kSharedFolderId}};
constexpr BuiltInFolder kFeverFolders[] = {{"Sparks", kSparksFolderId}};

}  // namespace

ServiceType serviceTypeWithName(std::string_view name) {
  if (name == "readability" || name == "delicious" || name == kObsoleteServiceName)
    return ServiceType::kObsolete;
  for (const auto& info : kServices) {
    if (info.name == name) return info.type;
  }
  return ServiceType::kUnknown;
}

Result<std::string> serviceNameWithType(ServiceType type) {
  if (type == ServiceType::kRetired3 || type == ServiceType::kRetired5 || type == ServiceType::kObsolete) {
    return std::string(kObsoleteServiceName);
  }
  if (const auto* info = infoOf(type)) return std::string(info->name);
  return fail(kLecternErrorDomain, static_cast<int>(type),
              fmt::format("Unknown service: {}", static_cast<int>(type)));
}

std::string_view serviceDescriptionName(ServiceType type) {
  const auto* info = infoOf(type);
  return info == nullptr ? std::string_view() : info->descriptionName;
}

bool isFeedService(ServiceType type) {
  const auto* info = infoOf(type);
  return info != nullptr && info->feed;
}
bool isReadLaterService(ServiceType type) {
  const auto* info = infoOf(type);
  return info != nullptr && info->readLater;
}
bool isBookmarkService(ServiceType type) {
  const auto* info = infoOf(type);
  return info != nullptr && info->bookmark;
}
bool canLogin(ServiceType type) {
  const auto* info = infoOf(type);
  return info != nullptr && info->login;
}
bool isTagAccount(ServiceType type) {
  const auto* info = infoOf(type);
  return info != nullptr && info->tags;
}
bool isSmartFolderAccount(ServiceType type) {
  const auto* info = infoOf(type);
  return info != nullptr && info->smartFolders;
}
bool isKnownService(ServiceType type) { return infoOf(type) != nullptr; }

std::span<const BuiltInFolder> builtInFolders(ServiceType type) {
  switch (type) {
    case ServiceType::kInstapaper:
      return kInstapaperFolders;
    case ServiceType::kPocket:
      return kPocketFolders;
    case ServiceType::kPinboard:
      return kPinboardFolders;
    case ServiceType::kFever:
      return kFeverFolders;
    default:
      return {};
  }
}

bool hasRemoteService(ServiceType type) {
  return isKnownService(type) && type != ServiceType::kLocalRSS && type != ServiceType::kSmartFolders;
}

}  // namespace lectern
