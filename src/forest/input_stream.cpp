#include "forest/input_stream.h"

#include <cstring>

namespace op {

int64_t IOSInputStream::read(char* buffer, int64_t count) {
  if (count <= 0) return 0;
  std::streambuf* buf = stream_.rdbuf();
  if (buf == nullptr) return 0;
  const std::streamsize got = buf->sgetn(buffer, static_cast<std::streamsize>(count));
  return got < 0 ? 0 : static_cast<int64_t>(got);
}

int64_t MemoryInputStream::read(char* buffer, int64_t count) {
  if (count <= 0) return 0;
  const size_t left = size_ - position_;
  const size_t n = static_cast<size_t>(count) < left ? static_cast<size_t>(count) : left;
  if (n != 0) std::memcpy(buffer, data_ + position_, n);
  position_ += n;
  return static_cast<int64_t>(n);
}

}  // namespace op
