#pragma once
// "Nobody" in each image that carries user ids, and the conversions between them. Ids run
// from 1 to 10 and fit in one byte everywhere.

#include <cstdint>

namespace quorvik::legacy {

// The engine's label map (u16).
inline constexpr uint16_t kNobody = 0;

}  // namespace quorvik::legacy

namespace quorvik::skeleton {

// The analyzer's user labels (u16).
inline constexpr uint16_t kNoUser = 0xFFFF;
// The tracker's user-id image and the body mask handed to the host (u8).
inline constexpr uint8_t kNoBody = 0;

inline constexpr uint16_t user_label_of(uint16_t engineLabel) {
  return engineLabel == legacy::kNobody ? kNoUser : engineLabel;
}

}  // namespace quorvik::skeleton
