#include "report.h"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

namespace quorvik::eval {
namespace {

const char* const kHigherIsBetter[] = {"detection_rate", "part_accuracy", "coverage", "floor_found",
                                       "high_share",     "acquired_share", "mask_precision", "mask_recall",
                                       "side_right",     "back_side_right"};

double ratio(uint64_t a, uint64_t b) { return b == 0 ? 0.0 : static_cast<double>(a) / static_cast<double>(b); }

struct JointSums {
  uint64_t truth = 0, detected = 0, high = 0, low = 0, none = 0;
  std::vector<float> total, lateral, depth;
};

JointSums all_joints(const Tally& t) {
  JointSums s;
  for (const JointTally& j : t.joints) {
    s.truth += j.truth;
    s.detected += j.detected;
    s.high += j.high;
    s.low += j.low;
    s.none += j.none;
    s.total.insert(s.total.end(), j.total.begin(), j.total.end());
    s.lateral.insert(s.lateral.end(), j.lateral.begin(), j.lateral.end());
    s.depth.insert(s.depth.end(), j.depth.begin(), j.depth.end());
  }
  return s;
}

struct Acquisition {
  size_t people = 0, acquired = 0;
  double meanFrames = 0;
  int maxFrames = 0;
};

Acquisition acquisition_of(const Tally& t) {
  Acquisition a;
  a.people = t.acquisition.size();
  double sum = 0;
  for (int d : t.acquisition) {
    if (d < 0) continue;
    ++a.acquired;
    sum += d;
    a.maxFrames = std::max(a.maxFrames, d);
  }
  a.meanFrames = a.acquired == 0 ? 0.0 : sum / static_cast<double>(a.acquired);
  return a;
}

std::string size_of(const EvalCase& c) { return fmt::format("{}x{}", c.options.width, c.options.height); }

std::string or_dash(double v, size_t count, const char* format) {
  return count == 0 ? std::string("-") : fmt::format(fmt::runtime(format), v);
}

}  // namespace

Tally total_of(const std::vector<CaseResult>& results) {
  Tally t;
  for (const CaseResult& r : results) t.merge(r.tally);
  return t;
}

bool higher_is_better(const std::string& metric) {
  return std::find(std::begin(kHigherIsBetter), std::end(kHigherIsBetter), metric) != std::end(kHigherIsBetter);
}

std::map<std::string, double> headline(const Tally& t) {
  std::map<std::string, double> m;
  const JointSums s = all_joints(t);
  if (s.truth > 0) {
    m["detection_rate"] = ratio(s.detected, s.truth);
    m["high_share"] = ratio(s.high, s.truth);
  }
  if (!s.total.empty()) {
    const Stats e = stats_of(s.total);
    m["mean_error_mm"] = e.mean;
    m["median_error_mm"] = e.median;
  }
  if (t.partCompared > 0) m["part_accuracy"] = t.part_accuracy();
  if (t.maskPixels > 0) m["mask_precision"] = t.mask_precision();
  if (t.maskTruth > 0) m["mask_recall"] = t.mask_recall();
  if (t.sideJoints > 0) m["side_right"] = t.side_right();
  if (t.backJoints > 0) m["back_side_right"] = t.back_side_right();
  if (t.personPixels > 0) m["coverage"] = t.coverage();
  if (t.frames > 0) {
    m["floor_found"] = t.floor_found();
    m["false_body_frames"] = static_cast<double>(t.falseBodyFrames);
    m["id_switches"] = t.idSwitches;
  }
  if (!t.floorError.empty()) m["floor_error_deg"] = stats_of(t.floorError).mean;
  const Acquisition a = acquisition_of(t);
  if (a.people > 0) m["acquired_share"] = ratio(a.acquired, a.people);
  if (a.acquired > 0) m["acquisition_frames"] = a.meanFrames;
  return m;
}

void print_table(std::ostream& out, const std::vector<CaseResult>& results) {
  out << fmt::format("{:<22}{:>8}{:>7}{:>8}{:>8}{:>8}{:>7}{:>7}{:>6}{:>6}{:>6}{:>6}{:>6}{:>6}{:>7}{:>7}{:>6}{:>8}\n",
                     "scenario", "size", "frames", "det100", "mean", "median", "parts", "cover", "acq", "prec", "rec",
                     "side", "back", "ids", "false", "floor", "fl.ok", "ms/fr");
  for (const CaseResult& r : results) {
    const Tally& t = r.tally;
    const JointSums s = all_joints(t);
    const Stats e = stats_of(s.total);
    const Acquisition a = acquisition_of(t);
    const std::string acq = a.people == 0 ? "-" : (a.acquired < a.people ? "never" : fmt::format("{:.0f}", a.meanFrames));
    out << fmt::format("{:<22}{:>8}{:>7}{:>8}{:>8}{:>8}{:>7}{:>7}{:>6}{:>6}{:>6}{:>6}{:>6}{:>6}{:>7}{:>7}{:>6}{:>8.2f}\n",
                       r.evalCase.label.substr(0, 21), size_of(r.evalCase), t.frames,
                       or_dash(100.0 * ratio(s.detected, s.truth), s.truth, "{:.1f}%"),
                       or_dash(e.mean, e.count, "{:.0f}"), or_dash(e.median, e.count, "{:.0f}"),
                       or_dash(100.0 * t.part_accuracy(), t.partCompared, "{:.1f}%"),
                       or_dash(100.0 * t.coverage(), t.personPixels, "{:.0f}%"), acq,
                       or_dash(100.0 * t.mask_precision(), t.maskPixels, "{:.0f}%"),
                       or_dash(100.0 * t.mask_recall(), t.maskTruth, "{:.0f}%"),
                       or_dash(100.0 * t.side_right(), t.sideJoints, "{:.0f}%"),
                       or_dash(100.0 * t.back_side_right(), t.backJoints, "{:.0f}%"), t.idSwitches,
                       t.falseBodyFrames, or_dash(stats_of(t.floorError).mean, t.floorError.size(), "{:.2f}"),
                       fmt::format("{:.0f}%", 100.0 * t.floor_found()),
                       t.frames == 0 ? 0.0 : 1000.0 * r.trackSeconds / static_cast<double>(t.frames));
  }

  const Tally total = total_of(results);
  out << fmt::format("\n{:<15}{:>8}{:>8}{:>8}{:>8}{:>9}{:>8}{:>7}{:>7}{:>7}\n", "joint", "truth", "det100", "mean",
                     "median", "lateral", "depth", "High", "Low", "None");
  for (int i = 0; i < kJoints; ++i) {
    const JointTally& j = total.joints[static_cast<size_t>(i)];
    const Stats e = stats_of(j.total), l = stats_of(j.lateral), d = stats_of(j.depth);
    out << fmt::format("{:<15}{:>8}{:>8}{:>8}{:>8}{:>9}{:>8}{:>7}{:>7}{:>7}\n",
                       skeleton::to_string(static_cast<skeleton::JointType>(i)), j.truth,
                       or_dash(100.0 * ratio(j.detected, j.truth), j.truth, "{:.1f}%"),
                       or_dash(e.mean, e.count, "{:.0f}"), or_dash(e.median, e.count, "{:.0f}"),
                       or_dash(l.mean, l.count, "{:.0f}"), or_dash(d.mean, d.count, "{:.0f}"),
                       or_dash(100.0 * ratio(j.high, j.truth), j.truth, "{:.0f}%"),
                       or_dash(100.0 * ratio(j.low, j.truth), j.truth, "{:.0f}%"),
                       or_dash(100.0 * ratio(j.none, j.truth), j.truth, "{:.0f}%"));
  }

  const JointSums s = all_joints(total);
  const Stats e = stats_of(s.total), l = stats_of(s.lateral), d = stats_of(s.depth);
  const Acquisition a = acquisition_of(total);
  double trackSeconds = 0;
  for (const CaseResult& r : results) trackSeconds += r.trackSeconds;
  out << "\nall scenarios\n";
  out << fmt::format("  joints within 100 mm    {:.1f}% of {} visible truth joints\n",
                     100.0 * ratio(s.detected, s.truth), s.truth);
  out << fmt::format("  error (mm)              mean {}  median {}  (image plane: mean {}  median {};"
                     " depth: mean {}  median {})\n",
                     or_dash(e.mean, e.count, "{:.0f}"), or_dash(e.median, e.count, "{:.0f}"),
                     or_dash(l.mean, l.count, "{:.0f}"), or_dash(l.median, l.count, "{:.0f}"),
                     or_dash(d.mean, d.count, "{:.0f}"), or_dash(d.median, d.count, "{:.0f}"));
  out << fmt::format("  truth joints reported   High {:.1f}%  Low {:.1f}%  None {:.1f}%\n",
                     100.0 * ratio(s.high, s.truth), 100.0 * ratio(s.low, s.truth), 100.0 * ratio(s.none, s.truth));
  out << fmt::format("  first tracked           {} of {} people; mean {:.1f} frames, at most {} frames after full view\n",
                     a.acquired, a.people, a.meanFrames, a.maxFrames);
  out << fmt::format("  id switches             {}\n", total.idSwitches);
  out << fmt::format("  false bodies            {} body-frames in {} frames\n", total.falseBodyFrames, total.frames);
  out << fmt::format("  floor                   found in {:.1f}% of frames; normal error mean {} median {} degrees\n",
                     100.0 * total.floor_found(), or_dash(stats_of(total.floorError).mean, total.floorError.size(), "{:.2f}"),
                     or_dash(stats_of(total.floorError).median, total.floorError.size(), "{:.2f}"));
  out << fmt::format("  sides                   {} of left and right joints on their own side; {} while the back is turned\n",
                     or_dash(100.0 * total.side_right(), total.sideJoints, "{:.1f}%"),
                     or_dash(100.0 * total.back_side_right(), total.backJoints, "{:.1f}%"));
  out << fmt::format("  body parts              {:.1f}% of labelled person pixels right; {:.1f}% of person pixels labelled\n",
                     100.0 * total.part_accuracy(), 100.0 * total.coverage());
  out << fmt::format("  tracker                 {:.2f} ms per frame over {} frames\n",
                     total.frames == 0 ? 0.0 : 1000.0 * trackSeconds / static_cast<double>(total.frames), total.frames);
}

nlohmann::json to_json(const std::vector<CaseResult>& results) {
  using nlohmann::json;
  auto joint_json = [](const JointTally& j) {
    const Stats e = stats_of(j.total), l = stats_of(j.lateral), d = stats_of(j.depth);
    return json{{"truth", j.truth},
                {"detection_rate", ratio(j.detected, j.truth)},
                {"mean_error_mm", e.mean},
                {"median_error_mm", e.median},
                {"lateral_mean_mm", l.mean},
                {"lateral_median_mm", l.median},
                {"depth_mean_mm", d.mean},
                {"depth_median_mm", d.median},
                {"high", ratio(j.high, j.truth)},
                {"low", ratio(j.low, j.truth)},
                {"none", ratio(j.none, j.truth)}};
  };
  auto tally_json = [&](const Tally& t) {
    json j = headline(t);
    json joints = json::object();
    for (int i = 0; i < kJoints; ++i)
      joints[skeleton::to_string(static_cast<skeleton::JointType>(i))] = joint_json(t.joints[static_cast<size_t>(i)]);
    j["joints"] = joints;
    j["frames"] = t.frames;
    j["acquisition"] = t.acquisition;
    json byDistance = json::array();
    for (int b = 0; b < kDistanceBins; ++b) {
      const Stats s = stats_of(t.errorByDistance[static_cast<size_t>(b)]);
      byDistance.push_back({{"from_mm", b * kDistanceBinMm}, {"count", s.count}, {"mean_error_mm", s.mean}});
    }
    j["error_by_distance"] = byDistance;
    return j;
  };
  json doc;
  doc["format"] = "qbt-eval";
  json cases = json::array();
  double trackSeconds = 0;
  for (const CaseResult& r : results) {
    json c = tally_json(r.tally);
    c["label"] = r.evalCase.label;
    c["scenario"] = r.evalCase.options.name;
    c["people"] = r.evalCase.options.people;
    c["width"] = r.evalCase.options.width;
    c["height"] = r.evalCase.options.height;
    c["seed"] = r.evalCase.options.seed;
    c["mirrored"] = r.evalCase.options.mirrored;
    if (r.evalCase.cameraHeight) c["camera_height_mm"] = *r.evalCase.cameraHeight;
    if (r.evalCase.pitchDeg) c["camera_pitch_deg"] = *r.evalCase.pitchDeg;
    c["enter_first"] = r.evalCase.enterFirst;
    c["track_ms_per_frame"] = r.tally.frames == 0 ? 0.0 : 1000.0 * r.trackSeconds / static_cast<double>(r.tally.frames);
    trackSeconds += r.trackSeconds;
    cases.push_back(c);
  }
  doc["scenarios"] = cases;
  const Tally total = total_of(results);
  doc["total"] = tally_json(total);
  doc["total"]["track_ms_per_frame"] =
      total.frames == 0 ? 0.0 : 1000.0 * trackSeconds / static_cast<double>(total.frames);
  return doc;
}

std::vector<std::string> check_floors(const std::map<std::string, double>& metrics, const nlohmann::json& floors) {
  std::vector<std::string> failures;
  auto check = [&](const char* section, bool isMin) {
    if (!floors.contains(section)) return;
    for (const auto& [name, bound] : floors[section].items()) {
      const double limit = bound.get<double>();
      const auto it = metrics.find(name);
      if (it == metrics.end()) {
        failures.push_back(fmt::format("{} has no value in this run (bound {})", name, limit));
      } else if (isMin ? it->second < limit : it->second > limit) {
        failures.push_back(fmt::format("{} is {:.4g}, {} the stored {} of {:.4g}", name, it->second,
                                       isMin ? "below" : "above", isMin ? "floor" : "ceiling", limit));
      }
    }
  };
  check("min", true);
  check("max", false);
  return failures;
}

nlohmann::json floors_from(const std::map<std::string, double>& metrics) {
  nlohmann::json out;
  out["min"] = nlohmann::json::object();
  out["max"] = nlohmann::json::object();
  for (const auto& [name, value] : metrics) {
    // Rounded so the file reads well and a rerun of the same build stays inside it.
    if (higher_is_better(name)) {
      out["min"][name] = std::floor(value * 0.9 * 1000.0) / 1000.0;
    } else {
      const double slack = name == "id_switches" || name == "false_body_frames" ? 2.0
                           : name == "floor_error_deg"                          ? 1.0
                           : name == "acquisition_frames"                       ? 10.0
                                                                                : 10.0;
      out["max"][name] = std::ceil((value * 1.25 + slack) * 10.0) / 10.0;
    }
  }
  return out;
}

}  // namespace quorvik::eval
