// Tree kernel build: arch_null (flags in flags.cmake).
#define QBT_KERNEL_NAMESPACE arch_null
#define QBT_KERNEL_BATCH 4
#define QBT_KERNEL_VECTOR 0
#include "classifier/arch/tree_kernel.inc"
