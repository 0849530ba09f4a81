#pragma once
// The result of one update as the host reads it: views on the body tracker's buffers plus a
// reference count that keeps the next update from overwriting them while the host holds them.

#include <array>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include <spdlog/logger.h>

#include "skeleton/vocabulary.h"

namespace quorvik::skeleton {

struct Joint {
  uint8_t type = kNoJointByte;
  JointStatus status = JointStatus::None;
  float depthPosition[2] = {0, 0};     // pixels of the input depth map
  float worldPosition[3] = {0, 0, 0};  // millimetres, camera frame
};
static_assert(sizeof(Joint) == 24);

enum class BodyStatus : uint8_t { NotTracking = 0, TrackingLost = 1, TrackingStarted = 2, Tracking = 3 };

struct Body {
  uint8_t id = 0;
  BodyStatus status = BodyStatus::NotTracking;
  std::array<float, 7> extent{};
  std::unordered_map<uint8_t, Joint> joints;  // keyed by joint byte
};

namespace _ {

template <typename T>
struct ImageView {
  uint64_t width = 0;
  uint64_t height = 0;
  const T* data = nullptr;
  uint64_t count = 0;
};

class BodyFrame {
 public:
  BodyFrame();

  void add_ref();
  // Logs a warning and leaves the count at 0 when the host releases more than it was handed.
  void remove_ref();

  bool valid = false;
  uint64_t refCount = 0;
  ImageView<uint8_t> bodyMask;
  const Body* bodies = nullptr;
  uint64_t bodyCount = 0;
  uint32_t width = 0;
  uint32_t height = 0;
  bool floorDetected = false;
  std::array<float, 4> floorPlane{};
  ImageView<uint8_t> floorMask;
  std::shared_ptr<spdlog::logger> logger;
};

}  // namespace _
}  // namespace quorvik::skeleton
