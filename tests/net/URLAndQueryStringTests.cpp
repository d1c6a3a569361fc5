#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "net/AFQueryStringPair.h"
#include "net/URL.h"

namespace lectern {
namespace {

TEST(URLResolve, FollowsReferenceResolutionRules) {
  const auto base = URL::parse("https://api.example.com/v1/");
  ASSERT_TRUE(base);
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"bookmarks/list", "https://api.example.com/v1/bookmarks/list"},
      {"/v2/subscriptions.json", "https://api.example.com/v2/subscriptions.json"},
      {"../root", "https://api.example.com/root"},
      {"./a/./b/../c", "https://api.example.com/v1/a/c"},
      {"?page=2", "https://api.example.com/v1/?page=2"},
      {"", "https://api.example.com/v1/"},
      {"//other.example.org/x", "https://other.example.org/x"},
      {"http://feeds.example.org:8080/rss?x=1#top", "http://feeds.example.org:8080/rss?x=1#top"},
      {"entries.json?ids=1,2", "https://api.example.com/v1/entries.json?ids=1,2"},
  };
  for (auto [reference, want] : cases) {
    const auto resolved = base->resolve(reference);
    ASSERT_TRUE(resolved) << reference;
    EXPECT_EQ(resolved->string(), want) << reference;
  }
  // Without the trailing slash the last segment is replaced, which is why clients add one.
  EXPECT_EQ(URL::parse("https://h/v1")->resolve("list")->string(), "https://h/list");
  EXPECT_EQ(URL::parse("https://h")->resolve("list")->string(), "https://h/list");
}

TEST(URLParse, SplitsAuthorityAndRejectsWhatIsNoURL) {
  const auto url = URL::parse("https://user:pw@[::1]:8443/a/feed.JSON?q#f");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->host(), "::1");
  EXPECT_EQ(url->port(), 8443);
  EXPECT_EQ(url->userInfo(), "user:pw");
  EXPECT_EQ(url->pathExtension(), "JSON");
  EXPECT_EQ(url->string(), "https://user:pw@[::1]:8443/a/feed.JSON?q#f");
  EXPECT_EQ(URL::parse("http://h/a.b/c")->pathExtension(), "");
  EXPECT_FALSE(URL::parse("http://h:99999/"));
  EXPECT_FALSE(URL::parse("http://h:12ab/"));
  EXPECT_FALSE(URL::parse("http://h/a b"));
  EXPECT_FALSE(URL::parse("http://h/\n"));
  // Found by fuzzing: a colon inside a name made a URL that wrote out as another, unparsable one.
  EXPECT_FALSE(URL::parse("http://h:99999,ttp://h:99999,/"));
  EXPECT_FALSE(URL::parse("http://a:b:80/"));
  EXPECT_EQ(URL::parse("http://h:/x")->string(), "http://h/x");
}

TEST(QueryString, SortsKeysSuffixesListsAndNestsDictionaries) {
  const std::pair<nlohmann::json, std::string_view> cases[] = {
      {{{"b", 1}, {"a", {"x", "y"}}}, "a[]=x&a[]=y&b=1"},
      {{{"user", {{"name", "Jo"}, {"age", 7}}}}, "user[age]=7&user[name]=Jo"},
      {{{"B", "upper"}, {"a", "lower"}}, "B=upper&a=lower"},  // byte order: upper case first
      {{{"flag", true}, {"off", false}, {"pi", 1.5}}, "flag=1&off=0&pi=1.5"},
      {{{"empty", nullptr}, {"z", ""}}, "empty&z="},
      {{{"tags", nlohmann::json::array({"a b", "c&d"})}}, "tags[]=a%20b&tags[]=c%26d"},
      {{{"outer", {{"list", {1, 2}}}}}, "outer[list][]=1&outer[list][]=2"},
  };
  for (const auto& [parameters, want] : cases)
    EXPECT_EQ(queryStringFromParameters(parameters), want) << parameters;
}

TEST(QueryString, ValuesEscapeTheReservedSetWhileKeysKeepBracketsAndDots) {
  EXPECT_EQ(percentEscapedQueryStringValue(":/?&=;+!@#$()',*"),
            "%3A%2F%3F%26%3D%3B%2B%21%40%23%24%28%29%27%2C%2A");
  EXPECT_EQ(percentEscapedQueryStringValue("[a.b]~"), "%5Ba.b%5D~");
  EXPECT_EQ(percentEscapedQueryStringKey("tags[].x"), "tags[].x");
  EXPECT_EQ(percentEscapedQueryStringKey("a b=c"), "a%20b%3Dc");
  EXPECT_EQ(percentEscapedQueryStringValue("caf\xC3\xA9"), "caf%C3%A9");
  // The client's string encoding decides the bytes that get escaped.
  EXPECT_EQ(percentEscapedQueryStringValue("caf\xC3\xA9", "iso-8859-1"), "caf%E9");
}

}  // namespace
}  // namespace lectern
