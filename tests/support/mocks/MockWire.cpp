// Helpers every mock server shares: instants as services write them, query strings, text, and
// answers.
#include "mocks/MockWire.h"

#include <fmt/format.h>
#include <httplib.h>
#include <openssl/evp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <stdexcept>

namespace lectern::mock {

// ---- time ----

namespace {

std::optional<int> fixedDigits(std::string_view text, size_t& pos, size_t count) {
  if (pos + count > text.size()) return std::nullopt;
  int value = 0;
  for (size_t i = 0; i < count; ++i) {
    char c = text[pos + i];
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  pos += count;
  return value;
}

bool eat(std::string_view text, size_t& pos, char c) {
  if (pos >= text.size() || text[pos] != c) return false;
  ++pos;
  return true;
}

}  // namespace

// YYYY-MM-DD[THH:MM[:SS[.fraction]]][Z|±HH[:]MM]. A space stands for '+' in the offset because an
// unescaped '+' in a query string arrives as one.
std::optional<Instant> parseInstant(std::string_view text) {
  size_t pos = 0;
  auto year = fixedDigits(text, pos, 4);
  if (!year || !eat(text, pos, '-')) return std::nullopt;
  auto month = fixedDigits(text, pos, 2);
  if (!month || !eat(text, pos, '-')) return std::nullopt;
  auto day = fixedDigits(text, pos, 2);
  if (!day) return std::nullopt;
  std::chrono::year_month_day date{std::chrono::year{*year},
                                   std::chrono::month(static_cast<unsigned>(*month)),
                                   std::chrono::day(static_cast<unsigned>(*day))};
  if (!date.ok()) return std::nullopt;
  std::int64_t seconds = std::chrono::sys_days{date}.time_since_epoch().count() * std::int64_t{86'400};
  std::int32_t nanos = 0;
  if (pos < text.size() && (text[pos] == 'T' || text[pos] == 't' || text[pos] == ' ')) {
    ++pos;
    auto hour = fixedDigits(text, pos, 2);
    if (!hour || *hour > 23 || !eat(text, pos, ':')) return std::nullopt;
    auto minute = fixedDigits(text, pos, 2);
    if (!minute || *minute > 59) return std::nullopt;
    int second = 0;
    if (eat(text, pos, ':')) {
      auto parsed = fixedDigits(text, pos, 2);
      if (!parsed || *parsed > 59) return std::nullopt;
      second = *parsed;
      if (eat(text, pos, '.') || eat(text, pos, ',')) {
        size_t digits = 0;
        for (; pos < text.size() && text[pos] >= '0' && text[pos] <= '9'; ++pos, ++digits) {
          if (digits < 9) nanos = nanos * 10 + (text[pos] - '0');  // finer than nanoseconds: dropped
        }
        if (digits == 0) return std::nullopt;
        for (; digits < 9; ++digits) nanos *= 10;
      }
    }
    seconds += *hour * 3600 + *minute * 60 + second;
    if (pos < text.size() && (text[pos] == 'Z' || text[pos] == 'z')) {
      ++pos;
    } else if (pos < text.size() && (text[pos] == '+' || text[pos] == '-' || text[pos] == ' ')) {
      int sign = text[pos++] == '-' ? -1 : 1;
      auto offsetHours = fixedDigits(text, pos, 2);
      if (!offsetHours) return std::nullopt;
      int offsetMinutes = 0;
      if (pos < text.size()) {
        eat(text, pos, ':');
        auto parsed = fixedDigits(text, pos, 2);
        if (!parsed) return std::nullopt;
        offsetMinutes = *parsed;
      }
      seconds -= sign * (*offsetHours * 3600 + offsetMinutes * 60);
    }
  }
  if (pos != text.size()) return std::nullopt;
  return Instant{seconds, nanos};
}

// The server's own format: UTC with six fractional digits.
std::string formatInstant(Instant instant) {
  using namespace std::chrono;
  sys_seconds time{seconds{instant.seconds}};
  auto dayStart = floor<days>(time);
  year_month_day date{dayStart};
  hh_mm_ss clock{time - dayStart};
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                     clock.hours().count(), clock.minutes().count(), clock.seconds().count(),
                     instant.nanos / 1000);
}

// Whole microseconds, so that a stored instant equals the text written for it.
Instant nowInstant() {
  auto micros = std::chrono::duration_cast<std::chrono::microseconds>(
                    std::chrono::system_clock::now().time_since_epoch())
                    .count();
  return {micros / 1'000'000, static_cast<std::int32_t>(micros % 1'000'000) * 1000};
}

// ---- text ----

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
  });
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

