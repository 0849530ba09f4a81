#pragma once
// Error codes the tracker reports to the host; the public code is the same number.

#include <cstdint>

namespace quorvik::skeleton {

// The one list of the codes: X(name, code, public macro suffix, message). The enumeration,
// the message table and the check against the public header are all made from it.
#define QBT_TRACKER_ERRORS(X)                                                                                     \
  X(BodyFrameNotReleased, 1, BODYFRAME_NOT_RELEASED,                                                              \
    "BodyFrame not released before calling update() or update_async(). ")                                        \
  X(DataFileInvalidFormat, 2, DATAFILE_INVALID_FORMAT, "Data file not loaded: invalid format. ")                   \
  X(DataFileNotFound, 3, DATAFILE_NOT_FOUND, "Data file not found. ")                                             \
  X(AsyncBodyFrameMismatch, 4, ASYNC_BODYFRAME_MISMATCH, "AsyncBodyFrame does not match expected value. ")         \
  X(AsyncBodyFrameUnavailable, 5, ASYNC_BODYFRAME_UNAVAILABLE,                                                    \
    "AsyncBodyFrame is not available or frame was already taken. ")                                              \
  X(InvalidDepthMapSize, 6, INVALID_DEPTHMAP_SIZE,                                                                \
    "Input depth map has an invalid size. Depth map size must be a multiple of 160x120. ")                        \
  X(InvalidParameter, 7, INVALID_PARAMETER, "Invalid parameter: ")                                                \
  X(ResultAlreadyTaken, 8, RESULT_ALREADY_TAKEN, "Result data already taken. ")                                   \
  X(JointTypeConversionFailed, 100, JOINT_TYPE_CONVERSION_FAILED, "Internal error converting joint type. ")       \
  X(JointStatusConversionFailed, 101, JOINT_STATUS_CONVERSION_FAILED, "Internal error converting joint status. ") \
  X(BodyStatusConversionFailed, 102, BODY_STATUS_CONVERSION_FAILED, "Internal error converting body status. ")    \
  X(UnhandledException, 103, UNHANDLED_EXCEPTION, "Internal unhandled exception: ")                               \
  X(NullBodyFrame, 104, NULL_BODYFRAME, "Internal error resulted in a null body frame. ")                         \
  X(WorkerQueueFull, 105, WORKER_QUEUE_FULL, "Internal error resulted in a full worker queue. ")                  \
  X(UnknownError, 127, UNKNOWN_ERROR, "An unknown error occurred. ")

enum class TrackerError : uint8_t {
  Success = 0,
#define QBT_TRACKER_ERROR_ENUMERATOR(name, code, suffix, message) name = code,
  QBT_TRACKER_ERRORS(QBT_TRACKER_ERROR_ENUMERATOR)
#undef QBT_TRACKER_ERROR_ENUMERATOR
};

}  // namespace quorvik::skeleton
