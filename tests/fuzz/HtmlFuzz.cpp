// Pages and article HTML: content extraction, the feed links of a page (discovery), the
// terminal renderer and the small HTML helpers. The renderer must never pass a control
// character on, or an article could drive the reader's terminal.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "app/text/ArticleText.h"
#include "content/PageDecoder.h"
#include "content/QKContentParser.h"
#include "core/HtmlStrings.h"
#include "feeds/FeedLinks.h"
#include "feeds/QKFeedLinkParser.h"

namespace {

constexpr const char* kCharsets[] = {"", "utf-8", "iso-8859-1", "windows-1252", "shift_jis", "utf-16le", "koi8-r"};
constexpr const char* kBases[] = {"http://example.com/blog/post?id=1", "", "https://[::1]:8080/a/b/../c",
                                  "feed://example.com/x"};

void checkTerminalSafe(const lectern::ArticleText& text) {
  for (const auto& line : text.lines) {
    for (const char c : line) {
      const auto byte = static_cast<unsigned char>(c);
      if (byte < 0x20 || byte == 0x7f) lectern::fuzz::broken("a rendered line holds a control character", line);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  lectern::fuzz::quietLog();
  lectern::fuzz::FuzzInput input(data, size);
  const std::string charset = kCharsets[input.choose(std::size(kCharsets))];
  const std::string base = kBases[input.choose(std::size(kBases))];
  const int width = 10 + static_cast<int>(input.choose(120));
  const std::string page(input.rest());

  if (auto parser = lectern::QKContentParser::initWithData(page, charset)) {
    parser->setDomain(base);
    (void)parser->title();
    (void)parser->fetchContent();
  }
  (void)lectern::QKFeedLinkParser::parseFeedLinksFromHtmlData(page, charset, base);
  (void)lectern::QKFeedLinkParser::URLDidLoaded(base, page, "text/html", charset);

  const auto decoded = lectern::decodePage(page, charset).text;
  checkTerminalSafe(lectern::renderArticleText(decoded, width, base));
  (void)lectern::resolveRelativeLinksInHtml(decoded, base);
  (void)lectern::htmlToPlainText(decoded);
  (void)lectern::decodeHtmlEntities(decoded);
  (void)lectern::linkifyText(decoded);
  return 0;
}
