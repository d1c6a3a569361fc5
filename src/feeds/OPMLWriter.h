#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace lectern {

// Builds an OPML 1.0 subscription list: a head with a title, a body of feed outlines, optionally
// grouped one level deep in folder outlines. Used by one thread.
class OPMLWriter {
 public:
  explicit OPMLWriter(std::string_view title);
  ~OPMLWriter();
  OPMLWriter(const OPMLWriter&) = delete;
  OPMLWriter& operator=(const OPMLWriter&) = delete;

  // Feeds added until closeFolder go inside an outline with "text" = `title`.
  void openFolder(std::string_view title);
  void closeFolder();
  // An outline with "type" = "rss", "text" and "title" = `title`, "xmlUrl" = `xmlUrl`.
  void addFeed(std::string_view title, std::string_view xmlUrl);

  // The document, UTF-8 with its declaration, indented. Text that is not valid UTF-8 or that XML
  // cannot hold (control characters) is repaired, so the list always reads back.
  std::string document() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace lectern
