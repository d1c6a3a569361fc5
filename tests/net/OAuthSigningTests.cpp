#include <gtest/gtest.h>

#include <deque>

#include "core/Error.h"
#include "net/oauth/OAuthNonceLedger.h"
#include "net/oauth/OAuthSigning.h"

namespace lectern {
namespace {

TEST(OAuthEscape, EscapesEverythingButUnreservedCharacters) {
  // A space is %20 (never "+"), unreserved characters stay, UTF-8 bytes become upper-case hex.
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"a b", "a%20b"},
      {"~-._", "~-._"},
      {"*", "%2A"},
      {"\xC3\xA9", "%C3%A9"},
      {"!*'();:@&=+$,/?#[]", "%21%2A%27%28%29%3B%3A%40%26%3D%2B%24%2C%2F%3F%23%5B%5D"},
      {"<>{}|`^%\"\\", "%3C%3E%7B%7D%7C%60%5E%25%22%5C"},
      {"AZaz09", "AZaz09"},
  };
  for (auto [in, want] : cases) EXPECT_EQ(oauthEscape(in), want) << in;
}

TEST(OAuthNormalizedBaseURL, DropsDefaultPortsQueryAndFragmentAndLowersSchemeAndHost) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"https://www.example.com:443/api/1/x", "https://www.example.com/api/1/x"},
      {"https://www.example.com:8443/api/1/x", "https://www.example.com:8443/api/1/x"},
      {"http://Example.COM:80/r?b=1#frag", "http://example.com/r"},
      {"HTTP://example.com:443/r", "http://example.com:443/r"},  // 443 is only default for https
      {"https://example.com:80/", "https://example.com:80/"},
      {"http://example.com/Path/Keeps/Case", "http://example.com/Path/Keeps/Case"},
  };
  for (auto [in, want] : cases) EXPECT_EQ(oauthNormalizedBaseURL(in), want) << in;
}

TEST(OAuthNormalizedBaseURL, URLWithoutHostIsACallerError) {
  try {
    oauthNormalizedBaseURL("/relative/path");
    FAIL() << "expected InternalInconsistency";
  } catch (const InternalInconsistency& error) {
    EXPECT_STREQ(error.what(), "URL host missing: /relative/path");
  }
}

TEST(OAuthSignatureBaseString, ReproducesThePublishedExampleWithRepeatedAndEmptyParameters) {
  // RFC 5849, 3.4.1.1: query, body and header parameters; duplicates sort by value, empty values stay.
  OAuthSigningInput input;
  input.method = "post";
  input.url = "http://EXAMPLE.com:80/request?b5=%3D%253D&a3=a&c%40=&a2=r%20b";
  input.oauthParameters = {{"oauth_consumer_key", "9djdj82h48djs9d2"},
                           {"oauth_token", "kkk9d7dh3k39sjv7"},
                           {"oauth_signature_method", "HMAC-SHA1"},
                           {"oauth_timestamp", "137131201"},
                           {"oauth_nonce", "7d8f3e4a"}};
  input.requestParameters = {{"b5", "=%3D"}, {"a3", "a"}, {"c@", ""},
                             {"a2", "r b"},  {"c2", ""},  {"a3", "2 q"}};
  EXPECT_EQ(oauthSign(input).baseString,
            "POST&http%3A%2F%2Fexample.com%2Frequest&a2%3Dr%2520b%26a3%3D2%2520q%26a3%3Da%26b5%3D%253D%"
            "25253D%26c%2540%3D"
            "%26c2%3D%26oauth_consumer_key%3D9djdj82h48djs9d2%26oauth_nonce%3D7d8f3e4a%26oauth_signature_"
            "method%3DHMAC-"
            "SHA1%26oauth_timestamp%3D137131201%26oauth_token%3Dkkk9d7dh3k39sjv7");
}

