// libFuzzer target for depth input through the C interface: fuzz bytes become a short run
// of depth maps (layout in depth_fuzz.h) for one of two trackers that live as long as the
// process, one with the shipped forest and one with a small hand-made forest. Whatever the
// depths, every call must give the code it owes and a frame that keeps the interface's
// promises; anything else aborts.

#include "depth_fuzz.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "quorvik/body_tracking.h"
#include "support/box_forest.h"

using namespace depth_fuzz;

namespace {

[[noreturn]] void fail(const char* what, qbt_result_t code) {
  qbt_error_info_t info{};
  qbt_error_info(&info);
  std::fprintf(stderr, "depth fuzz: %s: code %d, last error %d \"%s\"\n", what, code, info.code,
               info.message != nullptr ? info.message : "(null)");
  std::abort();
}

// A failure must leave its code and a text naming the function in the last-error record.
void expect(const char* what, qbt_result_t code, qbt_result_t expected, std::string_view function) {
  if (code != expected) fail(what, code);
  if (code == 0) return;
  qbt_error_info_t info{};
  qbt_error_info(&info);
  if (info.code != code || info.message == nullptr ||
      std::string_view(info.message).find(function) == std::string_view::npos)
    fail("error record", code);
}

qbt_bodytracker_t make_tracker(const std::string& path) {
  qbt_bodytracker_options_t options;
  qbt_bodytracker_fill_default_options(&options);
  options.dataFilePath = path.c_str();
  qbt_bodytracker_t tracker = nullptr;
  expect("create", qbt_bodytracker_create(&options, &tracker), 0, "");
  // The first update waits for the load: a forest that did not load would fuzz nothing.
  std::vector<uint16_t> empty(160 * 120, 0);
  const qbt_depthmap_t map{empty.data(), 160, 120};
  qbt_bodyframe_t frame{};
  expect("first update", qbt_bodytracker_update(tracker, &map, &frame), 0, "");
  qbt_bodyframe_release(&frame);
  return tracker;
}

qbt_bodytracker_t trackers[2];

void check_frame(qbt_bodyframe_t frame, int width, int height) {
  qbt_bodyframe_info_t info{};
  expect("info", qbt_bodyframe_info(frame, &info), 0, "");
  if (info.width != static_cast<uint32_t>(width) || info.height != static_cast<uint32_t>(height))
    fail("frame size", 0);
  qbt_bodymask_t mask{};
  expect("body mask", qbt_bodyframe_bodymask(frame, &mask), 0, "");
  if (mask.width != width || mask.height != height || mask.data == nullptr) fail("body mask size", 0);
  bool floorDetected = false;
  qbt_plane_t plane{};
  qbt_floormask_t floorMask{};
  expect("floor", qbt_bodyframe_floor_info(frame, &floorDetected, &plane, &floorMask), 0, "");
  if (floorMask.width != width || floorMask.height != height) fail("floor mask size", 0);
  if (floorDetected && !(std::isfinite(plane.nx) && std::isfinite(plane.ny) && std::isfinite(plane.nz) &&
                         std::isfinite(plane.d)))
    fail("floor plane", 0);
  qbt_bodylist_t list{};
  expect("body list", qbt_bodyframe_body_list(frame, &list), 0, "");
  if (list.count > 10) fail("more than ten bodies", 0);
  for (uint32_t i = 0; i < list.count; ++i) {
    const qbt_body_t& body = list.bodies[i];
    if (body.id == 0 || body.status > QBT_BODY_STATUS_TRACKING) fail("body", 0);
    for (int j = 0; j < QBT_JOINT_COUNT; ++j) {
      const qbt_joint_t& joint = body.joints[j];
      if (joint.jointType != j || joint.status > QBT_JOINT_STATUS_HIGH) fail("joint", 0);
      if (joint.status != QBT_JOINT_STATUS_NONE &&
          !(std::isfinite(joint.worldPosition.x) && std::isfinite(joint.worldPosition.y) &&
            std::isfinite(joint.worldPosition.z) && std::isfinite(joint.depthPosition.x) &&
            std::isfinite(joint.depthPosition.y)))
        fail("joint position", 0);
    }
  }
}

uint32_t next(uint32_t& state) {
  state = state * 1664525u + 1013904223u;
  return state >> 8;
}

class Scene {
 public:
  Scene(const uint8_t* bytes, size_t size) : cells_(size_t{kGridWidth} * kGridHeight, 0) {
    for (size_t i = 0; i < cells_.size() && 2 * i + 1 < size; ++i)
      cells_[i] = static_cast<uint16_t>(bytes[2 * i] | bytes[2 * i + 1] << 8);
  }

  void change(uint8_t kind, uint8_t a, uint8_t b, uint8_t c) {
    const size_t n = cells_.size();
    uint32_t random = a | b << 8 | c << 16;
    switch (kind & 7) {
      case kZeroRun:
        for (size_t i = 0, at = (a | b << 8) % n; i < size_t{c} * 8 && at + i < n; ++i) cells_[at + i] = 0;
        break;
      case kSpikes:
        for (int i = 0; i < c; ++i) cells_[next(random) % n] = static_cast<uint16_t>(next(random));
        break;
      case kNearFar:
        far_ = !far_;
        farScale_ = a % 8 + 2;
        break;
      case kShift: {
        const int by = static_cast<int8_t>(a) % kGridWidth;
        std::vector<uint16_t> moved(n, 0);
        for (int y = 0; y < kGridHeight; ++y)
          for (int x = 0; x < kGridWidth; ++x) {
            int from = x - by;
            if (b & 1) from = (from + kGridWidth) % kGridWidth;
            if (from >= 0 && from < kGridWidth) moved[y * kGridWidth + x] = cells_[y * kGridWidth + from];
          }
        cells_ = std::move(moved);
        break;
      }
      case kRectangle:
        for (int y = b % kGridHeight; y < std::min(kGridHeight, b % kGridHeight + c % 64); ++y)
          for (int x = a % kGridWidth; x < std::min(kGridWidth, a % kGridWidth + c % 64); ++x)
            cells_[y * kGridWidth + x] = static_cast<uint16_t>(a << 8 | c);
        break;
      case kFlat:
        std::fill(cells_.begin(), cells_.end(), static_cast<uint16_t>(a | b << 8));
        break;
      case kNoise:
        for (uint16_t& v : cells_) v = static_cast<uint16_t>(v + static_cast<int>(next(random) % (2 * c + 1)) - c);
        break;
      default:
        break;
    }
  }

