#include "stage_timer.h"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "busy_threads.h"
#include "classifier/frame_classifier.h"
#include "op/thread_pool.h"
#include "renderer.h"
#include "runner.h"
#include "skeleton/model_tracker.h"
#include "tracker/body_tracker.h"

namespace quorvik::eval {
namespace {

using Clock = std::chrono::steady_clock;
using namespace skeleton;

double ms_since(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

// Processor time of every thread of the process, milliseconds.
double process_cpu_ms() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) * 1e-6;
}

// A kB field of /proc/self/status ("VmRSS:", "VmHWM:") in MiB; 0 where there is none.
double status_mb(const std::string& field) {
  std::ifstream status("/proc/self/status");
  std::string key;
  while (status >> key) {
    if (key == field) {
      double kib = 0;
      status >> kib;
      return kib / 1024.0;
    }
    status.ignore(1 << 12, '\n');
  }
  return 0;
}

// The tracker's frame, step by step, with the same parts and parameters, so that each
// step can be clocked.
class SteppedTracker {
 public:
  explicit SteppedTracker(const DecisionForest* forest)
      : forest_(forest),
        camera_(kDefaultHorizontalFovDegrees * kDegreesToRadians, kDefaultVerticalFovDegrees * kDegreesToRadians, 160.f,
                120.f),
        tables_(build_conversion_tables({})),
        analyzer_(kDefaultHorizontalFovDegrees, kDefaultVerticalFovDegrees, 160, 120),
        classifier_(forest),
        labels_(160, 120),
        userIds_(160, 120),
        points_(160, 120),
        depth_(160, 120) {}

  void update(const op::Image<uint16_t>& input, bool mirrored, double* ms) {
    auto t = Clock::now();
    reduce_min_nonzero(input.data(), input.width(), input.height(), depth_);
    ms[0] += ms_since(t);
    t = Clock::now();
    camera_.to_world(depth_, points_);
    ms[1] += ms_since(t);
    t = Clock::now();
    analyzer_.update(depth_, tables_, mirrored, users_);
    ms[2] += ms_since(t);
    labels_.fill(PixelLabel{});
    userIds_.fill(0);
    // Without trees the tracker classifies nobody and fits no skeleton.
    if (forest_->tree_count() == 0) {
      ++frame_;
      return;
    }
    for (TrackedUser& user : users_) {
      if (user.lost != 0) continue;
      t = Clock::now();
      float score = 0.f;
      RegionBox region;
      const ClassifierUser classified{user.id, user.labels, user.candidates};
      classifier_.classify_user(depth_, analyzer_.userLabels(), classified, 0.35f, labels_, userIds_, score, region,
                                pool_);
      ms[3] += ms_since(t);
      t = Clock::now();
      modelTracker_.step(user.skeleton, labels_, points_, userIds_, region, frame_, camera_);
      ms[4] += ms_since(t);
    }
    ++frame_;
  }

 private:
  const DecisionForest* forest_;
  DepthCameraModel camera_;
  ConversionTables tables_;
  UserAnalyzer analyzer_;
  FrameClassifier classifier_;
  ModelTracker modelTracker_;
  op::Image<PixelLabel> labels_;
  op::Image<uint8_t> userIds_;
  op::Image<WorldPoint> points_;
  op::Image<uint16_t> depth_;
  std::vector<TrackedUser> users_;
  op::ThreadPool pool_;
  uint32_t frame_ = 0;
};

}  // namespace

double StageTiming::stage_total() const {
  double sum = 0;
  for (double v : stageMs) sum += v;
  return sum;
}

