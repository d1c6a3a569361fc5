#include <gtest/gtest.h>

#include <set>

#include <nlohmann/json.hpp>

#include "core/Strings.h"

namespace lectern {
namespace {

TEST(Strings, SafeStringValueReadsNumbersAndDropsNull) {
  const auto doc = nlohmann::json::parse(R"({"i": 4253, "big": 12345678901234, "f": 1.5, "whole": 3.0,
      "s": "text", "n": null, "t": true, "o": {}, "a": [1]})");
  EXPECT_EQ(safeStringValue(doc, "i"), "4253");
  EXPECT_EQ(safeStringValue(doc, "big"), "12345678901234");
  EXPECT_EQ(safeStringValue(doc, "f"), "1.5");
  EXPECT_EQ(safeStringValue(doc, "whole"), "3");
  EXPECT_EQ(safeStringValue(doc, "s"), "text");
  EXPECT_EQ(safeStringValue(doc, "t"), "1");
  EXPECT_EQ(safeStringValue(doc, "n"), std::nullopt);
  EXPECT_EQ(safeStringValue(doc, "missing"), std::nullopt);
  EXPECT_EQ(safeStringValue(doc, "o"), std::nullopt);
  EXPECT_EQ(safeStringValue(doc, "a"), std::nullopt);
  EXPECT_EQ(safeStringValue(nlohmann::json::array(), "i"), std::nullopt);
}

TEST(Strings, DigestsMatchPublishedVectors) {
  EXPECT_EQ(MD5Hash(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(MD5Hash("The quick brown fox jumps over the lazy dog"), "9e107d9d372bb6826bd81d3542a419d6");
  // RFC 2202 test case 2.
  EXPECT_EQ(hexEncode(hmacSHA1("Jefe", "what do ya want for nothing?")), "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79");
}

TEST(Strings, Base64FollowsRfc4648BothWays) {
  const std::pair<std::string, std::string> vectors[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"}, {"user:pässword", "dXNlcjpww6Rzc3dvcmQ="}};
  for (const auto& [plain, encoded] : vectors) {
    EXPECT_EQ(base64Encode(plain), encoded) << plain;
    EXPECT_EQ(base64Decode(encoded), plain) << encoded;
  }
  EXPECT_EQ(base64Decode("Zm9v\nYg"), "foob");  // line breaks and missing padding are fine
  EXPECT_EQ(base64Decode("Zm9v!"), std::nullopt);
  EXPECT_EQ(base64Decode("Z"), std::nullopt);
}

TEST(Strings, UuidsAreVersion4UpperCaseAndDistinct) {
  std::set<std::string> seen;
  for (int i = 0; i < 200; ++i) {
    const auto uuid = UUIDString();
    ASSERT_EQ(uuid.size(), 36u);
    EXPECT_EQ(uuid[14], '4');
    EXPECT_EQ(uuid.find_first_of("abcdef"), std::string::npos);
    seen.insert(uuid);
  }
  EXPECT_EQ(seen.size(), 200u);
}

TEST(Strings, PercentEscapeHonoursTheCallersSets) {
  // Values of a query string: the reserved set escaped.
  EXPECT_EQ(percentEscape("a b&c=d/é", ":/?&=;+!@#$()',*"), "a%20b%26c%3Dd%2F%C3%A9");
  // Keys keep brackets so nested keys stay readable.
  EXPECT_EQ(percentEscape("tags[]", ":/?&=;+!@#$()',*", "[]."), "tags[]");
  EXPECT_EQ(percentEscape("tags[]", ":/?&=;+!@#$()',*"), "tags%5B%5D");
  EXPECT_EQ(percentEscape("~-._"), "~-._");
  EXPECT_EQ(percentUnescape("a%20b%2Fc%zz%4"), "a b/c%zz%4");
  EXPECT_EQ(percentUnescape(percentEscape("x y+z€", "+")), "x y+z€");
}

TEST(Strings, Utf8ValidationAndRepair) {
  EXPECT_TRUE(isValidUTF8("plain é 😀"));
  EXPECT_FALSE(isValidUTF8("\xC0\xAF"));          // overlong slash
  EXPECT_FALSE(isValidUTF8("\xED\xA0\x80"));      // surrogate
  EXPECT_FALSE(isValidUTF8("\xE2\x82"));          // truncated
  EXPECT_EQ(sanitizeUTF8("a\xFF" "b"), "a\xEF\xBF\xBD" "b");
  EXPECT_EQ(latin1ToUTF8("caf\xE9"), "café");
}

TEST(Strings, SplitJoinTrimReplace) {
  EXPECT_EQ(split("a,,b", ","), (std::vector<std::string>{"a", "", "b"}));
  EXPECT_EQ(join({"Parent", "Child"}, " - "), "Parent - Child");
  EXPECT_EQ(trim(" \n\t x y \r\n"), "x y");
  EXPECT_EQ(replaceAll("/img/a.png and /img/a.png", "/img/a.png", "http://h/img/a.png"),
            "http://h/img/a.png and http://h/img/a.png");
  EXPECT_TRUE(equalsIgnoringASCIICase("Content-Type", "content-type"));
}

}  // namespace
}  // namespace lectern
