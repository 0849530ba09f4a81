// Tree kernel build: arch_avx (flags in flags.cmake).
#define QBT_KERNEL_NAMESPACE arch_avx
#define QBT_KERNEL_BATCH 4
#define QBT_KERNEL_VECTOR 128
#include "classifier/arch/tree_kernel.inc"

namespace quorvik::skeleton {
namespace {
constexpr ArchVariant k_arch_avx{0x3E, &arch_avx::evaluate_tree, "arch_avx"};
constexpr ArchVariant k_arch_avx_fma3{0xBE, &arch_avx::evaluate_tree, "arch_avx_fma3"};
}  // namespace

const ArchVariant* describe_arch_avx() { return &k_arch_avx; }
const ArchVariant* describe_arch_avx_fma3() { return &k_arch_avx_fma3; }

}  // namespace quorvik::skeleton