std::optional<std::int64_t> parseInteger(std::string_view text) {
  text = trimmed(text);
  std::int64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return value;
}

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string percentDecoded(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+') {
      decoded += ' ';
    } else if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 &&
               hexValue(text[i + 2]) >= 0) {
      decoded += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      decoded += text[i];
    }
  }
  return decoded;
}

// Parsed here rather than taken from httplib, which drops repeated identical pairs and mixes in
// form bodies.
Query parseQuery(std::string_view rawQuery) {
  Query query;
  forEachQueryPart(rawQuery, [&](std::string_view, std::string key, std::string value) {
    query.emplace(std::move(key), std::move(value));
  });
  return query;
}

std::optional<std::string> base64Decoded(std::string_view text) {
  auto sextet = [](char c) -> int {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
  };
  while (!text.empty() && text.back() == '=') text.remove_suffix(1);
  std::string decoded;
  std::uint32_t buffer = 0;
  int bits = 0;
  for (char c : text) {
    int value = sextet(c);
    if (value < 0) return std::nullopt;
    buffer = (buffer << 6) | static_cast<std::uint32_t>(value);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      decoded += static_cast<char>((buffer >> bits) & 0xFF);
    }
  }
  return decoded;
}

// Scheme, letter case of the host and a trailing slash do not make another feed.
std::string urlKey(std::string_view url) {
  url = trimmed(url);
  for (std::string_view scheme : {"http://", "https://"}) {
    if (url.size() >= scheme.size() && equalsIgnoringCase(url.substr(0, scheme.size()), scheme)) {
      url.remove_prefix(scheme.size());
      break;
    }
  }
  while (!url.empty() && url.back() == '/') url.remove_suffix(1);
  std::string key(url);
  auto hostEnd = std::min(key.find('/'), key.size());
  std::transform(key.begin(), key.begin() + static_cast<std::ptrdiff_t>(hostEnd), key.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return key;
}

// ---- answers ----

std::string jsonText(const Json& value) { return value.dump(-1, ' ', false, Json::error_handler_t::replace); }

Answer jsonAnswer(int status, const Json& value) {
  return {status, jsonText(value), std::string(kJsonType), {}};
}

std::string md5Hex(std::string_view text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr);
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) hex += fmt::format("{:02x}", digest[i]);
  return hex;
}

int listenOnLoopback(httplib::Server& server, int port, std::thread& thread) {
  server.set_tcp_nodelay(true);  // otherwise delayed ACKs add 40 ms to each answer
  server.set_keep_alive_max_count(1000);
  // Stopping the server waits for idle client connections: short, so that a test's mock stops at once.
  server.set_keep_alive_timeout(1);
  // Without SO_REUSEPORT (httplib's default adds it), a second mock on a taken port fails instead
  // of sharing it and stealing half its connections.
  server.set_socket_options([](int socket) {
    int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
  });
  const int bound =
      port == 0 ? server.bind_to_any_port("127.0.0.1") : (server.bind_to_port("127.0.0.1", port) ? port : -1);
  if (bound <= 0) throw std::runtime_error(fmt::format("Could not listen on 127.0.0.1:{}", port));
  thread = std::thread([&server] { server.listen_after_bind(); });
  while (!server.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return bound;
}

}  // namespace lectern::mock
