#pragma once
// The engine's own containers. Images are allocated on demand, may be views over foreign
// memory (the host's depth map is never copied just to be read), and keep their buffer when
// they shrink, so a running engine stops allocating once its images have reached full size.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>

namespace quorvik::legacy {

template <typename T>
class Array {
 public:
  Array() = default;
  explicit Array(int32_t size, bool aligned = false) : aligned_(aligned) { resize(size); }
  virtual ~Array() { release(); }

  Array(const Array&) = delete;
  Array& operator=(const Array&) = delete;

  // Grows the buffer when needed; the contents are not kept when it grows.
  void resize(int32_t size) {
    size = std::max(size, 0);
    if (size > capacity_ || (!owns_ && data_ == nullptr)) reallocate(size);
    size_ = size;
  }

  // Wraps foreign memory without taking ownership.
  void view(T* data, int32_t size) {
    release();
    data_ = data;
    capacity_ = size_ = std::max(size, 0);
    owns_ = false;
  }

  // Only before the first allocation.
  void set_aligned(bool aligned) {
    if (data_ == nullptr) aligned_ = aligned;
  }

  void fill(const T& value) { std::fill(data_, data_ + size_, value); }
  void clear() { fill(T{}); }

  T* data() { return data_; }
  const T* data() const { return data_; }
  int32_t size() const { return size_; }
  int32_t capacity() const { return capacity_; }
  bool owns_data() const { return owns_; }
  bool aligned() const { return aligned_; }
  T& operator[](int32_t i) { return data_[i]; }
  const T& operator[](int32_t i) const { return data_[i]; }

 protected:
  void reallocate(int32_t size) {
    release();
    if (size > 0) {
      data_ = aligned_ ? static_cast<T*>(::operator new[](sizeof(T) * size_t(size), std::align_val_t{16}))
                       : new T[size_t(size)];
      std::memset(static_cast<void*>(data_), 0, sizeof(T) * size_t(size));
    }
    capacity_ = size;
    owns_ = size > 0;
  }

  void release() {
    if (owns_ && data_ != nullptr) {
      if (aligned_) {
        ::operator delete[](static_cast<void*>(data_), std::align_val_t{16});
      } else {
        delete[] data_;
      }
    }
    data_ = nullptr;
    capacity_ = size_ = 0;
    owns_ = false;
  }

  T* data_ = nullptr;
  int32_t capacity_ = 0;
  int32_t size_ = 0;
  bool owns_ = false;
  bool aligned_ = false;
};

template <typename T>
class Array2D : public Array<T> {
 public:
  Array2D() = default;
  Array2D(int32_t width, int32_t height, bool aligned = false) {
    this->aligned_ = aligned;
    resize(width, height);
  }

  Array2D(const Array2D& other) : Array<T>() {
    this->aligned_ = other.aligned_;
    *this = other;
  }
  // Takes the source's shape; a target too small for it gets a fresh buffer of its own.
  Array2D& operator=(const Array2D& other) {
    if (this == &other) return *this;
    width_ = other.width_;
    height_ = other.height_;
    if (this->capacity_ < other.size_) this->reallocate(other.size_);
    this->size_ = other.size_;
    if (other.size_ > 0) std::memcpy(this->data_, other.data_, sizeof(T) * size_t(other.size_));
    return *this;
  }

  void resize(int32_t width, int32_t height) {
    width_ = std::max(width, 0);
    height_ = std::max(height, 0);
    Array<T>::resize(width_ * height_);
  }

  void view(T* data, int32_t width, int32_t height) {
    width_ = std::max(width, 0);
    height_ = std::max(height, 0);
    Array<T>::view(data, width_ * height_);
  }