std::vector<StageTiming> time_stages(const DecisionForest& forest, const BenchOptions& options) {
  std::vector<StageTiming> rows;
  for (uint32_t width : options.widths) {
    for (int people : options.people) {
      // People turning on the spot stay in view; they walk in first, as people standing
      // still from the first frame may stay part of the background.
      EvalCase c;
      c.options.name = "turn";
      c.options.people = people;
      c.options.width = width;
      c.options.height = width * 3 / 4;
      c.options.frames = options.warmup + options.frames;
      c.options.seed = options.seed;
      c.enterFirst = true;
      const sim::ScenarioOptions& o = c.options;
      const sim::Scenario scenario = build_scenario(c);
      sim::Renderer renderer(scenario);
      const double residentBefore = status_mb("VmRSS:");
      BodyTracker tracker(TrackerOptions{}, copy_forest(forest), 160, 120);
      tracker.isDepthMirrored = false;
      // Made after the tracker's first update, so that what that update allocates is counted
      // as the tracker's.
      std::optional<SteppedTracker> stepped;
      StageTiming row;
      row.width = width;
      row.height = o.height;
      row.people = people;
      double scratch[kStageCount] = {};
      std::vector<double> updates;
      sim::Frame frame;
      const BusyThreads busy(options.busy);
      for (int i = 0; i < o.frames; ++i) {
        renderer.render(i, frame);
        const bool timed = i >= options.warmup;
        const double cpu = process_cpu_ms();
        const auto t = Clock::now();
        (void)tracker.update(width, o.height, frame.depth.data());
        if (timed) {
          updates.push_back(ms_since(t));
          row.cpuMs += process_cpu_ms() - cpu;
        }
        if (!stepped) {
          row.trackerMb = status_mb("VmRSS:") - residentBefore;
          stepped.emplace(&forest);
        }
        stepped->update(frame.depth, false, timed ? row.stageMs : scratch);
        if (!timed) continue;
        ++row.frames;
        for (const Body& b : tracker.bodies())
          row.bodies += b.status == BodyStatus::Tracking || b.status == BodyStatus::TrackingStarted ? 1 : 0;
      }
      row.peakMb = status_mb("VmHWM:");
      if (row.frames > 0) {
        for (double ms : updates) row.updateMs += ms;
        row.updateMs /= row.frames;
        row.cpuMs /= row.frames;
        std::sort(updates.begin(), updates.end());
        row.medianMs = updates[updates.size() / 2];
        row.p99Ms = updates[std::min(updates.size() - 1, updates.size() * 99 / 100)];
        for (double& v : row.stageMs) v /= row.frames;
        row.bodies /= row.frames;
      }
      rows.push_back(row);
    }
  }
  return rows;
}

void print_stage_table(std::ostream& out, const std::vector<StageTiming>& rows) {
  out << fmt::format("{:<9}{:>7}{:>8}{:>9}{:>8}{:>8}{:>8}{:>8}{:>9}{:>8}", "size", "people", "bodies", "ms/frame",
                     "median", "p99", "cpu ms", "fps", "MB/trk", "peak MB");
  for (const char* name : kStageNames) out << fmt::format("{:>16}", name);
  out << "\n";
  for (const StageTiming& r : rows) {
    out << fmt::format("{:<9}{:>7}{:>8.1f}{:>9.2f}{:>8.2f}{:>8.2f}{:>8.2f}{:>8.0f}{:>9.1f}{:>8.1f}",
                       fmt::format("{}x{}", r.width, r.height), r.people, r.bodies, r.updateMs, r.medianMs, r.p99Ms,
                       r.cpuMs, r.fps(), r.trackerMb, r.peakMb);
    const double total = r.stage_total();
    for (double ms : r.stageMs)
      out << fmt::format("{:>16}", fmt::format("{:.2f} ({:.0f}%)", ms, total > 0 ? 100.0 * ms / total : 0.0));
    out << "\n";
  }
  out << "ms/frame (mean), median, p99 and fps: the tracker's update; cpu ms: the process's processor time per update"
         " (mean, all threads); MB/trk: resident memory one tracker added; peak MB: the process's peak resident memory"
         " (the bench holds a second, stepped tracker and the renderer too); stages: the same frames step by step, mean"
         " ms (share of their sum)\n";
}

nlohmann::json stage_json(const std::vector<StageTiming>& rows) {
  nlohmann::json out = nlohmann::json::array();
  for (const StageTiming& r : rows) {
    nlohmann::json stages = nlohmann::json::object();
    const double total = r.stage_total();
    for (int i = 0; i < kStageCount; ++i)
      stages[kStageNames[i]] = {{"ms", r.stageMs[i]}, {"share", total > 0 ? r.stageMs[i] / total : 0.0}};
    out.push_back({{"width", r.width},
                   {"height", r.height},
                   {"people", r.people},
                   {"frames", r.frames},
                   {"bodies", r.bodies},
                   {"ms_per_frame", r.updateMs},
                   {"median_ms", r.medianMs},
                   {"p99_ms", r.p99Ms},
                   {"fps", r.fps()},
                   {"cpu_ms_per_update", r.cpuMs},
                   {"tracker_mb", r.trackerMb},
                   {"peak_rss_mb", r.peakMb},
                   {"stages", stages}});
  }
  return out;
}

}  // namespace quorvik::eval
