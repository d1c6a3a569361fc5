#include "content/BookmarkArticleDownload.h"

#include "content/ContentDownload.h"
#include "core/Log.h"
#include "net/URLError.h"
#include "store/Account.h"

namespace lectern {
namespace {

constexpr std::string_view kLogCategory = "Bookmark";

}  // namespace

bool storesArticleText(ServiceType type) { return isReadLaterService(type) || isBookmarkService(type); }

Result<ArticleDownload> downloadArticle(Bookmark& bookmark, NetworkSession& session) {
  auto account = bookmark.account();
  if (!account) return fail(account.error());
  if (!*account || !storesArticleText((*account)->serviceType()))
    return ArticleDownload::kNotStoredForAccount;
  const std::string url = bookmark.url().value_or("");
  if (url.empty()) {
    return fail(contentDownloadError(makeURLError(URLErrorCode::kBadURL, url, "The URL is not valid."), url));
  }
  auto parser = contentParserWithURL(session, url);
  if (!parser) {
    logDebugMessage(kLogCategory, "Failed to download article {}: {}", url, parser.error().message());
    return fail(parser.error());
  }
  const std::string& article = parser->fetchContent();
  if (article.empty()) return ArticleDownload::kNoArticle;
  bookmark.setHtml(article);
  return ArticleDownload::kStored;
}

}  // namespace lectern
