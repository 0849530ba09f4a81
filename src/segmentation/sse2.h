#pragma once
// The engine's 16-bit image loops take eight pixels at a time with SSE2 where the compiler
// targets it; elsewhere, or in a build configured with QBT_PORTABLE=ON, their scalar tails
// do all the work. Both paths give the same images.

#if defined(__SSE2__) && !defined(QBT_PORTABLE)
#define QBT_SEGMENTATION_SSE2 1
#include <emmintrin.h>
#else
#define QBT_SEGMENTATION_SSE2 0
#endif
