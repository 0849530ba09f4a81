#include "training_set.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <mutex>
#include <thread>

#include "op/image.h"
#include "skeleton/vocabulary.h"
#include "renderer.h"
#include "scene.h"
#include "sim_math.h"

namespace quorvik::train {
namespace {

constexpr uint8_t kFirstPart = 1;  // carried objects and bags are labelled too
constexpr uint8_t kLastPart = 27;

struct ScenarioPart {
  std::vector<ProbeImage> images;
  std::vector<Sample> samples;
  uint32_t frames = 0;
};

// Render sizes in turn: the tracker reduces every input size, and each reduction leaves
// slightly different edges.
uint32_t render_scale(uint64_t seed) {
  switch (seed % 4) {
    case 0: return 1;
    case 3: return 4;
    default: return 2;
  }
}

void collect_person(const sim::Frame& small, uint8_t id, sim::Rng& rng, uint32_t perLabel,
                    uint32_t minPixels, ScenarioPart& part) {
  const size_t n = small.depth.size();
  std::vector<uint8_t> mask(n, 0);
  uint32_t count = 0;
  for (size_t i = 0; i < n; ++i) {
    if (small.ids[i] == id && small.depth[i] != 0) {
      mask[i] = 1;
      ++count;
    }
  }
  if (count < minPixels) return;
  ProbeImage image;
  if (!make_probe_image(small.depth.data(), mask.data(), image)) return;

  // A few pixels of every part: the torso has hundreds of pixels per person, a hand a dozen.
  std::array<std::vector<uint32_t>, kLastPart + 1> byLabel;
  for (size_t i = 0; i < n; ++i) {
    const uint8_t label = small.labels[i];
    if (mask[i] && label >= kFirstPart && label <= kLastPart) byLabel[label].push_back(static_cast<uint32_t>(i));
  }
  const auto index = static_cast<uint32_t>(part.images.size());
  for (auto& pixels : byLabel) {
    for (uint32_t k = 0; k < perLabel && k < pixels.size(); ++k) {
      const auto j = k + static_cast<uint32_t>(rng.next() % (pixels.size() - k));
      std::swap(pixels[k], pixels[j]);
      const uint32_t i = pixels[k];
      part.samples.push_back(Sample{index, static_cast<uint8_t>(i % kProcessingWidth),
                                    static_cast<uint8_t>(i / kProcessingWidth), small.labels[i]});
    }
  }
  part.images.push_back(std::move(image));
}

ScenarioPart render_scenario(const SetOptions& o, uint64_t seed, uint32_t frames) {
  ScenarioPart part;
  const uint32_t scale = render_scale(seed);
  sim::ScenarioOptions so;
  so.name = "mixed";
  so.seed = seed;
  so.width = kProcessingWidth * scale;
  so.height = kProcessingHeight * scale;
  so.frames = static_cast<int>(o.framesPerScenario * o.frameStep);
  so.mirrored = (seed % 2) == 1;
  const sim::Scenario scenario = sim::Scenario::make(so);
  sim::Renderer renderer(scenario);
  sim::Rng rng(seed ^ 0x5eed5eedull);
  sim::Frame frame, small;
  for (uint32_t f = 0; f < frames; ++f) {
    // Start at a random phase so that the first frames of scenarios are not over-represented.
    const int index = static_cast<int>(f * o.frameStep + rng.next() % o.frameStep);
    renderer.render(index, frame);
    sim::reduce_to(frame, kProcessingWidth, kProcessingHeight, small);
    ++part.frames;
    for (const sim::PersonTruth& person : small.people) {
      if (turn_from_camera(person) > o.maxTurnDegrees) continue;
      collect_person(small, person.id, rng, o.perLabel, o.minPixels, part);
    }
  }
  return part;
}

}  // namespace

float turn_from_camera(const sim::PersonTruth& person) {
  using skeleton::JointType;
  auto at = [&](JointType t) { return person.joints[static_cast<size_t>(t)].camera; };
  // The model's left lies on the image's right for a person facing the camera.
  const float sx = at(JointType::LeftShoulder).x - at(JointType::RightShoulder).x + at(JointType::LeftHip).x -
                   at(JointType::RightHip).x;
  const float sz = at(JointType::LeftShoulder).z - at(JointType::RightShoulder).z + at(JointType::LeftHip).z -
                   at(JointType::RightHip).z;
  return std::atan2(std::fabs(sz), sx) * 57.29578f;
}

bool make_probe_image(const uint16_t* depth, const uint8_t* mask, ProbeImage& out) {
  const int32_t w = kProcessingWidth, h = kProcessingHeight;
  int32_t box[4] = {w, h, -1, -1};
  // Summed in row order over the box, in single precision, as the classifier sums it, so
  // that the probe scales agree to the last bit.
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t x = 0; x < w; ++x) {
      const size_t i = static_cast<size_t>(y * w + x);
      if (!mask[i] || depth[i] == 0) continue;
      box[0] = std::min(box[0], x);
      box[1] = std::min(box[1], y);
      box[2] = std::max(box[2], x);
      box[3] = std::max(box[3], y);
    }
  }
  if (box[0] > box[2]) return false;
  float sum = 0.f;
  uint32_t count = 0;
  for (int32_t y = box[1]; y <= box[3]; ++y) {
    for (int32_t x = box[0]; x <= box[2]; ++x) {
      const size_t i = static_cast<size_t>(y * w + x);
      if (!mask[i] || depth[i] == 0) continue;
      sum += static_cast<float>(static_cast<int16_t>(depth[i]));
      ++count;
    }
  }
  out.meanDepth = sum / static_cast<float>(count);
  out.scaleX = static_cast<float>(kProcessingWidth & ~3u) / out.meanDepth;
  out.scaleY = static_cast<float>(kProcessingHeight) / out.meanDepth;
  std::copy(box, box + 4, out.box);
  const int32_t cw = box[2] - box[0] + 1;
  out.crop.assign(static_cast<size_t>(cw * (box[3] - box[1] + 1)),
                  static_cast<int16_t>(skeleton::kBackgroundDepth));
  for (int32_t y = box[1]; y <= box[3]; ++y) {
    for (int32_t x = box[0]; x <= box[2]; ++x) {
      const size_t i = static_cast<size_t>(y * w + x);
      if (mask[i] && depth[i] != 0) {
        out.crop[static_cast<size_t>((y - box[1]) * cw + (x - box[0]))] = static_cast<int16_t>(depth[i]);
      }
    }
  }
  op::Image<uint16_t> depthImage(kProcessingWidth, kProcessingHeight);
  op::Image<uint16_t> labelMap(kProcessingWidth, kProcessingHeight);
  for (size_t i = 0; i < depthImage.size(); ++i) {
    depthImage[i] = depth[i];
    labelMap[i] = mask[i] ? 1 : 0;
  }
  const uint16_t own[1] = {1};
  out.statistics = skeleton::computeUserStatistics(depthImage, labelMap, own, {});
  return true;
}

