# Instruction-set options of the tree kernel builds. Every build runs the same
# single-precision sequence: no build may fuse a multiplication with an addition, so
# contraction is off everywhere (the FMA build included).
set(QBT_KERNEL_DIR ${PROJECT_SOURCE_DIR}/src/classifier/arch)
set(QBT_NO_CONTRACT -ffp-contract=off)

set_source_files_properties(${PROJECT_SOURCE_DIR}/src/classifier/depth_features.cpp PROPERTIES
  COMPILE_OPTIONS "${QBT_NO_CONTRACT}")
# Baseline: the processor's base instructions, scalar code.
set_source_files_properties(${QBT_KERNEL_DIR}/kernel_null.cpp PROPERTIES
  COMPILE_OPTIONS "${QBT_NO_CONTRACT};-fno-tree-vectorize")

if(NOT CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64|i[3-6]86)$")
  # Elsewhere the other builds are plain copies of the baseline; the dispatcher never
  # picks them there.
  foreach(build sse2 sse4p1 avx avx2 fma3)
    set_source_files_properties(${QBT_KERNEL_DIR}/kernel_${build}.cpp PROPERTIES
      COMPILE_OPTIONS "${QBT_NO_CONTRACT}")
  endforeach()
  return()
endif()

set_source_files_properties(${QBT_KERNEL_DIR}/kernel_sse2.cpp PROPERTIES
  COMPILE_OPTIONS "${QBT_NO_CONTRACT};-msse2;-mno-sse3")
set_source_files_properties(${QBT_KERNEL_DIR}/kernel_sse4p1.cpp PROPERTIES
  COMPILE_OPTIONS "${QBT_NO_CONTRACT};-msse4.1;-mno-sse4.2;-mno-avx")
# VEX-encoded, 128-bit vectors.
set_source_files_properties(${QBT_KERNEL_DIR}/kernel_avx.cpp PROPERTIES
  COMPILE_OPTIONS "${QBT_NO_CONTRACT};-mavx;-mno-avx2;-mno-fma;-mprefer-vector-width=128")
# 256-bit vectors, batches of 8; no FMA (the build runs on processors without it).
set_source_files_properties(${QBT_KERNEL_DIR}/kernel_avx2.cpp PROPERTIES
  COMPILE_OPTIONS "${QBT_NO_CONTRACT};-mavx2;-mno-fma;-mprefer-vector-width=256")
# The compiler's FMA option implies AVX encodings; vectors stay 128 bits wide.
set_source_files_properties(${QBT_KERNEL_DIR}/kernel_fma3.cpp PROPERTIES
  COMPILE_OPTIONS "${QBT_NO_CONTRACT};-mfma;-mno-avx2;-mprefer-vector-width=128")
