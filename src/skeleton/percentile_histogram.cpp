#include "skeleton/percentile_histogram.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

namespace quorvik::skeleton {

PercentileHistogram::PercentileHistogram(uint64_t bins)
    : binCount_(bins), bins_(std::make_unique<uint32_t[]>(bins)), size_(bins) {}

PercentileHistogram::PercentileHistogram(const PercentileHistogram& other)
    : binCount_(other.binCount_),
      bins_(std::make_unique<uint32_t[]>(other.size_)),
      size_(other.size_),
      total_(other.total_),
      lowerPercentile_(other.lowerPercentile_),
      upperPercentile_(other.upperPercentile_),
      fenceFactor_(other.fenceFactor_) {
  std::copy_n(other.bins_.get(), size_, bins_.get());
}

PercentileHistogram& PercentileHistogram::operator=(const PercentileHistogram& other) {
  if (this != &other) *this = PercentileHistogram(other);
  return *this;
}

void PercentileHistogram::reset() {
  if (size_ != 0) std::memset(bins_.get(), 0, size_ * sizeof(uint32_t));
  total_ = 0;
}

float PercentileHistogram::value_for_percentile(float percentile) const {
  auto k = static_cast<int64_t>(std::round(static_cast<float>(total_) * percentile));
  if (k < 0) k = 0;
  if (k >= static_cast<int64_t>(total_)) k = static_cast<int64_t>(total_) - 1;
  int64_t passed = 0;
  const float n = static_cast<float>(binCount_);
  for (uint64_t i = 0; i < binCount_; ++i) {
    const int64_t b = bins_[i];
    if (passed + b >= k + 1) {
      const auto r = static_cast<float>(k - passed);
      const float lo = static_cast<float>(i) / n;
      const float hi = static_cast<float>(i + 1) / n;
      if (b > 1) {
        const auto bf = static_cast<float>(b);
        return (1.f / (2.f * bf) + r / bf) * (hi - lo) + lo;
      }
      return (lo + hi) / 2.f;
    }
    passed += b;
  }
  throw std::logic_error("PercentileHistogram::value_for_percentile couldn't find target value in range");
}

float PercentileHistogram::upper_fence() const {
  const float q1 = value_for_percentile(lowerPercentile_);
  const float q3 = value_for_percentile(upperPercentile_);
  return q3 + fenceFactor_ * (q3 - q1);
}

float PercentileHistogram::lower_fence() const {
  const float q1 = value_for_percentile(lowerPercentile_);
  const float q3 = value_for_percentile(upperPercentile_);
  return q1 - fenceFactor_ * (q3 - q1);
}

float PercentileHistogram::highest_within_upper_fence() const {
  const float fence = upper_fence();
  const float n = static_cast<float>(binCount_);
  for (int64_t j = static_cast<int64_t>(bin_of(fence)); j >= 0; --j) {
    const uint32_t b = bins_[j];
    if (b == 0) continue;
    const float lo = static_cast<float>(j) / n;
    const float hi = static_cast<float>(j + 1) / n;
    const auto bf = static_cast<float>(b);
    const float v = b > 1 ? (1.f / (2.f * bf) + (bf - 1.f) / bf) * (hi - lo) + lo : (lo + hi) / 2.f;
    return std::min(fence, v);
  }
  return 0.f;
}

float PercentileHistogram::lowest_within_lower_fence() const {
  const float fence = lower_fence();
  const float n = static_cast<float>(binCount_);
  for (uint64_t j = bin_of(fence); j < binCount_; ++j) {
    const uint32_t b = bins_[j];
    if (b == 0) continue;
    const float lo = static_cast<float>(j) / n;
    const float hi = static_cast<float>(j + 1) / n;
    const auto bf = static_cast<float>(b);
    const float v = b > 1 ? (1.f / (2.f * bf)) * (hi - lo) + lo : (lo + hi) / 2.f;
    return std::max(fence, v);
  }
  return 1.f;
}

std::optional<float> PercentileHistogram::robust_spread() const {
  if (total_ < 1) return std::nullopt;
  return highest_within_upper_fence() - lowest_within_lower_fence();
}

}  // namespace quorvik::skeleton
