#pragma once
// Equal-width histogram over [0, 1] that answers percentile questions from its bins alone.

#include <cstdint>
#include <memory>
#include <optional>

namespace quorvik::skeleton {

class PercentileHistogram {
 public:
  explicit PercentileHistogram(uint64_t bins);
  PercentileHistogram(PercentileHistogram&&) noexcept = default;
  PercentileHistogram& operator=(PercentileHistogram&&) noexcept = default;
  PercentileHistogram(const PercentileHistogram& other);
  PercentileHistogram& operator=(const PercentileHistogram& other);

  void reset();
  // Values outside [0, 1] count in the first or last bin.
  void add(float value) {
    ++total_;
    ++bins_[bin_of(value)];
  }

  float value_for_percentile(float percentile) const;
  float upper_fence() const;
  float lower_fence() const;
  float highest_within_upper_fence() const;
  float lowest_within_lower_fence() const;
  // Extent of the values between Tukey's fences; empty while nothing was added.
  std::optional<float> robust_spread() const;

  uint32_t total() const { return total_; }
  uint32_t bin(uint64_t i) const { return bins_[i]; }
  uint64_t bin_count() const { return binCount_; }

 private:
  uint64_t bin_of(float value) const {
    // A NaN fails both comparisons and counts in the first bin.
    const float clamped = value >= 0.f ? (value < 1.f ? value : 1.f) : 0.f;
    const auto i = static_cast<uint64_t>(clamped * static_cast<float>(binCount_));
    return i < binCount_ ? i : binCount_ - 1;
  }

  uint64_t binCount_;
  std::unique_ptr<uint32_t[]> bins_;
  uint64_t size_;
  uint32_t total_ = 0;
  float lowerPercentile_ = 0.25f;
  float upperPercentile_ = 0.75f;
  float fenceFactor_ = 1.5f;
};

}  // namespace quorvik::skeleton
