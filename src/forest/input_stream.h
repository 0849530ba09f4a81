#pragma once
// Byte sources for the forest data file reader.

#include <cstdint>
#include <istream>

namespace op {

class InputStream {
 public:
  // Copies up to `count` bytes into `buffer`; returns the number copied (fewer at the end
  // of the data).
  virtual int64_t read(char* buffer, int64_t count) = 0;
  virtual ~InputStream() = default;
};

// Reads straight from the stream's buffer object, so the stream's state flags are
// never touched.
class IOSInputStream : public InputStream {
 public:
  explicit IOSInputStream(std::istream& stream) : stream_(stream) {}
  int64_t read(char* buffer, int64_t count) override;

 private:
  std::istream& stream_;
};

// Reads from a block of memory the caller keeps alive.
class MemoryInputStream : public InputStream {
 public:
  MemoryInputStream(const void* data, size_t size)
      : data_(static_cast<const char*>(data)), size_(size) {}
  int64_t read(char* buffer, int64_t count) override;

 private:
  const char* data_;
  size_t size_;
  size_t position_ = 0;
};

}  // namespace op