  int32_t width() const { return width_; }
  int32_t height() const { return height_; }
  bool same_shape(const Array2D& o) const { return width_ == o.width_ && height_ == o.height_; }
  T* row(int32_t y) { return this->data_ + size_t(y) * size_t(width_); }
  const T* row(int32_t y) const { return this->data_ + size_t(y) * size_t(width_); }
  T& at(int32_t x, int32_t y) { return row(y)[x]; }
  const T& at(int32_t x, int32_t y) const { return row(y)[x]; }

 private:
  int32_t height_ = 0;
  int32_t width_ = 0;
};

// N images of one size holding the latest frames: the current one at `index`, the one
// before at index + 1 (mod N), and so on.
template <typename T, int N>
class ImageRing {
  static_assert(N >= 2);

 public:
  ImageRing() {
    for (auto& image : images_) image.set_aligned(true);
  }

  void advance() {
    index_ = index_ == 0 ? N - 1 : index_ - 1;
    if (count_ < N) ++count_;
  }
  void reset() { count_ = index_ = 0; }

  Array2D<T>& current() {
    if (count_ == 0) count_ = 1;
    return images_[index_];
  }
  // ago = 0 is the current frame, 1 the one before, ...
  Array2D<T>& back(int ago) { return images_[(index_ + uint64_t(ago)) % N]; }
  const Array2D<T>& back(int ago) const { return images_[(index_ + uint64_t(ago)) % N]; }

  uint64_t count() const { return count_; }
  uint64_t index() const { return index_; }

 private:
  uint64_t count_ = 0;
  uint64_t index_ = 0;
  Array2D<T> images_[N];
};

// A fixed ring of scalar history values, newest first.
template <typename T, int N>
class ValueRing {
 public:
  void push(T value) {
    index_ = index_ == 0 ? N - 1 : index_ - 1;
    if (count_ < N) ++count_;
    values_[index_] = value;
  }
  T& newest() { return values_[index_]; }
  T operator[](int ago) const { return values_[(index_ + ago) % N]; }
  int count() const { return count_; }
  void reset() {
    count_ = index_ = 0;
    std::fill(std::begin(values_), std::end(values_), T{});
  }

 private:
  T values_[N] = {};
  int count_ = 0;
  int index_ = 0;
};

template <typename T>
class Geometry3D {
 public:
  virtual ~Geometry3D() = 0;
};
template <typename T>
inline Geometry3D<T>::~Geometry3D() = default;

template <typename T>
class Box3D : public Geometry3D<T> {
 public:
  void reset() {
    minX = minY = minZ = std::numeric_limits<T>::max();
    maxX = maxY = maxZ = std::numeric_limits<T>::lowest();
  }
  bool empty() const { return minX > maxX || minY > maxY || minZ > maxZ; }
  void add(T x, T y, T z) {
    minX = std::min(minX, x), maxX = std::max(maxX, x);
    minY = std::min(minY, y), maxY = std::max(maxY, y);
    minZ = std::min(minZ, z), maxZ = std::max(maxZ, z);
  }
  void add(const Box3D& o) {
    if (o.empty()) return;
    add(o.minX, o.minY, o.minZ);
    add(o.maxX, o.maxY, o.maxZ);
  }
  bool contains_pixel(T x, T y) const { return x >= minX && x <= maxX && y >= minY && y <= maxY; }

  T minX = std::numeric_limits<T>::max();
  T minY = std::numeric_limits<T>::max();
  T minZ = std::numeric_limits<T>::max();
  T maxX = std::numeric_limits<T>::lowest();
  T maxY = std::numeric_limits<T>::lowest();
  T maxZ = std::numeric_limits<T>::lowest();
};

extern template class Array<uint8_t>;
extern template class Array<int16_t>;
extern template class Array<uint16_t>;
extern template class Array<int32_t>;
extern template class Array<uint32_t>;
extern template class Array<bool>;
extern template class Array2D<uint8_t>;
extern template class Array2D<int16_t>;
extern template class Array2D<uint16_t>;
extern template class Array2D<int32_t>;
extern template class Array2D<uint32_t>;
extern template class Array2D<bool>;

}  // namespace quorvik::legacy
