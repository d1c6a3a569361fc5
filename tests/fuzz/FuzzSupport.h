#pragma once

// What the fuzz entry points share: carving one input into a few choices and texts, and a
// failure that libFuzzer and the replay program both report as a crash.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "core/Log.h"

namespace lectern::fuzz {

// Reads an input front to back: a byte for each choice, then the rest as text.
class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}

  // A number in [0, count): the next byte, or 0 once the input is used up.
  std::size_t choose(std::size_t count) {
    if (rest_.empty() || count == 0) return 0;
    const auto byte = static_cast<unsigned char>(rest_.front());
    rest_.remove_prefix(1);
    return byte % count;
  }
  // Everything left.
  std::string_view rest() const { return rest_; }
  // The rest cut at each "\n--\n": several texts from one input (answers of a server, say).
  std::vector<std::string_view> parts() const {
    std::vector<std::string_view> found;
    std::string_view text = rest_;
    constexpr std::string_view kSeparator = "\n--\n";
    for (auto at = text.find(kSeparator); at != std::string_view::npos; at = text.find(kSeparator)) {
      found.push_back(text.substr(0, at));
      text.remove_prefix(at + kSeparator.size());
    }
    found.push_back(text);
    return found;
  }

 private:
  std::string_view rest_;
};

// Debug lines cost time and say nothing here; errors still go where the log goes (nowhere).
inline void quietLog() {
  static const bool once = [] {
    Log::setDebugEnabled(false);
    return true;
  }();
  (void)once;
}

// A broken promise of the code under test: printed, then abort() so the fuzzer keeps the input.
[[noreturn]] inline void broken(const char* what, std::string_view detail = {}) {
  std::fprintf(stderr, "fuzz: %s: %.*s\n", what, static_cast<int>(detail.size()), detail.data());
  std::abort();
}

}  // namespace lectern::fuzz
