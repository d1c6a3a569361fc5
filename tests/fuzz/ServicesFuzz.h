#pragma once

// The hosted services the sync fuzz target plays, and how it makes each one's account. Shared
// with the services tests, which record their mock servers' answers as the target's seeds.

#include <string>
#include <string_view>

#include "accounts/AccountCommands.h"

namespace lectern::fuzz {

struct FuzzedService {
  std::string_view name;
  // Signs in with a password (the sign-in answers come first in a seed); false: made with a
  // token, as the browser sign-in would leave it.
  bool signsIn = true;
};

// The seed's first byte is the index here: keep the order.
inline constexpr FuzzedService kFuzzedServices[] = {
    {"feedbin"}, {"feedly", false}, {"fever"}, {"feedwrangler"},
    {"newsblur"}, {"instapaper"}, {"pocket"}, {"pinboard"}};

inline NewAccount fuzzAccountRequest(const FuzzedService& service, std::string endpoint) {
  NewAccount request;
  request.service = std::string(service.name);
  request.username = "me@example.org";
  request.password = "secret";
  request.endpoint = std::move(endpoint);
  if (!service.signsIn) {
    request.password = "access-token";
    request.refreshToken = "refresh-token";
    request.tokenExpire = std::chrono::system_clock::now() + std::chrono::hours(24 * 365);
  }
  return request;
}

}  // namespace lectern::fuzz
