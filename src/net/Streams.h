#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "core/Error.h"

namespace lectern {

// A body read in pieces (multipart uploads from disk). Read by the network thread only.
class InputStream {
 public:
  virtual ~InputStream() = default;
  // Up to `length` bytes into `buffer`; 0 at the end.
  virtual Result<size_t> read(char* buffer, size_t length) = 0;
  // Back to the first byte, for a request sent again (redirect, authentication, resume).
  virtual bool rewind() = 0;
  virtual std::optional<std::uint64_t> length() const = 0;
};

// Where a response body goes. Written by the network thread, read by whoever holds the operation
// after it finished.
class OutputStream {
 public:
  virtual ~OutputStream() = default;
  virtual Result<void> write(std::string_view bytes) = 0;
  // Drops what was written (a resumed download the server sends again from the start).
  virtual Result<void> truncate() = 0;
  // The transfer is over: flush what is buffered.
  virtual Result<void> close() { return {}; }
  // Bodies kept in memory are subject to the response size limit; files are not.
  virtual bool isInMemory() const { return false; }
  // The body's announced length (a hint: a compressed body decodes longer).
  virtual void expectLength(std::uint64_t) {}
};

// The default output stream. Thread-safe.
class MemoryOutputStream final : public OutputStream {
 public:
  Result<void> write(std::string_view bytes) override;
  Result<void> truncate() override;
  bool isInMemory() const override { return true; }
  // Room for the whole body at once, instead of growing (and copying) it as it arrives.
  void expectLength(std::uint64_t length) override;
  std::string data() const;

 private:
  mutable std::mutex mutex_;  // guards data_
  std::string data_;
};

// Writes to a file, created (or emptied) at the first write. Errors carry the download-file codes
// (-3000 cannot create, -3003 cannot write).
class FileOutputStream final : public OutputStream {
 public:
  explicit FileOutputStream(std::filesystem::path path) : path_(std::move(path)) {}
  ~FileOutputStream() override;
  Result<void> write(std::string_view bytes) override;
  Result<void> truncate() override;
  // Flushes and closes; later writes append.
  Result<void> close() override;
  const std::filesystem::path& path() const { return path_; }

 private:
  Result<void> openLocked(const char* mode);

  const std::filesystem::path path_;
  std::mutex mutex_;  // guards file_, opened_
  std::FILE* file_ = nullptr;
  bool opened_ = false;  // created once; reopened for appending after close()
};

// A byte string read as a stream.
class StringInputStream final : public InputStream {
 public:
  explicit StringInputStream(std::string data) : data_(std::move(data)) {}
  Result<size_t> read(char* buffer, size_t length) override;
  bool rewind() override {
    offset_ = 0;
    return true;
  }
  std::optional<std::uint64_t> length() const override { return data_.size(); }

 private:
  std::string data_;
  size_t offset_ = 0;
};

}  // namespace lectern
