// The exported C functions: argument checks in a fixed order, outputs cleared before the
// checks that follow them, every failure stored in the last-error record, and no standard
// exception ever leaves a function.

#include <cstring>
#include <exception>
#include <stdexcept>
#include <vector>
#include <string_view>

#include "api/body_list.h"
#include "api/error_record.h"
#include "quorvik/body_tracking.h"
#include "tracker/body_tracker_async.h"

using quorvik::api::report_error;
using quorvik::skeleton::BodyTrackerAsync;
using quorvik::skeleton::FrameResult;
using quorvik::skeleton::TrackerError;
using quorvik::skeleton::_::BodyFrame;

// The object behind a qbt_bodytracker_t: the public body records that body-list calls fill,
// and the core, which owns everything else.
struct qbt_tracker_object {
  std::vector<qbt_body_t> bodies;
  BodyTrackerAsync core;

  explicit qbt_tracker_object(const quorvik::skeleton::TrackerOptions& options) : core(options) {}
};

namespace {

constexpr qbt_bodyframe_t kInvalidBodyFrame{};
constexpr qbt_asyncbodyframe_t kInvalidAsyncBodyFrame{};
constexpr qbt_result_t kInvalidParameter = QBT_RESULT_INVALID_PARAMETER;
constexpr qbt_result_t kUnhandledException = QBT_RESULT_UNHANDLED_EXCEPTION;

qbt_result_t invalid(std::string_view function, std::string_view detail) {
  return report_error(function, kInvalidParameter, detail);
}

// Runs `work`; a standard exception first runs `clear` (the outputs the function promised)
// and becomes code 103 with the exception's text.
template <typename Work, typename Clear>
qbt_result_t guarded(std::string_view function, Work&& work, Clear&& clear) {
  try {
    return work();
  } catch (const std::exception& e) {
    clear();
    return report_error(function, kUnhandledException, e.what());
  }
}

BodyFrame& frame_of(const qbt_bodyframe_t& handle) { return *reinterpret_cast<BodyFrame*>(handle.frame); }

quorvik::skeleton::DepthView depth_view(const qbt_depthmap_t& map) {
  return {static_cast<int64_t>(map.width), static_cast<int64_t>(map.height), map.data};
}

// The option fields, public and internal side by side: the conversion and the defaults both
// walk this one list, and the defaults themselves live only in TrackerOptions.
template <typename Public, typename Internal, typename Copy>
void each_option_field(Public& o, Internal& t, Copy&& copy) {
  copy(o.horizontalFov, t.horizontalFovDegrees);
  copy(o.verticalFov, t.verticalFovDegrees);
  copy(o.zeroPlaneDistance, t.shift.zeroPlaneDistance);
  copy(o.zeroPlanePixelSize, t.shift.zeroPlanePixelSize);
  copy(o.emitterDcmosDistance, t.shift.emitterDcmosDistance);
  copy(o.maxShiftValue, t.shift.maxShiftValue);
  copy(o.deviceMaxDepth, t.shift.deviceMaxDepth);
  copy(o.constShift, t.shift.constShift);
  copy(o.pixelSizeFactor, t.shift.pixelSizeFactor);
  copy(o.paramCoeff, t.shift.paramCoeff);
  copy(o.shiftScale, t.shift.shiftScale);
  copy(o.minDepth, t.shift.minDepth);
  copy(o.maxDepth, t.shift.maxDepth);
}

quorvik::skeleton::TrackerOptions tracker_options(const qbt_bodytracker_options_t& o) {
  quorvik::skeleton::TrackerOptions options;
  each_option_field(o, options, [](const auto& from, auto& to) { to = from; });
  if (o.dataFilePath != nullptr) options.dataFilePath = o.dataFilePath;
  return options;
}

// Turns a frame result into a handle: one more reference for the host, or the reported code.
qbt_result_t hand_out(qbt_tracker_object* tracker, FrameResult result, std::string_view name,
                      qbt_bodyframe_t* bodyFrame) {
  if (result.is_error()) return report_error(name, static_cast<uint8_t>(result.unwrap_error()), "");
  BodyFrame* frame = result.unwrap();
  if (frame == nullptr) return report_error(name, QBT_RESULT_NULL_BODYFRAME, "");
  frame->add_ref();
  *bodyFrame = qbt_bodyframe_t{tracker, reinterpret_cast<qbt_frame_object*>(frame)};
  return QBT_RESULT_SUCCESS;
}

}  // namespace

