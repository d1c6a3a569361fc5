#include <gtest/gtest.h>

#include "net/QKKindURLErrorMessage.h"
#include "net/URLError.h"

namespace lectern {
namespace {

HttpResponse responseWithStatus(int status) {
  HttpResponse response;
  response.statusCode = status;
  response.url = "https://api.example.com/v2/entries.json";
  return response;
}

TEST(KindErrorFromNSURLError, KeepsDomainAndCodeAndUsesTheFixedSentence) {
  const std::pair<int, std::string_view> cases[] = {
      {-1001, "Request is timed out"},
      {-1009, "Internet connection is not available"},
      {-1013, "Authentication required"},
      {-1017, "Content data cannot be decoded"},
      {-1202, "The server certificate is signed by a root server which is not trusted"},
      {-3000, "Unable to create the downloaded file on disk due to a I/O failure"},  // sic
      {-999, "Request cancelled"},
  };
  for (auto [code, sentence] : cases) {
    const Error error = QKKindURLErrorMessage::kindErrorFromNSURLError(
        makeURLError(code, "https://h/x", "transport words"), "Failed to fetch feed: https://h/x");
    EXPECT_EQ(error.domain, kURLErrorDomain) << code;
    EXPECT_EQ(error.code, code);
    EXPECT_EQ(error.description, "Failed to fetch feed: https://h/x");
    EXPECT_EQ(error.recoverySuggestion, sentence);
  }
}

TEST(KindErrorFromNSURLError, CodeWithoutSentenceReturnsTheErrorUnchanged) {
  const Error original = makeURLError(-1104, "https://h/x", "odd failure");
  EXPECT_EQ(QKKindURLErrorMessage::kindErrorFromNSURLError(original, "Title"), original);
}

TEST(KindErrorFromResponse, StatusSentenceWinsAndTakesTheTransportCodeWhenThereIsOne) {
  const auto transport = makeURLError(-1011, "u", "bad status");
  const auto withError = QKKindURLErrorMessage::kindErrorFromResponse(responseWithStatus(404),
                                                                      "Failed to mark entry", transport);
  ASSERT_TRUE(withError);
  EXPECT_EQ(withError->domain, "com.quillhq.com");
  EXPECT_EQ(withError->code, -1011);
  EXPECT_EQ(withError->description, "Failed to mark entry");
  EXPECT_EQ(withError->recoverySuggestion, "The resource you requested does not exists");  // sic
  const auto withoutError =
      QKKindURLErrorMessage::kindErrorFromResponse(responseWithStatus(406), "T", std::nullopt);
  ASSERT_TRUE(withoutError);
  EXPECT_EQ(withoutError->code, 406);
  EXPECT_EQ(withoutError->recoverySuggestion,
            "The contentent of requested resource is not acceptable");  // sic
}

TEST(KindErrorFromResponse, StatusWithoutSentenceFallsBackToTheTransportError) {
  // 420 is not in the table: the transport error's sentence, or nothing at all without an error.
  const auto fallback = QKKindURLErrorMessage::kindErrorFromResponse(
      responseWithStatus(420), "Failed to login", makeURLError(-1001, "u", "timed out"));
  ASSERT_TRUE(fallback);
  EXPECT_EQ(fallback->domain, kURLErrorDomain);
  EXPECT_EQ(fallback->recoverySuggestion, "Request is timed out");
  EXPECT_FALSE(QKKindURLErrorMessage::kindErrorFromResponse(responseWithStatus(420), "T", std::nullopt));
  EXPECT_FALSE(QKKindURLErrorMessage::kindErrorFromResponse(std::nullopt, "T", std::nullopt));
  const Error odd = makeURLError(-1104, "u", "odd");
  EXPECT_EQ(QKKindURLErrorMessage::kindErrorFromResponse(responseWithStatus(420), "T", odd), odd);
}

}  // namespace
}  // namespace lectern
