#pragma once
// One depth map through the whole pipeline: reduction to 160x120, world points, users and
// floor, body-part classification per user, skeleton fitting, and the body list with each
// body's status; the body and floor masks come back at the input size.

#include <array>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include <spdlog/logger.h>

#include "forest/decision_forest.h"
#include "op/image.h"
#include "op/pixel_label.h"
#include "op/region_box.h"
#include "op/result.h"
#include "op/thread_pool.h"
#include "segmentation/depth_conversion.h"
#include "segmentation/user_analyzer.h"
#include "skeleton/model_tracker.h"
#include "skeleton/user_skeleton.h"
#include "tracker/body_frame.h"
#include "tracker/tracker_error.h"
#include "tracker/tracker_options.h"

namespace quorvik::skeleton {

class FrameClassifier;

struct TrackedUser : SegmentedUser {
  explicit TrackedUser(uint8_t userId) : SegmentedUser(userId), skeleton(userId) {}
  UserSkeleton skeleton;
  // Direction of the line from the right side to the left side of the body, seen from
  // above (radians, 0 when facing the camera), followed through turns; NaN until measured.
  float sideYaw = std::numeric_limits<float>::quiet_NaN();
  bool facingAway = false;
  int squareFrames = 0;  // in a row, before the line is followed
  float lastAxis = std::numeric_limits<float>::quiet_NaN();  // the torso axis last seen (radians)
  int axisLost = 0;    // frames since the torso last showed a clear axis
  int walkFrames = 0;    // in a row walking towards or away from the camera, before the line is followed
  int acrossFrames = 0;  // in a row walking across the view
  float acrossYaw = std::numeric_limits<float>::quiet_NaN();  // the line while walking across
  // Torso centre (mm, camera frame) and its smoothed step per frame.
  bool torsoSeen = false;
  float torsoX = 0, torsoY = 0, torsoZ = 0, walkX = 0, walkY = 0, walkZ = 0;
};

class BodyTracker {
 public:
  BodyTracker(const TrackerOptions& options, DecisionForest forest, uint32_t blockWidth, uint32_t blockHeight);
  ~BodyTracker();
  BodyTracker(const BodyTracker&) = delete;
  BodyTracker& operator=(const BodyTracker&) = delete;

  // Fails with InvalidDepthMapSize, changing nothing, unless the size is the same positive
  // whole multiple of 160x120 in both directions.
  op::Result<op::Unit, TrackerError> update(uint32_t width, uint32_t height, const uint16_t* pixels);
  void reset();

  const std::vector<Body>& bodies() const { return bodies_; }
  const op::Image<uint8_t>& bodyMask() const { return bodyMask_; }
  const op::Image<uint8_t>& floorMask() const { return floorMask_; }
  bool floorDetected() const { return userAnalyzer_.floorDetected(); }
  const std::array<float, 4>& floorPlane() const { return userAnalyzer_.floorPlane(); }
  const std::vector<TrackedUser>& users() const { return users_; }
  uint32_t frameNumber() const { return frameNumber_; }
  // At the processing size (160x120): the body-part label of every classified pixel and
  // the reduced depth it was classified on, for tools that measure the classifier.
  const op::Image<PixelLabel>& pixelLabels() const { return pixelLabels_; }
  const op::Image<uint16_t>& processedDepth() const { return depth_; }

  bool isDepthMirrored = true;

 private:
  void update_user(TrackedUser& user, const Body* previous, const std::array<float, 3>& scale,
                   std::vector<Body>& newBodies);
  void reduce(uint32_t width, uint32_t height, const uint16_t* pixels);
  // Whether the forest reads the masked pixels of this frame as one upright person.
  legacy::PersonReading reads_as_person(const legacy::Array2D<uint8_t>& mask);
  // Follows which way the user faces and, while they face away, gives the body-part labels
  // of their pixels the sides they really have.
  void follow_facing(TrackedUser& user);
  void arms_by_depth(const TrackedUser& user, float yaw);
  void mirror_sides(const TrackedUser& user);

  uint32_t blockWidth_;
  uint32_t blockHeight_;
  DepthCameraModel cameraModel_;
  ConversionTables conversionTables_;
  UserAnalyzer userAnalyzer_;
  op::Image<PixelLabel> pixelLabels_;
  op::Image<uint8_t> userIdImage_;
  ModelTracker modelTracker_;
  float classifierThreshold_ = 0.35f;
  std::vector<Body> bodies_;
  op::Image<WorldPoint> worldPoints_;
  op::Image<uint16_t> depth_;
  // Scratch of the person check, apart from the frame's own classification.
  op::Image<uint16_t> checkMap_;
  op::Image<PixelLabel> checkLabels_;
  op::Image<uint8_t> checkIds_;
  op::Image<uint8_t> bodyMask_;
  op::Image<uint8_t> floorMask_;
  std::vector<TrackedUser> users_;
  uint32_t frameNumber_ = 0;
  op::ThreadPool pool_;
  std::shared_ptr<spdlog::logger> logger_;
  std::unique_ptr<FrameClassifier> classifier_;
};

// Each output pixel takes the smallest non-zero value of its block (0 when there is none).
void reduce_min_nonzero(const uint16_t* pixels, uint32_t width, uint32_t height, op::Image<uint16_t>& out);

}  // namespace quorvik::skeleton
