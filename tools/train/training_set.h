#pragma once
// Training pixels for the body-part forest: simulated frames reduced to the processing size
// exactly as the tracker reduces them, one probe image per visible person, and a handful of
// labelled pixels of every part per person.

#include <array>
#include <cstdint>
#include <functional>
#include <vector>

#include "classifier/depth_features.h"
#include "classifier/user_statistics.h"
#include "forest/label_distribution.h"
#include "renderer.h"

namespace quorvik::train {

inline constexpr uint32_t kProcessingWidth = 160;
inline constexpr uint32_t kProcessingHeight = 120;

// One person in one frame, as the classifier sees them when that person's pixels are both
// the target and the context: depth of the context pixels inside the context box, and
// kBackgroundDepth everywhere else.
struct ProbeImage {
  int32_t box[4];             // context box in the processing image: x0, y0, x1, y1 inclusive
  float meanDepth = 0;        // of the person's pixels, summed as the classifier sums it
  float scaleX = 0, scaleY = 0;
  std::vector<int16_t> crop;  // (x1 - x0 + 1) x (y1 - y0 + 1), row-major
  skeleton::UserStatistics statistics{};

  // Offset feature (kind 0) at (x, y) of the processing image: bit for bit what the
  // library's DepthProbe gives for the same person.
  float probe(int32_t x, int32_t y, const int16_t offsets[4]) const {
    return read(x, y, offsets[0], offsets[1]) - read(x, y, offsets[2], offsets[3]);
  }

 private:
  float read(int32_t x, int32_t y, int16_t ox, int16_t oy) const {
    const int32_t px = x + static_cast<int32_t>(static_cast<float>(ox) * scaleX);
    const int32_t py = y + static_cast<int32_t>(static_cast<float>(oy) * scaleY);
    if (px < box[0] || px > box[2] || py < box[1] || py > box[3]) return skeleton::kBackgroundDepth;
    const int32_t w = box[2] - box[0] + 1;
    return static_cast<float>(crop[static_cast<size_t>((py - box[1]) * w + (px - box[0]))]);
  }
};

// Builds the probe image of the pixels where `mask` is set (and depth is non-zero).
// Returns false when no pixel qualifies.
bool make_probe_image(const uint16_t* depth, const uint8_t* mask, ProbeImage& out);

struct Sample {
  uint32_t image;  // ProbeImage index
  uint8_t x, y;
  uint8_t label;
};

struct TrainingSet {
  std::vector<ProbeImage> images;
  std::vector<Sample> samples;  // grouped by image, in image order
  std::vector<uint32_t> firstSample;  // per image, plus one past the end
  uint32_t frames = 0;                // rendered frames the images come from
};

struct SetOptions {
  uint64_t firstSeed = 1000000;  // scenario seeds firstSeed, firstSeed + 1, ...
  uint32_t frames = 2000;        // frames to render in all
  uint32_t framesPerScenario = 20;
  uint32_t frameStep = 11;       // frames apart within a scenario (at 30 fps)
  uint32_t perLabel = 6;         // pixels kept per body part per person
  uint32_t minPixels = 40;       // smaller people are skipped
  // People turned further than this from facing the camera are skipped: from depth alone a
  // back looks like a front, and training on both would teach the forest to guess sides.
  float maxTurnDegrees = 70.f;
  uint32_t threads = 1;
};

using ProgressFn = std::function<void(uint32_t done, uint32_t total)>;

// Renders `frames` frames of the simulator's randomised scenario over consecutive seeds, at
// 160x120, 320x240 and 640x480 in turn and mirrored every other scenario, and collects the
// probe images and samples. The result depends only on the options, not on `threads`.
TrainingSet make_training_set(const SetOptions& options, const ProgressFn& progress = {});

// How far the person is turned away from facing the camera, from the shoulders and hips:
// 0 facing it, 90 in profile, 180 showing the back (degrees).
float turn_from_camera(const sim::PersonTruth& person);

// Per-label weights that make every label present weigh the same in total.
std::array<float, skeleton::kLabelCount> balanced_weights(const TrainingSet& set,
                                                          const std::vector<uint32_t>& samples);

}  // namespace quorvik::train
