#include "feeds/RSSParserURL.h"

#include "feeds/QKFeedParserClient.h"
#include "feeds/URLDownload.h"

namespace lectern {

Result<RSSParser> rssParserWithURL(NetworkSession& session, std::string_view url) {
  auto download = downloadURLSynchronously(
      session, url, URLDownloadOptions{.timeout = QKFeedParserClient::kSynchronousFetchTimeout});
  if (!download) return fail(QKFeedParserClient::fetchError(download.error(), url));
  return RSSParser::withData(std::move(download->data));
}

}  // namespace lectern
