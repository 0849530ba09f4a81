// Tree kernel build: arch_sse4p1 (flags in flags.cmake).
#define QBT_KERNEL_NAMESPACE arch_sse4p1
#define QBT_KERNEL_BATCH 4
#define QBT_KERNEL_VECTOR 128
#include "classifier/arch/tree_kernel.inc"

namespace quorvik::skeleton {
namespace {
constexpr ArchVariant k_arch_sse4p1{0x1E, &arch_sse4p1::evaluate_tree, "arch_sse4p1"};
}  // namespace

const ArchVariant* describe_arch_sse4p1() { return &k_arch_sse4p1; }

}  // namespace quorvik::skeleton
