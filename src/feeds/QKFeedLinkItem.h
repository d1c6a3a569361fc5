#pragma once

#include <string>

namespace lectern {

// One feed a page announces (or the address itself when it is a feed): what the user picks from
// when subscribing. A plain value.
struct QKFeedLinkItem {
  std::string title;  // may be empty
  std::string URL;    // as the page wrote it: a relative href stays relative
  // The href resolved as a browser resolves it (against the page's <base href>, else the page);
  // "" for the address itself and when the page's address is not absolute.
  std::string resolvedURL{};

  // "<title>: <URL>".
  std::string description() const { return title + ": " + URL; }
  bool operator==(const QKFeedLinkItem&) const = default;
};

}  // namespace lectern
