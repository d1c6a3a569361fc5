#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "net/AFHTTPBodyPart.h"
#include "net/Streams.h"

namespace lectern {

// A multipart body read part by part, so files are streamed from disk and never held whole.
// Built on one thread, then read by the network thread only.
class AFMultipartBodyStream final : public InputStream {
 public:
  AFMultipartBodyStream() = default;

  void appendHTTPBodyPart(AFHTTPBodyPart part);
  bool isEmpty() const { return parts_.empty(); }
  // Marks the first part as carrying the opening boundary and the last the closing one.
  void setInitialAndFinalBoundaries();
  // Reads at most this many bytes at a time (0: the caller's buffer length).
  void setNumberOfBytesInPacket(size_t bytes) { packetSize_ = bytes; }

  Result<size_t> read(char* buffer, size_t length) override;
  bool rewind() override;
  std::optional<std::uint64_t> length() const override { return contentLength(); }
  std::uint64_t contentLength() const;

 private:
  std::vector<AFHTTPBodyPart> parts_;
  size_t current_ = 0;
  size_t packetSize_ = 0;
};

}  // namespace lectern
