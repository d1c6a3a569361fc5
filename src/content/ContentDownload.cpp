#include "content/ContentDownload.h"

#include <fmt/format.h>

#include "feeds/URLDownload.h"
#include "net/QKKindURLErrorMessage.h"

namespace lectern {

Error contentDownloadError(const Error& networkError, std::string_view url) {
  return QKKindURLErrorMessage::kindErrorFromNSURLError(networkError,
                                                        fmt::format("Failed to download page: {}", url));
}

Result<QKContentParser> contentParserWithURL(NetworkSession& session, std::string_view url) {
  // An error page holds no article worth keeping, so only a success counts.
  auto download = downloadURLSynchronously(session, url);
  if (!download) return fail(contentDownloadError(download.error(), url));
  auto parser =
      QKContentParser::initWithData(download->data, download->response.textEncodingName().value_or(""));
  if (!parser) return parser;
  parser->setDomain(std::string(url));
  return parser;
}

}  // namespace lectern
