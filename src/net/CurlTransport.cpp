#include "net/CurlTransport.h"

#include <curl/curl.h>
#include <openssl/x509_vfy.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "core/Strings.h"
#include "net/ExceptionBarrier.h"
#include "net/URL.h"
#include "net/URLError.h"

namespace lectern {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr std::string_view kLogCategory = "CurlTransport";

// What a transfer fails with when code called from the network thread threw.
Error exceptionError(const std::string& url, const std::string& message) {
  return makeURLError(URLErrorCode::kUnknown, url, "An unknown network error occurred.", message);
}

struct Transfer {
  enum class Body { kWaitingForHeaders, kDelivering, kDiscarding };

  Transport::TransferId id = 0;
  HttpRequest request;
  std::shared_ptr<TransferDelegate> delegate;
  const CurlTransportOptions* options = nullptr;
  CURL* easy = nullptr;
  bool added = false;  // in the multi handle
  curl_slist* headerList = nullptr;
  char errorBuffer[CURL_ERROR_SIZE] = {};

  // The exchange in progress.
  HttpHeaders headers;
  size_t headerCount = 0;
  size_t headerBytes = 0;
  Body body = Body::kWaitingForHeaders;
  std::optional<HttpRequest> nextRequest;  // sent once this exchange has been read to its end
  std::optional<Error> abortError;         // why a callback stopped the transfer
  curl_off_t uploaded = 0;

  int hops = 0;  // redirects and authentication retries so far
  SteadyClock::time_point lastActivity;

  Transfer() = default;
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;
  ~Transfer() { releaseHandle(); }

  void releaseHandle() {
    if (easy != nullptr) curl_easy_cleanup(easy);
    easy = nullptr;
    if (headerList != nullptr) curl_slist_free_all(headerList);
    headerList = nullptr;
  }
  void touch() { lastActivity = SteadyClock::now(); }
  bool isIdle(SteadyClock::time_point now) const {
    return now - lastActivity > std::chrono::duration_cast<SteadyClock::duration>(request.timeoutInterval);
  }
};

bool isRedirectStatus(long status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

Error certificateError(long verifyResult, const std::string& url, const char* detail) {
  switch (verifyResult) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return makeURLError(URLErrorCode::kServerCertificateHasBadDate, url,
                          "The server certificate has expired.", detail);
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return makeURLError(URLErrorCode::kServerCertificateNotYetValid, url,
                          "The server certificate is not yet valid.", detail);
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
      return makeURLError(URLErrorCode::kServerCertificateHasUnknownRoot, url,
                          "The server certificate is not signed by a known authority.", detail);
    case X509_V_ERR_CERT_REVOKED:
      return makeURLError(URLErrorCode::kClientCertificateRejected, url,
                          "The server certificate was revoked.", detail);
    default:
      return makeURLError(URLErrorCode::kServerCertificateUntrusted, url,
                          "The server certificate is not trusted.", detail);
  }
}

// libcurl's result as the URL-system error service code expects.
Error errorForCurlCode(CURLcode code, const Transfer& transfer) {
  const std::string& url = transfer.request.url;
  const char* detail = transfer.errorBuffer[0] != '\0' ? transfer.errorBuffer : curl_easy_strerror(code);
  auto error = [&](int urlCode, std::string_view text) { return makeURLError(urlCode, url, text, detail); };
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      return error(URLErrorCode::kTimedOut, "The request timed out.");
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return error(URLErrorCode::kCannotFindHost, "A server with the specified hostname could not be found.");
    case CURLE_COULDNT_CONNECT:
      return error(URLErrorCode::kCannotConnectToHost, "Could not connect to the server.");
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
      return error(URLErrorCode::kNetworkConnectionLost, "The network connection was lost.");
    case CURLE_TOO_MANY_REDIRECTS:
      return error(URLErrorCode::kHTTPTooManyRedirects, "Too many HTTP redirects.");
    case CURLE_URL_MALFORMAT:
      return error(URLErrorCode::kBadURL, "The URL is not valid.");
    case CURLE_UNSUPPORTED_PROTOCOL:
      // A peer that answers without a status line is a bad server, not a bad URL.
      if (std::string_view(detail).find("HTTP/0.9") != std::string_view::npos) {
        return error(URLErrorCode::kBadServerResponse,
                     "The server returned a response that could not be read.");
      }
      return error(URLErrorCode::kUnsupportedURL, "The URL is not supported.");
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    case CURLE_HTTP3:
      return error(URLErrorCode::kBadServerResponse,
                   "The server returned a response that could not be read.");
    case CURLE_BAD_CONTENT_ENCODING:
      return error(URLErrorCode::kCannotDecodeRawData, "The response body could not be decompressed.");
    case CURLE_FILESIZE_EXCEEDED:
      return error(URLErrorCode::kDataLengthExceedsMaximum, "The response is larger than allowed.");
    case CURLE_READ_ERROR:
    case CURLE_SEND_FAIL_REWIND:
      return error(URLErrorCode::kRequestBodyStreamExhausted, "The request body could not be read.");
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_ISSUER_ERROR: {
      long verifyResult = 0;
      if (transfer.easy != nullptr)
        curl_easy_getinfo(transfer.easy, CURLINFO_SSL_VERIFYRESULT, &verifyResult);
      return certificateError(verifyResult, url, detail);
    }
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
      return error(URLErrorCode::kClientCertificateRejected, "The server certificate was rejected.");
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CLIENTCERT:
      return error(URLErrorCode::kClientCertificateRequired, "A client certificate is required.");
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_USE_SSL_FAILED:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ENGINE_INITFAILED:
      return error(URLErrorCode::kSecureConnectionFailed,
                   "A TLS error occurred and a secure connection to the server cannot be made.");
    case CURLE_ABORTED_BY_CALLBACK:
      return error(URLErrorCode::kCancelled, "cancelled");
    default:
      return error(URLErrorCode::kUnknown, "An unknown network error occurred.");
  }
}

}  // namespace

