// Tree kernel build: arch_fma3 (flags in flags.cmake).
#define QBT_KERNEL_NAMESPACE arch_fma3
#define QBT_KERNEL_BATCH 4
#define QBT_KERNEL_VECTOR 128
#include "classifier/arch/tree_kernel.inc"

namespace quorvik::skeleton {
namespace {
constexpr ArchVariant k_arch_fma3{0x86, &arch_fma3::evaluate_tree, "arch_fma3"};
}  // namespace

const ArchVariant* describe_arch_fma3() { return &k_arch_fma3; }

}  // namespace quorvik::skeleton
