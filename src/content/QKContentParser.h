#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "content/QKContentCandidates.h"
#include "core/Error.h"

namespace lectern {

// The log category of the extractor's debug lines ("Altering div(#id.class) to p" ...).
inline constexpr std::string_view kContentParserLogCategory = "QKContentParser";
// Codes of the extractor's errors, in kLecternErrorDomain.
inline constexpr int kContentPageTooLarge = 5101;
inline constexpr int kContentPageUnreadable = 5102;

// Finds the block of a web page that holds the article, cleaned of clutter, as HTML; and the title.
// Used by one thread at a time (it may be handed on); a moved-from parser may only be destroyed.
class QKContentParser {
 public:
  // Pages above this size are refused rather than parsed: it bounds time and memory.
  static constexpr std::uint64_t kMaxPageBytes = 64ull * 1024 * 1024;

  // A parser needs a page: plain construction throws InternalInconsistency.
  QKContentParser();
  // `html` is text (UTF-8; invalid bytes become U+FFFD); any charset it declares is ignored.
  static Result<QKContentParser> initWithHTML(std::string_view html);
  // `data` is a page's bytes, decoded by its byte-order mark, `charset` (the transport's, when
  // known), its <meta> declaration, else UTF-8 or windows-1252 (see decodePage).
  static Result<QKContentParser> initWithData(std::string_view data, std::string_view charset = {});

  QKContentParser(QKContentParser&&) noexcept;
  QKContentParser& operator=(QKContentParser&&) noexcept;
  ~QKContentParser();

  // The cleaned article as XML-serialised HTML, "" when the page has no article. Runs once; later
  // calls give the same string. It rewrites the page, so set the options before the first call.
  const std::string& fetchContent();
  // The text of the page's first <title>, or "".
  const std::string& title();

  bool isWeightClasses() const;
  void setWeightClasses(bool weightClasses);
  bool isRemoveEmptyNodes() const;
  void setRemoveEmptyNodes(bool removeEmptyNodes);
  bool isCleanConditionally() const;
  void setCleanConditionally(bool cleanConditionally);
  std::uint64_t minContentLength() const;
  void setMinContentLength(std::uint64_t minContentLength);
  // The page's URL, when it came from one.
  const std::string& domain() const;
  void setDomain(std::string domain);

  // The elements scored by fetchContent.
  const QKContentCandidates& candidates() const;

 private:
  struct Impl;
  explicit QKContentParser(std::unique_ptr<Impl> impl);
  static Result<QKContentParser> fromText(std::string_view utf8);

  std::unique_ptr<Impl> impl_;
};

}  // namespace lectern
