#include "segmentation/containers.h"

namespace quorvik::legacy {

template class Array<uint8_t>;
template class Array<int16_t>;
template class Array<uint16_t>;
template class Array<int32_t>;
template class Array<uint32_t>;
template class Array<bool>;
template class Array2D<uint8_t>;
template class Array2D<int16_t>;
template class Array2D<uint16_t>;
template class Array2D<int32_t>;
template class Array2D<uint32_t>;
template class Array2D<bool>;

}  // namespace quorvik::legacy
