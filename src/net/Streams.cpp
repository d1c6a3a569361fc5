#include "net/Streams.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "net/URLError.h"

namespace lectern {

Result<void> MemoryOutputStream::write(std::string_view bytes) {
  std::lock_guard lock(mutex_);
  data_.append(bytes);
  return {};
}

void MemoryOutputStream::expectLength(std::uint64_t length) {
  // A server's announced length is not trusted with more than this before the bytes arrive.
  constexpr std::uint64_t kMostReserved = 16 * 1024 * 1024;
  std::lock_guard lock(mutex_);
  if (length > data_.size()) data_.reserve(static_cast<size_t>(std::min(length, kMostReserved)));
}

Result<void> MemoryOutputStream::truncate() {
  std::lock_guard lock(mutex_);
  data_.clear();
  return {};
}

std::string MemoryOutputStream::data() const {
  std::lock_guard lock(mutex_);
  return data_;
}

FileOutputStream::~FileOutputStream() {
  if (file_ != nullptr) std::fclose(file_);
}

Result<void> FileOutputStream::openLocked(const char* mode) {
  if (file_ != nullptr) return {};
  file_ = std::fopen(path_.c_str(), mode);
  if (file_ == nullptr) {
    return fail(makeURLError(URLErrorCode::kCannotCreateFile, "file://" + path_.string(),
                             "Cannot create the file " + path_.string(), std::strerror(errno)));
  }
  opened_ = true;
  return {};
}

Result<void> FileOutputStream::write(std::string_view bytes) {
  std::lock_guard lock(mutex_);
  if (auto opened = openLocked(opened_ ? "ab" : "wb"); !opened) return opened;
  if (std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size()) {
    return fail(makeURLError(URLErrorCode::kCannotWriteToFile, "file://" + path_.string(),
                             "Cannot write to the file " + path_.string(), std::strerror(errno)));
  }
  return {};
}

Result<void> FileOutputStream::truncate() {
  std::lock_guard lock(mutex_);
  if (file_ != nullptr) {
    std::fclose(file_);
    file_ = nullptr;
  }
  opened_ = false;
  return openLocked("wb");
}

Result<void> FileOutputStream::close() {
  std::lock_guard lock(mutex_);
  if (file_ == nullptr) return {};
  const bool ok = std::fclose(file_) == 0;
  file_ = nullptr;
  if (!ok) {
    return fail(makeURLError(URLErrorCode::kCannotWriteToFile, "file://" + path_.string(),
                             "Cannot write to the file " + path_.string(), std::strerror(errno)));
  }
  return {};
}

Result<size_t> StringInputStream::read(char* buffer, size_t length) {
  const size_t n = std::min(length, data_.size() - offset_);
  std::memcpy(buffer, data_.data() + offset_, n);
  offset_ += n;
  return n;
}

}  // namespace lectern
