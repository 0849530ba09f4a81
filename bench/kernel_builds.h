#pragma once
// Kernel build of a benchmark run, by argument: 0 baseline, 1 SSE2, 2 SSE4.1, 3 AVX, 4 AVX2,
// 5 FMA are forced through the test-only override, 6 leaves the dispatcher's choice.

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "classifier/arch/dispatch.h"

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

}  // namespace quorvik::skeleton
