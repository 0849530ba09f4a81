#pragma once
// Shared by the classifier benchmarks: the kernel build of a run, by argument (0 baseline,
// 1 SSE2, 2 SSE4.1, 3 AVX, 4 AVX2, 5 FMA forced through the test-only override, 6 the
// dispatcher's choice), and a user's step-2 grid for a single tree walk.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "classifier/arch/dispatch.h"
#include "classifier/classify_params.h"
#include "classifier/user_statistics.h"
#include "op/image.h"

namespace quorvik::skeleton {

// The build of an argument below 6, or null when this processor cannot run it.
inline const ArchVariant* kernel_build(int64_t index) {
  static const char* const names[] = {"arch_null", "arch_sse2", "arch_sse4p1", "arch_avx", "arch_avx2", "arch_fma3"};
  static const std::vector<ArchVariant> variants = arch_variants();
  const uint32_t features = detect_cpu_features();
  for (const ArchVariant& v : variants) {
    if (std::string(v.name) == names[index]) return (v.required & ~features) == 0 ? &v : nullptr;
  }
  return nullptr;
}

// Null when the build was left to the dispatcher; sets the run's label and, for a build this
// processor cannot run, skips the run (check state.error_occurred()).
inline std::unique_ptr<ScopedKernelOverride> force_kernel_build(benchmark::State& state, int64_t index) {
  if (index >= 6) {
    state.SetLabel(std::string("dispatch:") + active_arch_name());
    return nullptr;
  }
  const ArchVariant* build = kernel_build(index);
  if (build == nullptr) {
    state.SkipWithError("build not supported by this processor");
    return nullptr;
  }
  state.SetLabel(build->name);
  return std::make_unique<ScopedKernelOverride>(build->entry);
}

// The step-2 grid of one user as a tree walk reads it: target and context flags on the
// user's pixels, both boxes around them, and their mean depth.
struct UserLevel {
  op::Image<uint8_t> flags{160, 120};
  int32_t box[4] = {160, 120, -1, -1};
  UserStatistics statistics{};
  ClassifyParams params;
  uint32_t grid_pixels = 0;  // target pixels on the grid

  // `own(x, y)`: whether the pixel belongs to the user.
  template <typename Own>
  UserLevel(const op::Image<uint16_t>& depth, const UserStatistics& stats, Own&& own) : statistics(stats) {
    float sum = 0.f;
    uint32_t count = 0;
    for (uint32_t y = 0; y < flags.height(); ++y) {
      for (uint32_t x = 0; x < flags.width(); ++x) {
        const bool user = own(x, y);
        flags.at(x, y) = user ? 3 : 0;
        if (!user) continue;
        box[0] = std::min<int32_t>(box[0], x);
        box[1] = std::min<int32_t>(box[1], y);
        box[2] = std::max<int32_t>(box[2], x);
        box[3] = std::max<int32_t>(box[3], y);
        sum += depth.at(x, y);
        ++count;
      }
    }
    for (int32_t y = box[1]; y <= box[3]; y += 2)
      for (int32_t x = box[0]; x <= box[2]; x += 2) grid_pixels += flags.at(x, y) & 1;
    params.statistics = &statistics;
    params.working_flags = &flags;
    params.target_box = box;
    params.context_box = box;
    params.level = 1;
    params.mean_depth = sum / static_cast<float>(count);
  }
  UserLevel(const UserLevel&) = delete;
  UserLevel& operator=(const UserLevel&) = delete;
};

}  // namespace quorvik::skeleton