extern "C" {

qbt_result_t qbt_asyncbodyframe_frame_ready(qbt_asyncbodyframe_t asyncBodyFrame, bool* isReady) {
  constexpr std::string_view name = "qbt_asyncbodyframe_frame_ready";
  if (asyncBodyFrame.tracker == nullptr) return invalid(name, "asyncBodyFrame");
  if (isReady == nullptr) return invalid(name, "isReady is null");
  *isReady = false;
  return guarded(
      name,
      [&]() -> qbt_result_t {
        auto ready = asyncBodyFrame.tracker->core.is_frame_ready(asyncBodyFrame.slot);
        if (ready.is_error()) return report_error(name, static_cast<uint8_t>(ready.unwrap_error()), "");
        *isReady = ready.unwrap();
        return QBT_RESULT_SUCCESS;
      },
      [&] { *isReady = false; });
}

bool qbt_asyncbodyframe_is_valid(qbt_asyncbodyframe_t asyncBodyFrame) {
  return std::memcmp(&asyncBodyFrame, &kInvalidAsyncBodyFrame, sizeof asyncBodyFrame) != 0;
}

qbt_result_t qbt_asyncbodyframe_take_frame(qbt_asyncbodyframe_t asyncBodyFrame, qbt_bodyframe_t* bodyFrame) {
  constexpr std::string_view name = "qbt_asyncbodyframe_take_frame";
  if (asyncBodyFrame.tracker == nullptr) return invalid(name, "asyncBodyFrame");
  if (bodyFrame == nullptr) return invalid(name, "bodyFrame is null");
  *bodyFrame = kInvalidBodyFrame;
  return guarded(
      name,
      [&] {
        qbt_tracker_object* tracker = asyncBodyFrame.tracker;
        return hand_out(tracker, tracker->core.take_frame(asyncBodyFrame.slot), name, bodyFrame);
      },
      [&] { *bodyFrame = kInvalidBodyFrame; });
}

qbt_result_t qbt_bodyframe_body_list(qbt_bodyframe_t bodyFrame, qbt_bodylist_t* bodyList) {
  constexpr std::string_view name = "qbt_bodyframe_body_list";
  if (bodyFrame.tracker == nullptr) return invalid(name, "bodyFrame");
  if (bodyList == nullptr) return invalid(name, "bodyList is null");
  *bodyList = qbt_bodylist_t{};
  if (bodyFrame.frame == nullptr) return invalid(name, "bodyFrame");
  return guarded(
      name,
      [&]() -> qbt_result_t {
        const qbt_result_t code =
            quorvik::api::build_body_list(frame_of(bodyFrame), bodyFrame.tracker->bodies, *bodyList);
        return code == QBT_RESULT_SUCCESS ? code : report_error(name, code, "");
      },
      [&] {
        bodyFrame.tracker->bodies.clear();
        *bodyList = qbt_bodylist_t{};
      });
}

qbt_result_t qbt_bodyframe_bodymask(qbt_bodyframe_t bodyFrame, qbt_bodymask_t* bodyMask) {
  constexpr std::string_view name = "qbt_bodyframe_bodymask";
  if (bodyFrame.tracker == nullptr) return invalid(name, "bodyFrame");
  if (bodyMask == nullptr) return invalid(name, "bodyMask is null");
  *bodyMask = qbt_bodymask_t{};
  if (bodyFrame.frame == nullptr) return invalid(name, "bodyFrame");
  const BodyFrame& frame = frame_of(bodyFrame);
  *bodyMask = {frame.bodyMask.data, static_cast<int32_t>(frame.bodyMask.width),
               static_cast<int32_t>(frame.bodyMask.height)};
  return QBT_RESULT_SUCCESS;
}

qbt_result_t qbt_bodyframe_floor_info(qbt_bodyframe_t bodyFrame, bool* floorDetected, qbt_plane_t* floorPlane,
                                      qbt_floormask_t* floorMask) {
  constexpr std::string_view name = "qbt_bodyframe_floor_info";
  if (bodyFrame.tracker == nullptr) return invalid(name, "bodyFrame");
  if (floorDetected == nullptr) return invalid(name, "floorDetected");
  if (floorPlane == nullptr) return invalid(name, "floorPlane");
  if (floorMask == nullptr) return invalid(name, "floorMask");
  auto clear = [&] {
    *floorDetected = false;
    *floorPlane = qbt_plane_t{};
    *floorMask = qbt_floormask_t{};
  };
  if (bodyFrame.frame == nullptr) {
    clear();
    return invalid(name, "bodyFrame");
  }
  const BodyFrame& frame = frame_of(bodyFrame);
  *floorDetected = frame.floorDetected;
  *floorPlane = {frame.floorPlane[0], frame.floorPlane[1], frame.floorPlane[2], frame.floorPlane[3]};
  *floorMask = {frame.floorMask.data, static_cast<int32_t>(frame.floorMask.width),
                static_cast<int32_t>(frame.floorMask.height)};
  return QBT_RESULT_SUCCESS;
}

qbt_result_t qbt_bodyframe_info(qbt_bodyframe_t bodyFrame, qbt_bodyframe_info_t* info) {
  constexpr std::string_view name = "qbt_bodyframe_info";
  if (bodyFrame.tracker == nullptr) return invalid(name, "bodyFrame");
  if (info == nullptr) return invalid(name, "info is null");
  *info = qbt_bodyframe_info_t{};
  if (bodyFrame.frame == nullptr) return invalid(name, "bodyFrame");
  const BodyFrame& frame = frame_of(bodyFrame);
  *info = {frame.width, frame.height};
  return QBT_RESULT_SUCCESS;
}

bool qbt_bodyframe_is_valid(qbt_bodyframe_t bodyFrame) {
  return std::memcmp(&bodyFrame, &kInvalidBodyFrame, sizeof bodyFrame) != 0;
}

qbt_result_t qbt_bodyframe_release(qbt_bodyframe_t* bodyFrame) {
  constexpr std::string_view name = "qbt_bodyframe_release";
  if (bodyFrame == nullptr) return invalid(name, "bodyFrame is null");
  if (bodyFrame->tracker == nullptr) return invalid(name, "bodyFrame");
  if (bodyFrame->frame == nullptr) {
    *bodyFrame = kInvalidBodyFrame;
    return invalid(name, "bodyFrame");
  }
  return guarded(
      name,
      [&] {
        frame_of(*bodyFrame).remove_ref();
        *bodyFrame = kInvalidBodyFrame;
        return QBT_RESULT_SUCCESS;
      },
      [&] { *bodyFrame = kInvalidBodyFrame; });
}

qbt_result_t qbt_bodytracker_create(const qbt_bodytracker_options_t* options, qbt_bodytracker_t* bodyTracker) {
  constexpr std::string_view name = "qbt_bodytracker_create";
  if (bodyTracker == nullptr) return invalid(name, "bodyTracker is null");
  qbt_bodytracker_options_t defaults;
  if (options == nullptr) {
    qbt_bodytracker_fill_default_options(&defaults);
    options = &defaults;
  }
  return guarded(
      name,
      [&] {
        *bodyTracker = new qbt_tracker_object(tracker_options(*options));
        return QBT_RESULT_SUCCESS;
      },
      [] {});
}

qbt_result_t qbt_bodytracker_destroy(qbt_bodytracker_t* bodyTracker) {
  constexpr std::string_view name = "qbt_bodytracker_destroy";
  if (bodyTracker == nullptr) return invalid(name, "bodyTracker is null");
  if (*bodyTracker == nullptr) return invalid(name, "bodyTracker");
  return guarded(
      name,
      [&] {
        delete *bodyTracker;
        *bodyTracker = nullptr;
        return QBT_RESULT_SUCCESS;
      },
      [] {});
}

qbt_result_t qbt_bodytracker_fill_default_options(qbt_bodytracker_options_t* options) {
  if (options == nullptr) return invalid("qbt_bodytracker_fill_default_options", "options is null");
  std::memset(options, 0, sizeof *options);
  const quorvik::skeleton::TrackerOptions defaults;
  each_option_field(*options, defaults, [](auto& to, const auto& from) { to = from; });
  options->dataFilePath = nullptr;
  return QBT_RESULT_SUCCESS;
}

qbt_result_t qbt_bodytracker_is_depth_mirrored(qbt_bodytracker_t bodyTracker, bool* isDepthMirrored) {
  constexpr std::string_view name = "qbt_bodytracker_is_depth_mirrored";
  if (bodyTracker == nullptr) return invalid(name, "bodyTracker");
  if (isDepthMirrored == nullptr) return invalid(name, "isDepthMirrored is null");
  *isDepthMirrored = bodyTracker->core.is_depth_mirrored();
  return QBT_RESULT_SUCCESS;
}

qbt_result_t qbt_bodytracker_reset(qbt_bodytracker_t bodyTracker) {
  constexpr std::string_view name = "qbt_bodytracker_reset";
  if (bodyTracker == nullptr) return invalid(name, "bodyTracker");
  bodyTracker->core.request_reset();
  return QBT_RESULT_SUCCESS;
}

qbt_result_t qbt_bodytracker_set_is_depth_mirrored(qbt_bodytracker_t bodyTracker, bool isDepthMirrored) {
  constexpr std::string_view name = "qbt_bodytracker_set_is_depth_mirrored";
  if (bodyTracker == nullptr) return invalid(name, "bodyTracker");
  // Only the byte value 1 means true; the byte is read as it came from the host.
  unsigned char byte;
  std::memcpy(&byte, &isDepthMirrored, 1);
  bodyTracker->core.set_is_depth_mirrored(byte == 1);
  return QBT_RESULT_SUCCESS;
}

qbt_result_t qbt_bodytracker_update(qbt_bodytracker_t bodyTracker, const qbt_depthmap_t* depthMap,
                                    qbt_bodyframe_t* bodyFrame) {
  constexpr std::string_view name = "qbt_bodytracker_update";
  if (bodyTracker == nullptr) return invalid(name, "bodyTracker");
  if (bodyFrame == nullptr) return invalid(name, "bodyFrame is null");
  *bodyFrame = kInvalidBodyFrame;
  if (depthMap == nullptr) return invalid(name, "depthMap is null");
  // A null buffer of a positive size would be read by the copy; sizes of 0 or below are the
  // size check's to refuse.
  if (depthMap->data == nullptr && depthMap->width > 0 && depthMap->height > 0)
    return invalid(name, "depthMap data is null");
  // Errors from the core are reported under the core's own name; exceptions under ours.
  return guarded(
      name,
      [&] { return hand_out(bodyTracker, bodyTracker->core.update(depth_view(*depthMap)), "bodytracker_update", bodyFrame); },
      [&] { *bodyFrame = kInvalidBodyFrame; });
}

qbt_result_t qbt_bodytracker_update_async(qbt_bodytracker_t bodyTracker, const qbt_depthmap_t* depthMap,
                                          qbt_asyncbodyframe_t* asyncBodyFrame) {
  constexpr std::string_view name = "qbt_bodytracker_update_async";
  if (bodyTracker == nullptr) return invalid(name, "bodyTracker");
  if (asyncBodyFrame == nullptr) return invalid(name, "asyncBodyFrame is null");
  *asyncBodyFrame = kInvalidAsyncBodyFrame;
  if (depthMap == nullptr) return invalid(name, "depthMap is null");
  // A null buffer of a positive size would be read by the copy; sizes of 0 or below are the
  // size check's to refuse.
  if (depthMap->data == nullptr && depthMap->width > 0 && depthMap->height > 0)
    return invalid(name, "depthMap data is null");
  return guarded(
      name,
      [&]() -> qbt_result_t {
        auto queued = bodyTracker->core.update_async(depth_view(*depthMap));
        if (queued.is_error()) return report_error(name, static_cast<uint8_t>(queued.unwrap_error()), "");
        *asyncBodyFrame = {bodyTracker, reinterpret_cast<qbt_pending_slot*>(queued.unwrap())};
        return QBT_RESULT_SUCCESS;
      },
      [&] { *asyncBodyFrame = kInvalidAsyncBodyFrame; });
}

qbt_result_t qbt_error_info(qbt_error_info_t* info) {
  if (info == nullptr) return invalid("qbt_error_info", "info is null");
  info->message = quorvik::api::last_error_text();
  info->code = quorvik::api::last_error_code();
  return QBT_RESULT_SUCCESS;
}

}  // extern "C"