TEST(OAuthSign, ReproducesThePublishedHMACSHA1ExampleByteForByte) {
  // RFC 5849, 1.2: the photo-printing example with its fixed timestamp and nonce.
  OAuthSigningInput input;
  input.method = "GET";
  input.url = "http://photos.example.net/photos";
  input.oauthParameters = {{"oauth_consumer_key", "dpf43f3p2l4k3l03"},
                           {"oauth_token", "nnch734d00sl2jdk"},
                           {"oauth_signature_method", "HMAC-SHA1"},
                           {"oauth_timestamp", "137131202"},
                           {"oauth_nonce", "chapoH"}};
  input.requestParameters = {{"file", "vacation.jpg"}, {"size", "original"}};
  input.consumerSecret = "kd94hf93k423kf44";
  input.tokenSecret = "pfkkdhi9sl3r4s00";
  input.realm = "Photos";
  const auto signature = oauthSign(input);
  EXPECT_EQ(signature.signature, "MdpQcU8iPSUjWoN/UDMsK2sui9I=");
  EXPECT_EQ(
      signature.headerValue,
      "OAuth realm=\"Photos\", oauth_consumer_key=\"dpf43f3p2l4k3l03\", oauth_token=\"nnch734d00sl2jdk\", "
      "oauth_signature_method=\"HMAC-SHA1\", oauth_timestamp=\"137131202\", oauth_nonce=\"chapoH\", "
      "oauth_signature=\"MdpQcU8iPSUjWoN%2FUDMsK2sui9I%3D\"");
}

TEST(OAuthSign, HeaderHasRealmFirstAndOnlyOAuthParametersWhichWinOverRequestParameters) {
  OAuthSigningInput input;
  input.method = "POST";
  input.url = "https://www.example.com:443/api/1/bookmarks/list";
  input.oauthParameters = {{"oauth_signature_method", "HMAC-SHA1"}, {"oauth_nonce", "n 1"}};
  input.requestParameters = {{"limit", "500"}, {"oauth_nonce", "forged"}};
  input.consumerSecret = "cs";
  const auto signature = oauthSign(input);
  // Without a realm the normalised URL stands in; values are escaped; request parameters stay out.
  EXPECT_EQ(signature.headerValue.find("OAuth realm=\"https://www.example.com/api/1/bookmarks/list\", "), 0u);
  EXPECT_NE(signature.headerValue.find("oauth_nonce=\"n%201\""), std::string::npos);
  EXPECT_EQ(signature.headerValue.find("limit"), std::string::npos);
  EXPECT_EQ(signature.headerValue.find("forged"), std::string::npos);
  EXPECT_NE(signature.baseString.find("limit%3D500%26oauth_nonce%3Dn%25201%26"), std::string::npos);
  EXPECT_EQ(signature.baseString.find("forged"), std::string::npos);
}

TEST(OAuthSigningKey, MissingTokenSecretLeavesALoneAmpersand) {
  EXPECT_EQ(oauthSigningKey("consumer secret", ""), "consumer%20secret&");
  EXPECT_EQ(oauthSigningKey("a&b", "t=1"), "a%26b&t%3D1");
}

class SequenceNonces final : public NonceSource {
 public:
  explicit SequenceNonces(std::deque<std::string> nonces) : nonces_(std::move(nonces)) {}
  std::string nonce() override {
    std::string next = nonces_.front();
    if (nonces_.size() > 1) nonces_.pop_front();
    return next;
  }

 private:
  std::deque<std::string> nonces_;
};

TEST(OAuthNonceLedger, NoNonceRepeatsWithinASecondAndTheNextSecondStartsAfresh) {
  FixedClock clock(dateFromSecondsSince1970(1'700'000'000.25));
  SequenceNonces nonces({"a", "a", "b", "a"});
  OAuthNonceLedger ledger;
  const auto first = ledger.next(clock, nonces);
  const auto second = ledger.next(clock, nonces);  // "a" again is drawn and refused
  EXPECT_EQ(first.timestamp, "1700000000");
  EXPECT_EQ(first.nonce, "a");
  EXPECT_EQ(second.nonce, "b");
  clock.advance(std::chrono::seconds(1));
  const auto third = ledger.next(clock, nonces);
  EXPECT_EQ(third.timestamp, "1700000001");
  EXPECT_EQ(third.nonce, "a");  // a new second forgets the old nonces
}

TEST(OAuthNonceLedger, ANonceSourceStuckOnOneValueIsACallerError) {
  FixedClock clock(dateFromSecondsSince1970(100));
  SequenceNonces nonces({"same"});
  OAuthNonceLedger ledger;
  ledger.next(clock, nonces);
  EXPECT_THROW(ledger.next(clock, nonces), InternalInconsistency);
}

}  // namespace
}  // namespace lectern
