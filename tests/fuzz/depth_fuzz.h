#pragma once
// The depth fuzzer's input layout, shared by the fuzzer and the seed writer.
//
//   byte 0        flags: bit 0 the small forest instead of the shipped one, bit 1 start at
//                 320x240 instead of 160x120, bit 2 mirrored depth, bits 4-7 the number of
//                 steps used (0 to 8)
//   bytes 1-32    eight steps of four bytes: kind, a, b, c (see Step)
//   bytes 33-     the scene: 80x60 little-endian 16-bit depths, row by row, each drawn as
//                 a 2x2 or 4x4 block of pixels; missing bytes are 0
//
// A step changes the scene, then hands it to the tracker as one depth map.

#include <cstddef>
#include <cstdint>

namespace depth_fuzz {

inline constexpr int kGridWidth = 80;
inline constexpr int kGridHeight = 60;
inline constexpr size_t kSteps = 8;
inline constexpr size_t kStepBytes = 4;
inline constexpr size_t kGridOffset = 1 + kSteps * kStepBytes;
inline constexpr size_t kInputSize = kGridOffset + size_t{kGridWidth} * kGridHeight * 2;

enum Flag : uint8_t { kSmallForest = 1, kStartLarge = 2, kMirrored = 4 };

// Step kind, bits 0-2: how the scene changes before the update.
enum Change : uint8_t {
  kKeep = 0,
  kZeroRun = 1,   // c * 8 cells from cell (a | b << 8) become 0
  kSpikes = 2,    // c cells anywhere take any value
  kNearFar = 3,   // the scene flips between as recorded and pushed away (times a % 8 + 2)
  kShift = 4,     // the scene moves sideways by (int8_t) a cells; bit 0 of b wraps it round
  kRectangle = 5, // a rectangle at (a, b), c wide and high, of one value
  kFlat = 6,      // every cell the value a | b << 8
  kNoise = 7,     // every cell moves by up to +-c
};
// Step kind, bits 3-4: how the update is made.
enum Mode : uint8_t {
  kSync = 0,
  kAsyncTake = 1,  // update_async, then take_frame
  kAsyncPoll = 2,  // update_async, frame_ready until ready, then take_frame
  kSyncHold = 3,   // update, and the frame is kept until the next step has been refused
};
// Step kind, bits 5-7.
inline constexpr uint8_t kToggleSize = 0x20;  // switch between 160x120 and 320x240 first
inline constexpr uint8_t kNullData = 0x40;    // a depth map without a buffer (or without a size when c is 0)
inline constexpr uint8_t kReset = 0x80;       // the tracker is asked to start over

}  // namespace depth_fuzz
