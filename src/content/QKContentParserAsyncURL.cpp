// The network entry point of QKContentParserAsync, kept apart so the content library stays a leaf.
#include "content/ContentDownload.h"
#include "content/QKContentParserAsync.h"

namespace lectern {

void QKContentParserAsync::contentOfURL(NetworkSession& session, std::string url, Completion onComplete) {
  start([&session, url = std::move(url)] { return contentParserWithURL(session, url); },
        std::move(onComplete));
}

}  // namespace lectern
