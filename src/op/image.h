#pragma once
// Plain row-major image: the tracker-side container. It reallocates only when its size
// changes, so buffers handed out as views stay put from frame to frame.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace op {

template <typename T>
class Image {
 public:
  Image() = default;
  Image(uint32_t width, uint32_t height) { resize(width, height); }

  Image(Image&&) noexcept = default;
  Image& operator=(Image&&) noexcept = default;
  Image(const Image& other) { *this = other; }
  Image& operator=(const Image& other) {
    if (this != &other) {
      resize(other.width_, other.height_);
      if (size() != 0) std::memcpy(data_.get(), other.data_.get(), byte_size());
    }
    return *this;
  }

  // Contents are undefined after a size change. The new buffer is allocated before the
  // size changes: an allocation that throws leaves the image as it was, not a large size
  // over the old, smaller buffer.
  void resize(uint32_t width, uint32_t height) {
    if (width == width_ && height == height_ && data_) return;
    const size_t count = size_t{width} * height;
    data_ = count != 0 ? std::make_unique_for_overwrite<T[]>(count) : nullptr;
    width_ = width;
    height_ = height;
  }

  // A plain loop over data_[i] would reload the size on every element: a store through a
  // T* may change width_ (for 32-bit T), so the compiler can neither vectorise it nor call
  // memset.
  void fill(const T& value) { std::fill_n(data_.get(), size(), value); }

  uint32_t width() const { return width_; }
  uint32_t height() const { return height_; }
  size_t size() const { return size_t{width_} * height_; }
  size_t byte_size() const { return size() * sizeof(T); }
  bool empty() const { return size() == 0; }

  T* data() { return data_.get(); }
  const T* data() const { return data_.get(); }
  T& operator[](size_t i) { return data_[i]; }
  const T& operator[](size_t i) const { return data_[i]; }
  T& at(uint32_t x, uint32_t y) { return data_[size_t{y} * width_ + x]; }
  const T& at(uint32_t x, uint32_t y) const { return data_[size_t{y} * width_ + x]; }
  T* row(uint32_t y) { return data_.get() + size_t{y} * width_; }
  const T* row(uint32_t y) const { return data_.get() + size_t{y} * width_; }

 private:
  std::unique_ptr<T[]> data_;
  uint32_t width_ = 0;
  uint32_t height_ = 0;
};

// Nearest neighbour: target (x, y) takes source (trunc(x * sw / W), trunc(y * sh / H)), the
// ratios in single precision. Source rows are sw values long.
template <typename T>
void resample_nearest(const T* source, uint32_t sw, uint32_t sh, Image<T>& target, uint32_t width, uint32_t height) {
  target.resize(width, height);
  if (sw == width && sh == height) {
    if (target.size() != 0) std::memcpy(target.data(), source, target.byte_size());
    return;
  }
  // Enlarging by 2, 4 or 8 (the tracker's input sizes): each source value fills a k x k
  // block, so whole rows are written with fixed-length stores and then copied down.
  auto blocks = [&]<uint32_t k>() {
    if (width != sw * k || height != sh * k) return false;
    for (uint32_t y = 0; y < sh; ++y) {
      const T* src = source + size_t{y} * sw;
      T* dst = target.row(y * k);
      for (uint32_t x = 0; x < sw; ++x) std::fill_n(dst + size_t{x} * k, k, src[x]);
      for (uint32_t r = 1; r < k; ++r) std::memcpy(target.row(y * k + r), dst, size_t{width} * sizeof(T));
    }
    return true;
  };
  if (blocks.template operator()<2>() || blocks.template operator()<4>() || blocks.template operator()<8>()) return;
  const float sx = static_cast<float>(sw) / static_cast<float>(width);
  const float sy = static_cast<float>(sh) / static_cast<float>(height);
  // The source column of each target column is the same on every row: compute it once.
  thread_local std::vector<uint32_t> columns;
  columns.resize(width);
  for (uint32_t x = 0; x < width; ++x) columns[x] = static_cast<uint32_t>(static_cast<float>(x) * sx);
  uint32_t previousRow = UINT32_MAX;
  for (uint32_t y = 0; y < height; ++y) {
    const auto sourceRow = static_cast<uint32_t>(static_cast<float>(y) * sy);
    T* dst = target.row(y);
    if (sourceRow == previousRow) {
      std::memcpy(dst, target.row(y - 1), size_t{width} * sizeof(T));
      continue;
    }
    previousRow = sourceRow;
    const T* src = source + size_t{sourceRow} * sw;
    for (uint32_t x = 0; x < width; ++x) dst[x] = src[columns[x]];
  }
}

}  // namespace op
