// Tree kernel build: arch_sse2 (flags in flags.cmake).
#define QBT_KERNEL_NAMESPACE arch_sse2
#define QBT_KERNEL_BATCH 4
#define QBT_KERNEL_VECTOR 128
#include "classifier/arch/tree_kernel.inc"

namespace quorvik::skeleton {
namespace {
constexpr ArchVariant k_arch_sse2{0x02, &arch_sse2::evaluate_tree, "arch_sse2"};
constexpr ArchVariant k_arch_sse3{0x06, &arch_sse2::evaluate_tree, "arch_sse3"};
constexpr ArchVariant k_arch_ssse3{0x0E, &arch_sse2::evaluate_tree, "arch_ssse3"};
}  // namespace

const ArchVariant* describe_arch_sse2() { return &k_arch_sse2; }
const ArchVariant* describe_arch_sse3() { return &k_arch_sse3; }
const ArchVariant* describe_arch_ssse3() { return &k_arch_ssse3; }

}  // namespace quorvik::skeleton