struct CurlTransport::Impl {
  struct Command {
    enum class Kind { kStart, kCancel } kind;
    TransferId id = 0;
    HttpRequest request;
    std::shared_ptr<TransferDelegate> delegate;
  };

  explicit Impl(CurlTransportOptions opts) : options(opts) {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    multi = curl_multi_init();
    curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, options.maximumCachedConnections);
    share = makeShare();
    thread = std::thread([this] { run(); });
  }

  ~Impl() {
    {
      std::lock_guard lock(mutex);
      stopping = true;
    }
    curl_multi_wakeup(multi);
    thread.join();
    curl_multi_cleanup(multi);
    for (auto& [key, jar] : jarShares) curl_share_cleanup(jar.share);
    curl_share_cleanup(share);
    curl_global_cleanup();
  }

  // Only the network thread touches shares, so they need no lock callbacks. A share holds one cookie
  // store and the TLS sessions of the requests using it; connections stay in the multi handle's
  // cache, which every request uses whatever its share.
  static CURLSH* makeShare() {
    CURLSH* created = curl_share_init();
    curl_share_setopt(created, CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
    curl_share_setopt(created, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    return created;
  }

  // The share of a request's cookie jar (the common one when it names none). Shares of jars nobody
  // holds any more are freed first, so a new jar at a dead one's address starts empty.
  CURLSH* shareFor(const std::shared_ptr<const CookieJar>& jar) {
    for (auto it = jarShares.begin(); it != jarShares.end();) {
      if (it->second.jar.expired() && curl_share_cleanup(it->second.share) == CURLSHE_OK) {
        it = jarShares.erase(it);
      } else {
        ++it;
      }
    }
    if (!jar) return share;
    auto it = jarShares.find(jar.get());
    if (it != jarShares.end() && !it->second.jar.expired()) return it->second.share;
    if (it != jarShares.end())
      jarShares.erase(it);  // still in use by a handle: left to leak rather than mixed
    CURLSH* created = makeShare();
    jarShares.emplace(jar.get(), JarShare{jar, created});
    return created;
  }

  void post(Command command) {
    {
      std::lock_guard lock(mutex);
      commands.push_back(std::move(command));
    }
    curl_multi_wakeup(multi);
  }

  // ---- everything below runs on the network thread ----

  void run() {
    pthread_setname_np(pthread_self(), "AFNetworking");
    for (;;) {
      std::vector<Command> batch;
      bool stop;
      {
        std::lock_guard lock(mutex);
        batch.swap(commands);
        stop = stopping;
      }
      for (auto& command : batch) {
        if (stop && command.kind == Command::Kind::kStart) {
          command.delegate->didComplete(
              makeURLError(URLErrorCode::kCancelled, command.request.url, "cancelled"));
          continue;
        }
        command.kind == Command::Kind::kStart ? begin(std::move(command)) : cancel(command.id);
      }
      if (stop) {
        std::vector<TransferId> ids;
        for (const auto& [id, transfer] : transfers) ids.push_back(id);
        for (auto id : ids) cancel(id);
        return;
      }
      int running = 0;
      curl_multi_perform(multi, &running);
      int queued = 0;
      while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
        if (message->msg != CURLMSG_DONE) continue;
        Transfer* transfer = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
        if (transfer != nullptr) exchangeEnded(*transfer, message->data.result);
      }
      curl_multi_poll(multi, nullptr, 0, expireIdleTransfers(), nullptr);
    }
  }

  void begin(Command command) {
    auto transfer = std::make_unique<Transfer>();
    transfer->id = command.id;
    transfer->request = std::move(command.request);
    transfer->delegate = std::move(command.delegate);
    transfer->options = &options;
    ++statistics.transfersStarted;
    Transfer& t = *transfer;
    transfers.emplace(t.id, std::move(transfer));
    if (auto error = configure(t)) {
      complete(t, std::move(error));
      return;
    }
    curl_multi_add_handle(multi, t.easy);
    t.added = true;
  }

  void cancel(TransferId id) {
    auto it = transfers.find(id);
    if (it == transfers.end()) return;
    Transfer& t = *it->second;
    complete(t, makeURLError(URLErrorCode::kCancelled, t.request.url, "cancelled"));
  }

  // Fails idle transfers with the timed-out error; returns how long the loop may sleep.
  int expireIdleTransfers() {
    const auto now = SteadyClock::now();
    std::vector<TransferId> idle;
    auto sleep = std::chrono::milliseconds(1000);
    for (const auto& [id, transfer] : transfers) {
      if (transfer->isIdle(now)) {
        idle.push_back(id);
        continue;
      }
      const auto deadline = transfer->lastActivity + std::chrono::duration_cast<SteadyClock::duration>(
                                                         transfer->request.timeoutInterval);
      sleep = std::min(sleep, std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now) +
                                  std::chrono::milliseconds(1));
    }
    for (auto id : idle) {
      auto it = transfers.find(id);
      if (it == transfers.end()) continue;
      Transfer& t = *it->second;
      complete(t, makeURLError(URLErrorCode::kTimedOut, t.request.url, "The request timed out."));
    }
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(sleep.count(), 0));
  }

  void exchangeEnded(Transfer& t, CURLcode result) {
    long connects = 0;
    curl_easy_getinfo(t.easy, CURLINFO_NUM_CONNECTS, &connects);
    statistics.connectionsOpened += static_cast<std::uint64_t>(connects);
    curl_multi_remove_handle(multi, t.easy);
    t.added = false;
    if (t.abortError) {
      auto error = std::move(t.abortError);
      complete(t, std::move(error));
      return;
    }
    if (result != CURLE_OK) {
      complete(t, errorForCurlCode(result, t));
      return;
    }
    if (t.nextRequest) {
      t.request = std::move(*t.nextRequest);
      t.nextRequest.reset();
      if (auto error = configure(t)) {
        complete(t, std::move(error));
        return;
      }
      curl_multi_add_handle(multi, t.easy);
      t.added = true;
      return;
    }
    if (t.body == Transfer::Body::kWaitingForHeaders) {
      complete(t, makeURLError(URLErrorCode::kBadServerResponse, t.request.url,
                               "The server returned a response that could not be read."));
      return;
    }
    complete(t, std::nullopt);
  }

  // Ends a transfer: its handle goes back, its delegate hears the outcome, the record is freed.
  void complete(Transfer& t, std::optional<Error> error) {
    auto it = transfers.find(t.id);
    if (it == transfers.end()) return;
    std::unique_ptr<Transfer> owned = std::move(it->second);
    transfers.erase(it);
    if (owned->added) curl_multi_remove_handle(multi, owned->easy);
    owned->added = false;
    owned->releaseHandle();
    auto delegate = std::move(owned->delegate);
    owned.reset();
    runLoggingExceptions(kLogCategory, "a transfer's completion",
                         [&] { delegate->didComplete(std::move(error)); });
  }

  std::optional<Error> configure(Transfer& t) {
    t.releaseHandle();
    t.headers = {};
    t.headerCount = 0;
    t.headerBytes = 0;
    t.body = Transfer::Body::kWaitingForHeaders;
    t.uploaded = 0;
    t.errorBuffer[0] = '\0';
    t.touch();
    const HttpRequest& r = t.request;
    if (r.url.empty()) return makeURLError(URLErrorCode::kBadURL, r.url, "The URL is not valid.");
    if (r.bodyStream) {
      bool rewound = false;
      if (auto thrown = exceptionMessageFrom([&] { rewound = r.bodyStream->rewind(); })) {
        return exceptionError(r.url, *thrown);
      }
      if (!rewound) {
        return makeURLError(URLErrorCode::kRequestBodyStreamExhausted, r.url,
                            "The request body could not be read again.");
      }
    }
    t.easy = curl_easy_init();
    if (t.easy == nullptr)
      return makeURLError(URLErrorCode::kUnknown, r.url, "An unknown network error occurred.");
    CURL* e = t.easy;
    curl_easy_setopt(e, CURLOPT_URL, r.url.c_str());
    curl_easy_setopt(e, CURLOPT_PRIVATE, &t);
    curl_easy_setopt(e, CURLOPT_ERRORBUFFER, t.errorBuffer);
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 0L);  // redirects go through the delegate
    curl_easy_setopt(e, CURLOPT_NOPROXY, "localhost,127.0.0.1,::1");
    curl_easy_setopt(e, CURLOPT_ACCEPT_ENCODING, "gzip, deflate");  // decoded by libcurl
    curl_easy_setopt(e, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(e, CURLOPT_SHARE, shareFor(r.cookieJar));
    if (options.acceptCookies)
      curl_easy_setopt(e, CURLOPT_COOKIEFILE, "");  // the engine on, nothing read from disk
    const auto timeoutMs = std::chrono::duration_cast<std::chrono::milliseconds>(r.timeoutInterval).count();
    curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(std::max<long long>(timeoutMs, 1)));
    const bool verify = options.verifyTLS && !r.allowsInvalidSSLCertificate;
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, verify ? 1L : 0L);
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, verify ? 2L : 0L);
    curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, &onHeader);
    curl_easy_setopt(e, CURLOPT_HEADERDATA, &t);
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &onData);
    curl_easy_setopt(e, CURLOPT_WRITEDATA, &t);
    curl_easy_setopt(e, CURLOPT_XFERINFOFUNCTION, &onProgress);
    curl_easy_setopt(e, CURLOPT_XFERINFODATA, &t);
    curl_easy_setopt(e, CURLOPT_NOPROGRESS, 0L);
    if (r.maxSendBytesPerSecond > 0) {
      curl_easy_setopt(e, CURLOPT_MAX_SEND_SPEED_LARGE, static_cast<curl_off_t>(r.maxSendBytesPerSecond));
    }

    const bool hasBody = r.bodyStream != nullptr || !r.body.empty();
    bool sendsBody = false;
    if (r.method == "HEAD") {
      curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
    } else if (r.method == "GET" && !hasBody) {
      curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
    } else if (!hasBody && (r.method == "DELETE" || r.method == "OPTIONS" || r.method == "GET")) {
      curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, r.method.c_str());
    } else {
      // Every other method carries a body, if only an empty one with "Content-Length: 0".
      sendsBody = true;
      curl_easy_setopt(e, CURLOPT_POST, 1L);
      if (r.bodyStream) {
        std::optional<std::uint64_t> length;
        if (auto thrown = exceptionMessageFrom([&] { length = r.bodyStream->length(); })) {
          return exceptionError(r.url, *thrown);
        }
        curl_easy_setopt(e, CURLOPT_READFUNCTION, &onRead);
        curl_easy_setopt(e, CURLOPT_READDATA, &t);
        curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE,
                         length ? static_cast<curl_off_t>(*length) : curl_off_t{-1});
      } else {
        curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(r.body.size()));
        curl_easy_setopt(e, CURLOPT_POSTFIELDS, r.body.data());
      }
      if (r.method != "POST") curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, r.method.c_str());
    }

    for (const auto& [name, value] : r.headers) {
      // libcurl writes the length of the body it sends itself.
      if (equalsIgnoringASCIICase(name, "Content-Length")) continue;
      const std::string line = value.empty() ? name + ";" : name + ": " + value;
      t.headerList = curl_slist_append(t.headerList, line.c_str());
    }
    // Without these libcurl would label bodies as forms and wait for "100 Continue".
    if (sendsBody && !r.headers.contains("Content-Type"))
      t.headerList = curl_slist_append(t.headerList, "Content-Type:");
    t.headerList = curl_slist_append(t.headerList, "Expect:");
    curl_easy_setopt(e, CURLOPT_HTTPHEADER, t.headerList);
    return std::nullopt;
  }

  static size_t onHeader(char* buffer, size_t size, size_t count, void* userdata) {
    auto& t = *static_cast<Transfer*>(userdata);
    const size_t n = size * count;
    const std::string_view line(buffer, n);
    t.touch();
    if (line.starts_with("HTTP/")) {
      t.headers = {};
      t.headerCount = 0;
      t.headerBytes = 0;
      return n;
    }
    if (line == "\r\n" || line == "\n") return headersComplete(t) ? n : 0;
    t.headerBytes += n;
    if (++t.headerCount > t.options->maximumHeaderCount || t.headerBytes > t.options->maximumHeaderBytes) {
      t.abortError = makeURLError(URLErrorCode::kBadServerResponse, t.request.url,
                                  "The server sent more response header fields than allowed.");
      return 0;
    }
    const std::string_view field = trimView(line);
    const size_t colon = field.find(':');
    if (colon != std::string_view::npos && colon > 0) {
      t.headers.add(trimView(field.substr(0, colon)), std::string(trimView(field.substr(colon + 1))));
    }
    return n;
  }

  // The blank line after a response head. Returns false to stop the transfer (abortError says why).
  static bool headersComplete(Transfer& t) {
    long status = 0;
    curl_easy_getinfo(t.easy, CURLINFO_RESPONSE_CODE, &status);
    if (status >= 100 && status < 200) {  // an interim answer; the real one follows
      t.headers = {};
      t.headerCount = 0;
      t.headerBytes = 0;
      return true;
    }
    char* effective = nullptr;
    curl_easy_getinfo(t.easy, CURLINFO_EFFECTIVE_URL, &effective);
    HttpResponse response;
    response.statusCode = static_cast<int>(status);
    response.url = effective != nullptr ? effective : t.request.url;
    response.headers = t.headers;

    const auto location = response.headers.value("Location");
    if (isRedirectStatus(status) && location) {
      const auto base = URL::parse(response.url);
      const auto target = base ? base->resolve(*location) : std::nullopt;
      if (target && target->hasAuthority()) {
        if (t.hops >= t.options->maximumRedirects) {
          t.abortError =
              makeURLError(URLErrorCode::kHTTPTooManyRedirects, t.request.url, "Too many HTTP redirects.");
          return false;
        }
        HttpRequest proposed = t.request;
        proposed.url = target->string();
        const bool toGet = (status == 303 && t.request.method != "HEAD") ||
                           ((status == 301 || status == 302) && t.request.method == "POST");
        if (toGet) {
          proposed.method = "GET";
          proposed.body.clear();
          proposed.bodyStream.reset();
          proposed.headers.remove("Content-Type");
          proposed.headers.remove("Content-Length");
        }
        // Credentials stay with the host they were meant for.
        if (toLowerASCII(target->origin()) != toLowerASCII(base->origin())) {
          proposed.headers.remove("Authorization");
          proposed.headers.remove("Cookie");
        }
        std::optional<HttpRequest> next;
        if (auto thrown = exceptionMessageFrom(
                [&] { next = t.delegate->willRedirect(std::move(proposed), response); })) {
          t.abortError = exceptionError(t.request.url, *thrown);
          return false;
        }
        if (next) {
          ++t.hops;
          t.nextRequest = std::move(*next);
          t.body = Transfer::Body::kDiscarding;
          return true;
        }
      }
    }

    ResponseDisposition disposition;
    if (auto thrown = exceptionMessageFrom([&] { disposition = t.delegate->didReceiveResponse(response); })) {
      t.abortError = exceptionError(t.request.url, *thrown);
      return false;
    }
    if (disposition.failWith) {
      t.abortError = std::move(disposition.failWith);
      return false;
    }
    if (disposition.restartWith) {
      if (++t.hops > t.options->maximumRedirects) {
        t.abortError =
            makeURLError(URLErrorCode::kHTTPTooManyRedirects, t.request.url, "Too many HTTP redirects.");
        return false;
      }
      t.nextRequest = std::move(disposition.restartWith);
      t.body = Transfer::Body::kDiscarding;
      return true;
    }
    t.body = Transfer::Body::kDelivering;
    return true;
  }

  static size_t onData(char* buffer, size_t size, size_t count, void* userdata) {
    auto& t = *static_cast<Transfer*>(userdata);
    const size_t n = size * count;
    t.touch();
    if (t.body != Transfer::Body::kDelivering) return n;
    std::optional<Error> error;
    if (auto thrown =
            exceptionMessageFrom([&] { error = t.delegate->didReceiveData(std::string_view(buffer, n)); })) {
      error = exceptionError(t.request.url, *thrown);
    }
    if (error) {
      t.abortError = std::move(error);
      return 0;
    }
    return n;
  }

  static size_t onRead(char* buffer, size_t size, size_t count, void* userdata) {
    auto& t = *static_cast<Transfer*>(userdata);
    Result<size_t> read = size_t{0};
    if (auto thrown =
            exceptionMessageFrom([&] { read = t.request.bodyStream->read(buffer, size * count); })) {
      t.abortError = exceptionError(t.request.url, *thrown);
      return CURL_READFUNC_ABORT;
    }
    if (!read) {
      t.abortError = makeURLError(URLErrorCode::kRequestBodyStreamExhausted, t.request.url,
                                  "The request body could not be read.", read.error().message());
      return CURL_READFUNC_ABORT;
    }
    if (*read > 0) t.touch();
    return *read;
  }

  static int onProgress(void* userdata, curl_off_t, curl_off_t, curl_off_t uploadTotal,
                        curl_off_t uploadNow) {
    auto& t = *static_cast<Transfer*>(userdata);
    if (uploadNow > t.uploaded) {
      t.touch();
      if (auto thrown = exceptionMessageFrom([&] {
            t.delegate->didSendBodyData(static_cast<std::uint64_t>(uploadNow - t.uploaded),
                                        static_cast<std::uint64_t>(uploadNow),
                                        uploadTotal > 0 ? uploadTotal : -1);
          })) {
        t.abortError = exceptionError(t.request.url, *thrown);
        return 1;
      }
      t.uploaded = uploadNow;
    }
    return 0;
  }

  const CurlTransportOptions options;
  CURLM* multi = nullptr;
  CURLSH* share = nullptr;
  std::thread thread;

  std::mutex mutex;  // guards commands, stopping
  std::vector<Command> commands;
  bool stopping = false;

  std::atomic<TransferId> nextId{1};
  struct {
    std::atomic<std::uint64_t> transfersStarted{0};
    std::atomic<std::uint64_t> connectionsOpened{0};
  } statistics;

  std::map<TransferId, std::unique_ptr<Transfer>> transfers;  // network thread only
  struct JarShare {
    std::weak_ptr<const CookieJar> jar;
    CURLSH* share = nullptr;
  };
  std::map<const CookieJar*, JarShare> jarShares;  // network thread only
};

CurlTransport::CurlTransport(CurlTransportOptions options) : impl_(std::make_unique<Impl>(options)) {}

CurlTransport::~CurlTransport() = default;

Transport::TransferId CurlTransport::start(HttpRequest request, std::shared_ptr<TransferDelegate> delegate) {
  const TransferId id = impl_->nextId++;
  impl_->post(Impl::Command{Impl::Command::Kind::kStart, id, std::move(request), std::move(delegate)});
  return id;
}

void CurlTransport::cancel(TransferId transfer) {
  impl_->post(Impl::Command{Impl::Command::Kind::kCancel, transfer, {}, {}});
}

TransportStatistics CurlTransport::statistics() const {
  return TransportStatistics{impl_->statistics.transfersStarted.load(),
                             impl_->statistics.connectionsOpened.load()};
}

}  // namespace lectern
