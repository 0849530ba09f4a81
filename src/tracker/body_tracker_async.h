#pragma once
// The tracker core behind a host handle. Every update, the synchronous one included, runs as
// a job on one worker thread, so the body tracker is only ever touched by that thread and a
// new update never starts before the previous one has finished.

#include <cstdint>
#include <memory>
#include <string>

#include <spdlog/logger.h>

#include "op/action.h"
#include "op/image.h"
#include "op/result.h"
#include "op/thread_pool.h"
#include "tracker/body_frame.h"
#include "tracker/tracker_error.h"
#include "tracker/tracker_options.h"

namespace quorvik::skeleton {

class BodyTracker;
class ClassifierLoader;

struct DepthView {
  int64_t width;
  int64_t height;
  const uint16_t* pixels;
};

// The largest depth map taken, as a multiple of 160x120: 2560x1920. Anything larger is no
// camera's depth map but a size field gone wrong, and copying it would mean allocating, and
// reading, up to gigabytes on the host's word.
inline constexpr int64_t kMaxDepthMultiple = 16;

using FrameResult = op::Result<_::BodyFrame*, TrackerError>;
using PendingResult = op::ActionFuture<FrameResult>;

class BodyTrackerAsync {
 public:
  explicit BodyTrackerAsync(const TrackerOptions& options);
  ~BodyTrackerAsync();
  BodyTrackerAsync(const BodyTrackerAsync&) = delete;
  BodyTrackerAsync& operator=(const BodyTrackerAsync&) = delete;

  // Queues an update and returns the address of the pending-result slot.
  op::Result<PendingResult*, TrackerError> update_async(const DepthView& depth);
  FrameResult update(const DepthView& depth);
  op::Result<bool, TrackerError> is_frame_ready(const void* slot);
  FrameResult take_frame(const void* slot);

  void request_reset() { resetRequested_ = true; }
  void set_is_depth_mirrored(bool mirrored) { isDepthMirrored_ = mirrored; }
  bool is_depth_mirrored() const { return isDepthMirrored_; }

  _::BodyFrame& frame() { return frame_; }

 private:
  enum LoadState : uint32_t { kPending = 0, kFailed = 1, kLoaded = 2 };

  FrameResult run_job(bool reset, bool mirrored);
  // Builds the body tracker from the loaded forest the first time; the failure is sticky.
  std::optional<TrackerError> ensure_loaded();
  void rebuild_frame();

  TrackerOptions options_;
  std::string dataFilePath_;
  op::Image<uint16_t> depthCopy_;
  std::unique_ptr<BodyTracker> tracker_;
  _::BodyFrame frame_;
  op::ThreadPool pool_;
  std::unique_ptr<ClassifierLoader> loader_;
  PendingResult pendingResult_;
  bool resetRequested_ = false;
  bool isDepthMirrored_ = true;
  uint32_t loadState_ = kPending;
  TrackerError loadError_ = TrackerError::Success;
  // A build of the body tracker failed and took the forest with it: read the file again.
  bool reloadNeeded_ = false;
  // False while an update runs, and after one that threw.
  bool trackerSettled_ = true;
  std::shared_ptr<spdlog::logger> logger_;
  uint32_t blockWidth_ = 160;
  uint32_t blockHeight_ = 120;
};

}  // namespace quorvik::skeleton
