#pragma once

#include "core/Error.h"
#include "net/NetworkSession.h"
#include "store/Bookmark.h"
#include "store/ServiceIdentifiers.h"

namespace lectern {

// What downloadArticle did with a bookmark.
enum class ArticleDownload {
  kStored,               // the article's HTML is now the bookmark's
  kNoArticle,            // the page holds no article: the bookmark keeps what it had
  kNotStoredForAccount,  // the account's items carry their text already (feeds): nothing fetched
};

// Read-later and bookmark services keep links only, so Lectern fetches and stores the text of
// their items; feed services deliver it with the items.
bool storesArticleText(ServiceType type);

// Bookmark's downloadArticle: fetches the page at the bookmark's url, extracts its article and
// stores it with setHtml, so its Content and preview text follow. Blocking, for sync operations
// on their own thread and context; no transaction is opened before the download ends (the caller
// saves, and should not hold unsaved changes across the call). A failed download or a bookmark
// without url gives "Failed to download page: <url>" and leaves the bookmark as it was.
Result<ArticleDownload> downloadArticle(Bookmark& bookmark, NetworkSession& session);

}  // namespace lectern
