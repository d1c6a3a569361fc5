#pragma once

#include <algorithm>
#include <compare>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace httplib {
class Server;
}  // namespace httplib

namespace lectern::mock {

// Ordered so that answers read in the documented field order when a person curls a mock.
using Json = nlohmann::ordered_json;
using Query = std::multimap<std::string, std::string>;

inline constexpr std::string_view kJsonType = "application/json; charset=utf-8";

// A point in time as the services write it, to the nanosecond.
struct Instant {
  std::int64_t seconds = 0;
  std::int32_t nanos = 0;
  auto operator<=>(const Instant&) const = default;
};
// YYYY-MM-DD[THH:MM[:SS[.fraction]]][Z|±HH[:]MM]; a space stands for an unescaped '+'.
std::optional<Instant> parseInstant(std::string_view text);
// UTC with six fractional digits.
std::string formatInstant(Instant instant);
// Now, in whole microseconds, so that a stored instant equals the text written for it.
Instant nowInstant();

bool equalsIgnoringCase(std::string_view a, std::string_view b);
std::string_view trimmed(std::string_view text);
std::optional<std::int64_t> parseInteger(std::string_view text);
std::string percentDecoded(std::string_view text);
// Calls visit(part, key, value) for every "&"-separated part of a raw query, decoded.
template <typename Visit>
void forEachQueryPart(std::string_view rawQuery, Visit visit) {
  while (!rawQuery.empty()) {
    auto part = rawQuery.substr(0, rawQuery.find('&'));
    rawQuery.remove_prefix(std::min(rawQuery.size(), part.size() + 1));
    if (part.empty()) continue;
    auto equals = part.find('=');
    visit(part, percentDecoded(part.substr(0, equals)),
          equals == std::string_view::npos ? std::string() : percentDecoded(part.substr(equals + 1)));
  }
}

// Every pair of a raw query string, decoded, repeats kept, in order.
Query parseQuery(std::string_view rawQuery);
std::optional<std::string> base64Decoded(std::string_view text);
// The MD5 of the bytes as 32 lowercase hexadecimal digits.
std::string md5Hex(std::string_view text);
// Scheme, letter case of the host and a trailing slash do not make another address.
std::string urlKey(std::string_view url);

// One request as the mock received it, for tests that assert what reached the server.
struct RecordedRequest {
  std::string method;
  std::string path;                               // "/v2/entries.json", "/fever/"
  std::multimap<std::string, std::string> query;  // decoded query parameters, in order
  std::string body;
  std::string contentType;
  std::string authorization;  // the Authorization header as sent
  std::string accept;
  int status = 0;  // what the mock answered
};

// A failure the mock plays instead of answering one chosen request.
enum class Fault {
  kServerError,     // 500 with a JSON error body
  kSlow,            // answers normally after a delay (Fault::delay)
  kWrongShape,      // 200 with a JSON object where a list is expected (and a list for an object)
  kNotJson,         // 200 with an HTML body labelled text/html
  kDropConnection,  // closes the connection without an answer
};

// What a mock answers to one request.
struct Answer {
  int status = 200;
  std::string body;
  std::string contentType;
  std::vector<std::pair<std::string, std::string>> headers;
};
std::string jsonText(const Json& value);
Answer jsonAnswer(int status, const Json& value);

// Listens on 127.0.0.1 at `port` (one the system picks when 0) as every mock does, and serves on
// `thread` until the server stops: the port. Throws when the port is taken.
int listenOnLoopback(httplib::Server& server, int port, std::thread& thread);

}  // namespace lectern::mock