TrainingSet make_training_set(const SetOptions& o, const ProgressFn& progress) {
  const uint32_t perScenario = std::max(1u, o.framesPerScenario);
  const uint32_t scenarios = (o.frames + perScenario - 1) / perScenario;
  std::vector<ScenarioPart> parts(scenarios);
  std::atomic<uint32_t> next{0};
  std::atomic<uint32_t> done{0};
  std::mutex progressMutex;
  auto work = [&] {
    for (uint32_t s; (s = next.fetch_add(1)) < scenarios;) {
      const uint32_t frames = std::min(perScenario, o.frames - s * perScenario);
      parts[s] = render_scenario(o, o.firstSeed + s, frames);
      const uint32_t d = done.fetch_add(frames) + frames;
      if (progress) {
        std::lock_guard lock(progressMutex);
        progress(d, o.frames);
      }
    }
  };
  std::vector<std::thread> workers;
  for (uint32_t t = 1; t < std::max(1u, o.threads); ++t) workers.emplace_back(work);
  work();
  for (std::thread& t : workers) t.join();

  TrainingSet set;
  for (ScenarioPart& part : parts) {
    const auto base = static_cast<uint32_t>(set.images.size());
    for (Sample s : part.samples) {
      s.image += base;
      set.samples.push_back(s);
    }
    for (ProbeImage& image : part.images) set.images.push_back(std::move(image));
    set.frames += part.frames;
  }
  set.firstSample.assign(set.images.size() + 1, 0);
  for (const Sample& s : set.samples) ++set.firstSample[s.image + 1];
  for (size_t i = 1; i < set.firstSample.size(); ++i) set.firstSample[i] += set.firstSample[i - 1];
  return set;
}

std::array<float, skeleton::kLabelCount> balanced_weights(const TrainingSet& set,
                                                          const std::vector<uint32_t>& samples) {
  std::array<double, skeleton::kLabelCount> count{};
  for (uint32_t i : samples) count[set.samples[i].label] += 1.0;
  uint32_t present = 0;
  for (double c : count) present += c > 0 ? 1 : 0;
  std::array<float, skeleton::kLabelCount> weight{};
  for (size_t l = 0; l < count.size(); ++l) {
    if (count[l] > 0) weight[l] = static_cast<float>(static_cast<double>(samples.size()) / (present * count[l]));
  }
  return weight;
}

}  // namespace quorvik::train
