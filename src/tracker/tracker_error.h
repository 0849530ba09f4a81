#pragma once
// Error codes the tracker reports to the host; the public code is the same number.

#include <cstdint>

namespace quorvik::skeleton {

enum class TrackerError : uint8_t {
  Success = 0,
  BodyFrameNotReleased = 1,
  DataFileInvalidFormat = 2,
  DataFileNotFound = 3,
  AsyncBodyFrameMismatch = 4,
  AsyncBodyFrameUnavailable = 5,
  InvalidDepthMapSize = 6,
  InvalidParameter = 7,
  ResultAlreadyTaken = 8,
  JointTypeConversionFailed = 100,
  JointStatusConversionFailed = 101,
  BodyStatusConversionFailed = 102,
  UnhandledException = 103,
  NullBodyFrame = 104,
  WorkerQueueFull = 105,
  UnknownError = 127,
};

}  // namespace quorvik::skeleton
