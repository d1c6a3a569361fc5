#include "feeds/QKFeedLinkParser.h"

#include <libxml/HTMLparser.h>
#include <libxml/xpath.h>
#include <pthread.h>
#include <unicode/ucnv.h>
#include <unicode/unistr.h>

#include <array>
#include <chrono>
#include <climits>
#include <mutex>

#include "core/Log.h"
#include "core/QuietLibxml.h"
#include "core/Strings.h"
#include "feeds/URLDownload.h"
#include "net/TextEncoding.h"
#include "net/URL.h"

namespace lectern {
namespace {

constexpr std::string_view kLogCategory = "QKFeedLinkParser";

constexpr std::array<std::string_view, 5> kFeedMIMETypes = {
    "application/rss+xml", "application/atom+xml", "application/xml", "application/rdf+xml", "text/xml"};

struct ConverterCloser {
  void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using Converter = std::unique_ptr<UConverter, ConverterCloser>;

Converter openConverter(const std::string& name) {
  UErrorCode status = U_ZERO_ERROR;
  Converter converter(ucnv_open(name.c_str(), &status));
  if (U_FAILURE(status)) return nullptr;
  return converter;
}

// The response's charset as the page is read: ISO Latin 1 when it names none, UTF-8 when it names
// one no converter knows.
std::string pageEncoding(const std::optional<std::string>& encodingName) {
  if (!encodingName) return std::string(kLatin1Charset);
  return openConverter(*encodingName) ? *encodingName : std::string(kUTF8Charset);
}

// Bytes in `encoding` as UTF-8; what does not decode becomes a substitution character.
std::string decodeLossily(std::string_view bytes, const std::string& encoding) {
  if (isUTF8Charset(encoding)) return sanitizeUTF8(bytes);
  if (isLatin1Charset(encoding)) return latin1ToUTF8(bytes);
  Converter converter = openConverter(encoding);
  if (!converter || bytes.size() > static_cast<size_t>(INT32_MAX)) return sanitizeUTF8(bytes);
  UErrorCode status = U_ZERO_ERROR;
  const icu::UnicodeString text(bytes.data(), static_cast<int32_t>(bytes.size()), converter.get(), status);
  if (U_FAILURE(status)) return sanitizeUTF8(bytes);
  std::string utf8;
  text.toUTF8String(utf8);
  return utf8;
}

std::string attributeValue(xmlNodePtr node, const char* name) {
  xmlChar* value = xmlGetProp(node, reinterpret_cast<const xmlChar*>(name));
  if (!value) return {};
  std::string text(reinterpret_cast<const char*>(value));
  xmlFree(value);
  return text;
}

// `href` appended to the address's path as one more component; query and fragment stay after it.
std::string appendingPathComponent(std::string_view address, std::string_view href) {
  auto url = URL::parse(address);
  if (!url) return std::string(address) + std::string(href);
  std::string path = url->path();
  if (!path.ends_with('/')) path += '/';
  while (href.starts_with('/')) href.remove_prefix(1);
  url->setPath(path + std::string(href));
  return url->string();
}

// What the page's relative references are resolved against, as a browser does it: the first
// <base href> (relative to the page), else the page's own address. Nothing when neither is absolute.
std::optional<URL> documentBase(xmlXPathContextPtr context, std::string_view examinedURL) {
  std::optional<URL> page = URL::parse(examinedURL);
  if (!page || !page->isAbsolute()) return std::nullopt;
  std::unique_ptr<xmlXPathObject, decltype(&xmlXPathFreeObject)> bases(
      xmlXPathEvalExpression(reinterpret_cast<const xmlChar*>("//base[@href]"), context), xmlXPathFreeObject);
  if (!bases || !bases->nodesetval || bases->nodesetval->nodeNr == 0) return page;
  const std::string href(trimView(attributeValue(bases->nodesetval->nodeTab[0], "href")));
  auto base = page->resolve(href);
  return base && base->isAbsolute() ? base : page;
}

}  // namespace

QKFeedLinkParser::QKFeedLinkParser(NetworkSession& session, std::string url)
    : session_(session), url_(std::move(url)) {}

QKFeedLinkParser::~QKFeedLinkParser() {
  MainQueue& main = session_.mainQueue();
  for (Worker& worker : workers_) {
    if (main.isMainThread()) {
      // The worker posts its completion and then marks itself finished: look again every few
      // milliseconds so a late mark is not missed.
      while (!worker.finished->load()) {
        main.runUntil([&] { return worker.finished->load(); }, std::chrono::milliseconds(5));
      }
    }
    worker.thread.join();
  }
}

void QKFeedLinkParser::getFeedLinks(Completion onCompleteBlock) {
  if (searching_.exchange(true)) throw InternalInconsistency("QKFeedLinkParser is already searching");
  std::erase_if(workers_, [](Worker& worker) {
    if (!worker.finished->load()) return false;
    worker.thread.join();
    return true;
  });
  auto finished = std::make_shared<std::atomic<bool>>(false);
  std::thread thread([this, onCompleteBlock = std::move(onCompleteBlock), finished] {
    pthread_setname_np(pthread_self(), "feedlinkparser");
    startDownloading(onCompleteBlock);
    finished->store(true);
  });
  workers_.push_back(Worker{std::move(thread), std::move(finished)});
}

void QKFeedLinkParser::startDownloading(const Completion& onCompleteBlock) {
  auto download = downloadURLSynchronously(
      session_, url_, URLDownloadOptions{.statusPolicy = DownloadStatusPolicy::kAcceptAny});
  if (!download) {
    logDebugMessage(kLogCategory, "Failed to download {}: {}", url_, download.error().message());
    doCompletionBlockInMainThread(onCompleteBlock, fail(download.error()));
    return;
  }
  doCompletionBlockInMainThread(onCompleteBlock,
                                URLDidLoaded(url_, download->data, download->response.MIMEType(),
                                             download->response.textEncodingName()));
}

void QKFeedLinkParser::doCompletionBlockInMainThread(const Completion& onCompleteBlock,
                                                     Result<std::vector<QKFeedLinkItem>> items) {
  session_.mainQueue().runSync([&] {
    searching_ = false;
    if (onCompleteBlock) onCompleteBlock(std::move(items));
  });
}

bool QKFeedLinkParser::isFeedMIMEType(std::string_view MIMEType) {
  for (std::string_view type : kFeedMIMETypes) {
    if (MIMEType == type) return true;
  }
  return false;
}

bool QKFeedLinkParser::isHtmlMIMEType(std::string_view MIMEType) { return MIMEType == "text/html"; }

Error QKFeedLinkParser::error(QKFeedLinkParserError code) {
  std::string_view description;
  switch (code) {
    case QKFeedLinkParserError::kNoFeedLinks:
      description = "The specified URL does not return a valid feed document";
      break;
    case QKFeedLinkParserError::kNoData:
      description = "Response does not contain any data";
      break;
    case QKFeedLinkParserError::kUnknownMIMEType:
      description = "Unknown MIMI type";
      break;
  }
  return Error::make(kQKFeedLinkParserErrorDomain, static_cast<int>(code), description);
}

Result<std::vector<QKFeedLinkItem>> QKFeedLinkParser::URLDidLoaded(
    std::string_view examinedURL, std::string_view body, std::string_view MIMEType,
    const std::optional<std::string>& encodingName) {
  const std::string encoding = pageEncoding(encodingName);
  if (body.empty()) return fail(error(QKFeedLinkParserError::kNoData));
  if (isFeedMIMEType(MIMEType)) return std::vector<QKFeedLinkItem>{{"Feed", std::string(examinedURL)}};
  if (!isHtmlMIMEType(MIMEType)) return fail(error(QKFeedLinkParserError::kUnknownMIMEType));
  auto links = parseFeedLinksFromHtmlData(body, encoding, examinedURL);
  if (links.empty()) return fail(error(QKFeedLinkParserError::kNoFeedLinks));
  return links;
}

std::vector<QKFeedLinkItem> QKFeedLinkParser::parseFeedLinksFromHtmlData(std::string_view data,
                                                                         std::string_view encoding,
                                                                         std::string_view examinedURL) {
  const std::string text = decodeLossily(data, std::string(encoding));
  if (text.empty() || text.size() > static_cast<size_t>(INT_MAX)) return {};
  static std::once_flag initialized;
  std::call_once(initialized, [] { xmlInitParser(); });
  QuietLibxml quiet;
  // Recovering, silent, offline; the text is UTF-8 now, so a <meta charset> must not decode it again.
  constexpr int kOptions = HTML_PARSE_RECOVER | HTML_PARSE_NOERROR | HTML_PARSE_NOWARNING | HTML_PARSE_NONET |
                           HTML_PARSE_IGNORE_ENC;
  std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> doc(
      htmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, "UTF-8", kOptions), xmlFreeDoc);
  if (!doc) return {};
  std::unique_ptr<xmlXPathContext, decltype(&xmlXPathFreeContext)> context(xmlXPathNewContext(doc.get()),
                                                                           xmlXPathFreeContext);
  if (!context) return {};
  std::unique_ptr<xmlXPathObject, decltype(&xmlXPathFreeObject)> links(
      xmlXPathEvalExpression(reinterpret_cast<const xmlChar*>("//head/link"), context.get()),
      xmlXPathFreeObject);
  if (!links || !links->nodesetval) return {};
  const std::optional<URL> base = documentBase(context.get(), examinedURL);
  std::vector<QKFeedLinkItem> items;
  for (int i = 0; i < links->nodesetval->nodeNr; ++i) {
    xmlNodePtr link = links->nodesetval->nodeTab[i];
    if (!isFeedMIMEType(attributeValue(link, "type"))) continue;
    const std::string href = attributeValue(link, "href");
    if (href.empty()) continue;
    std::optional<URL> resolved = base ? base->resolve(trimView(href)) : std::nullopt;
    items.push_back(QKFeedLinkItem{attributeValue(link, "title"),
                                   href.starts_with('/') ? appendingPathComponent(examinedURL, href) : href,
                                   resolved ? resolved->string() : std::string()});
  }
  return items;
}

}  // namespace lectern
