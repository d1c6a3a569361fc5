#include "net/AFMultipartBodyStream.h"

#include <algorithm>

namespace lectern {

void AFMultipartBodyStream::appendHTTPBodyPart(AFHTTPBodyPart part) { parts_.push_back(std::move(part)); }

void AFMultipartBodyStream::setInitialAndFinalBoundaries() {
  for (size_t i = 0; i < parts_.size(); ++i) {
    parts_[i].setHasInitialBoundary(i == 0);
    parts_[i].setHasFinalBoundary(i + 1 == parts_.size());
  }
}

std::uint64_t AFMultipartBodyStream::contentLength() const {
  std::uint64_t total = 0;
  for (const auto& part : parts_) total += part.contentLength();
  return total;
}

Result<size_t> AFMultipartBodyStream::read(char* buffer, size_t length) {
  if (packetSize_ > 0) length = std::min(length, packetSize_);
  size_t filled = 0;
  while (filled < length && current_ < parts_.size()) {
    auto n = parts_[current_].read(buffer + filled, length - filled);
    if (!n) return n;
    if (*n == 0) {
      ++current_;
      continue;
    }
    filled += *n;
  }
  return filled;
}

bool AFMultipartBodyStream::rewind() {
  current_ = 0;
  return std::all_of(parts_.begin(), parts_.end(), [](AFHTTPBodyPart& part) { return part.rewind(); });
}

}  // namespace lectern