  void draw(std::vector<uint16_t>& depth, int width, int height) const {
    depth.resize(size_t(width) * height);
    const int k = width / kGridWidth;
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x) {
        uint32_t v = cells_[(y / k) * kGridWidth + x / k];
        if (far_) v = std::min<uint32_t>(v * farScale_, 65535);
        depth[size_t(y) * width + x] = static_cast<uint16_t>(v);
      }
  }

 private:
  std::vector<uint16_t> cells_;
  bool far_ = false;
  uint32_t farScale_ = 2;
};

// One update in the given mode; returns the frame, or an invalid one when `expected` is a
// failure.
qbt_bodyframe_t update(qbt_bodytracker_t tracker, const qbt_depthmap_t& map, uint8_t mode, qbt_result_t expected) {
  qbt_bodyframe_t frame{};
  if (mode == kSync || mode == kSyncHold) {
    expect("update", qbt_bodytracker_update(tracker, &map, &frame), expected, "bodytracker_update");
    return frame;
  }
  qbt_asyncbodyframe_t async{};
  const qbt_result_t queued = qbt_bodytracker_update_async(tracker, &map, &async);
  // Refusals of the arguments and of a held frame come at once; the tracker's own at the take.
  if (queued != 0) {
    expect("update_async", queued, expected, "qbt_bodytracker_update_async");
    return frame;
  }
  if (expected == QBT_RESULT_INVALID_PARAMETER || expected == QBT_RESULT_BODYFRAME_NOT_RELEASED)
    fail("update_async took what it must refuse", queued);
  if (mode == kAsyncPoll) {
    bool ready = false;
    while (!ready) {
      expect("frame_ready", qbt_asyncbodyframe_frame_ready(async, &ready), 0, "");
      if (!ready) std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  }
  expect("take_frame", qbt_asyncbodyframe_take_frame(async, &frame), expected, "qbt_asyncbodyframe_take_frame");
  return frame;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* shipped = std::getenv("QBT_FUZZ_DATA");
  trackers[0] = make_tracker(shipped != nullptr ? shipped : QBT_SOURCE_DIR "/data/QuorvikBodyTracking.data");
  const std::string small = "/tmp/qbt-depth-fuzz-" + std::to_string(getpid()) + ".data";
  box_forest::write(small);
  trackers[1] = make_tracker(small);
  std::remove(small.c_str());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t flags = data[0];
  qbt_bodytracker_t tracker = trackers[flags & kSmallForest];
  // Each input starts from a fresh tracker state, so that a finding replays on its own.
  qbt_bodytracker_reset(tracker);
  qbt_bodytracker_set_is_depth_mirrored(tracker, (flags & kMirrored) != 0);
  bool large = (flags & kStartLarge) != 0;
  Scene scene(size > kGridOffset ? data + kGridOffset : nullptr, size > kGridOffset ? size - kGridOffset : 0);
  std::vector<uint16_t> depth;
  qbt_bodyframe_t held{};
  const size_t steps = std::min<size_t>(kSteps, flags >> 4);
  for (size_t s = 0; s < std::max<size_t>(steps, 1); ++s) {
    uint8_t step[kStepBytes] = {};
    for (size_t i = 0; i < kStepBytes; ++i)
      if (1 + s * kStepBytes + i < size) step[i] = data[1 + s * kStepBytes + i];
    const uint8_t kind = step[0];
    const uint8_t mode = (kind >> 3) & 3;
    if (kind & kReset) qbt_bodytracker_reset(tracker);
    if (kind & kToggleSize) large = !large;
    scene.change(kind, step[1], step[2], step[3]);
    const int width = large ? 320 : 160;
    const int height = large ? 240 : 120;
    scene.draw(depth, width, height);
    qbt_depthmap_t map{depth.data(), width, height};
    qbt_result_t expected = 0;
    if (kind & kNullData) {
      map.data = nullptr;
      if (step[3] == 0) map.width = map.height = 0;
      expected = map.width == 0 ? QBT_RESULT_INVALID_DEPTHMAP_SIZE : QBT_RESULT_INVALID_PARAMETER;
    }
    if (qbt_bodyframe_is_valid(held)) {
      // Arguments are checked before the tracker looks at its frame.
      update(tracker, map, mode, expected == QBT_RESULT_INVALID_PARAMETER ? expected
                                                                          : QBT_RESULT_BODYFRAME_NOT_RELEASED);
      expect("release held", qbt_bodyframe_release(&held), 0, "");
    }
    qbt_bodyframe_t frame = update(tracker, map, mode, expected);
    if (expected != 0) continue;
    check_frame(frame, width, height);
    if (mode == kSyncHold)
      held = frame;
    else
      expect("release", qbt_bodyframe_release(&frame), 0, "");
  }
  if (qbt_bodyframe_is_valid(held)) expect("release held", qbt_bodyframe_release(&held), 0, "");
  return 0;
}
