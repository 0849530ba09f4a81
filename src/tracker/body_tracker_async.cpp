#include "tracker/body_tracker_async.h"

#include <algorithm>
#include <cstring>

#include "op/logging.h"
#include "tracker/body_tracker.h"
#include "tracker/classifier_loader.h"

namespace quorvik::skeleton {

BodyTrackerAsync::BodyTrackerAsync(const TrackerOptions& options)
    : options_(options),
      dataFilePath_(resolve_data_file_path(options_)),
      pool_(1),
      loader_(std::make_unique<ClassifierLoader>(resolve_data_file_path(options_))),
      logger_(op::get_logger("BodyTrackerAsync")) {}

BodyTrackerAsync::~BodyTrackerAsync() {
  // The job under way, if any, finishes; at most one job ever exists, so none is dropped.
  pool_.terminate();
  pendingResult_.reset();
  loader_.reset();
  frame_.logger.reset();
  tracker_.reset();
}

op::Result<PendingResult*, TrackerError> BodyTrackerAsync::update_async(const DepthView& depth) {
  if (pendingResult_.valid() && !pendingResult_.is_ready()) pendingResult_.wait();
  if (frame_.refCount != 0) {
    logger_->warn("update_async: Body ref count too high! count = {}", frame_.refCount);
    return op::Err(TrackerError::BodyFrameNotReleased);
  }
  // A negative or oversized size gives no meaningful pixel count; refuse it before touching
  // the buffer.
  if (depth.width < 0 || depth.height < 0 || depth.width > int64_t{blockWidth_} * kMaxDepthMultiple ||
      depth.height > int64_t{blockHeight_} * kMaxDepthMultiple)
    return op::Err(TrackerError::InvalidDepthMapSize);
  const auto width = static_cast<uint32_t>(depth.width);
  const auto height = static_cast<uint32_t>(depth.height);
  depthCopy_.resize(width, height);
  if (depthCopy_.size() != 0) std::memcpy(depthCopy_.data(), depth.pixels, depthCopy_.byte_size());

  const bool reset = std::exchange(resetRequested_, false);
  const bool mirrored = isDepthMirrored_;
  auto submitted = pool_.submit(0, [this, reset, mirrored] { return run_job(reset, mirrored); });
  if (submitted.is_error()) {
    return op::Err(submitted.unwrap_error() == op::SubmitError::QueueFull ? TrackerError::WorkerQueueFull
                                                                           : TrackerError::UnknownError);
  }
  // A result the host never took is dropped with the previous future.
  pendingResult_ = submitted.unwrap();
  return op::Ok(&pendingResult_);
}

FrameResult BodyTrackerAsync::update(const DepthView& depth) {
  auto queued = update_async(depth);
  if (queued.is_error()) return op::Err(queued.unwrap_error());
  PendingResult* slot = queued.unwrap();
  slot->wait();
  // The future stays in its slot with the result taken.
  return std::move(slot->get());
}

op::Result<bool, TrackerError> BodyTrackerAsync::is_frame_ready(const void* slot) {
  if (slot != &pendingResult_) return op::Err(TrackerError::AsyncBodyFrameMismatch);
  if (!pendingResult_.valid()) return op::Err(TrackerError::AsyncBodyFrameUnavailable);
  return op::Ok(pendingResult_.is_ready());
}

FrameResult BodyTrackerAsync::take_frame(const void* slot) {
  if (slot != &pendingResult_) return op::Err(TrackerError::AsyncBodyFrameMismatch);
  if (!pendingResult_.valid()) return op::Err(TrackerError::AsyncBodyFrameUnavailable);
  pendingResult_.wait();
  PendingResult taken = std::move(pendingResult_);
  pendingResult_.reset();
  FrameResult& stored = taken.get();
  // A synchronous update already moved this job's result out.
  if (!stored.engaged()) return op::Err(TrackerError::ResultAlreadyTaken);
  return std::move(stored);
}

FrameResult BodyTrackerAsync::run_job(bool reset, bool mirrored) {
  if (auto failure = ensure_loaded()) return op::Err(*failure);
  // An update that threw may have left users and their models half done: start over.
  if (reset || !trackerSettled_) tracker_->reset();
  tracker_->isDepthMirrored = mirrored;
  trackerSettled_ = false;
  auto updated = tracker_->update(depthCopy_.width(), depthCopy_.height(), depthCopy_.data());
  trackerSettled_ = true;
  if (updated.is_error()) return op::Err(updated.unwrap_error());
  rebuild_frame();
  return op::Ok(&frame_);
}

std::optional<TrackerError> BodyTrackerAsync::ensure_loaded() {
  if (loadState_ == kLoaded) return std::nullopt;
  if (loadState_ == kFailed) return loadError_;
  if (reloadNeeded_) {
    // Started here rather than in the failed build's handler: starting a load needs threads
    // and memory too, and if those are still short, this update fails and the next tries again.
    loader_ = std::make_unique<ClassifierLoader>(dataFilePath_);
    reloadNeeded_ = false;
  }
  if (loader_->has_forest()) {
    try {
      tracker_ = std::make_unique<BodyTracker>(options_, loader_->take_classifier(), blockWidth_, blockHeight_);
    } catch (...) {
      // The forest went down with the failed build: the next update reads the file again,
      // with the state still pending.
      tracker_.reset();
      reloadNeeded_ = true;
      throw;
    }
    logger_->info("Loaded data file.");
    loadState_ = kLoaded;
    return std::nullopt;
  }
  loadState_ = kFailed;
  switch (loader_->error()) {
    case impl::ClassifierLoadError::FileNotFound:
      logger_->warn("Error loading data file {}: FileNotFound", dataFilePath_);
      loadError_ = TrackerError::DataFileNotFound;
      break;
    case impl::ClassifierLoadError::InvalidFormat:
      logger_->warn("Error loading data file {}: InvalidFormat", dataFilePath_);
      loadError_ = TrackerError::DataFileInvalidFormat;
      break;
    default:
      logger_->warn("Unknown error loading data file.");
      loadError_ = TrackerError::UnknownError;
      break;
  }
  return loadError_;
}

void BodyTrackerAsync::rebuild_frame() {
  const op::Image<uint8_t>& mask = tracker_->bodyMask();
  const op::Image<uint8_t>& floor = tracker_->floorMask();
  frame_.valid = true;
  frame_.refCount = 0;
  frame_.bodyMask = {mask.width(), mask.height(), mask.data(), mask.size()};
  frame_.bodies = tracker_->bodies().data();
  frame_.bodyCount = tracker_->bodies().size();
  frame_.width = mask.width();
  frame_.height = mask.height();
  frame_.floorDetected = tracker_->floorDetected();
  frame_.floorPlane = tracker_->floorPlane();
  frame_.floorMask = {floor.width(), floor.height(), floor.data(), floor.size()};
  if (!frame_.logger) frame_.logger = op::get_logger("BodyFrame");
}

}  // namespace quorvik::skeleton
