// Tree kernel build: arch_avx2 (flags in flags.cmake).
#define QBT_KERNEL_NAMESPACE arch_avx2
#define QBT_KERNEL_BATCH 8
#define QBT_KERNEL_VECTOR 256
#include "classifier/arch/tree_kernel.inc"

namespace quorvik::skeleton {
namespace {
constexpr ArchVariant k_arch_avx2{0x7E, &arch_avx2::evaluate_tree, "arch_avx2"};
}  // namespace

const ArchVariant* describe_arch_avx2() { return &k_arch_avx2; }

}  // namespace quorvik::skeleton
