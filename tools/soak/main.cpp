// qbt-soak: a long run of one tracker through the shared library, as a host with a camera
// sees it. The recording is simulated once, held in memory and played in a loop; the depth
// map size changes every few hundred updates. Prints the resident size at the start, after
// 1,000 updates and at the end, the thread count, and the update times per size.
// Exits with 1 when an update fails or the resident size grew by more than the allowance
// between update 1,000 and the end.

#include <dirent.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "quorvik/body_tracking.h"
#include "renderer.h"
#include "scene.h"

namespace {

double resident_mb() {
  std::ifstream status("/proc/self/status");
  std::string key;
  while (status >> key) {
    if (key == "VmRSS:") {
      double kib = 0;
      status >> kib;
      return kib / 1024.0;
    }
    status.ignore(1 << 12, '\n');
  }
  return 0;
}

int thread_count() {
  int n = 0;
  if (DIR* dir = opendir("/proc/self/task")) {
    while (const dirent* entry = readdir(dir))
      if (entry->d_name[0] != '.') ++n;
    closedir(dir);
  }
  return n;
}

// Every k-th pixel of every k-th row: the frame as a camera of lower resolution gives it.
void subsample(const std::vector<uint16_t>& full, int width, int k, std::vector<uint16_t>& out) {
  const int w = width / k;
  const int h = static_cast<int>(full.size()) / width / k;
  out.resize(size_t(w) * h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) out[size_t(y) * w + x] = full[size_t(y) * k * width + size_t(x) * k];
}

double percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const size_t i = std::min(values.size() - 1, static_cast<size_t>(p * static_cast<double>(values.size() - 1) + 0.5));
  return values[i];
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Long run of one tracker over a looping simulated recording"};
  int updates = 10000;
  int frames = 150;
  int people = 3;
  int every = 300;
  double allowanceMb = 2.0;
  std::string scenario = "crossing";
  std::string data = QBT_SOURCE_DIR "/data/QuorvikBodyTracking.data";
  app.add_option("--updates", updates, "updates in all")->check(CLI::PositiveNumber);
  app.add_option("--frames", frames, "frames of the recording, played in a loop")->check(CLI::PositiveNumber);
  app.add_option("--people", people, "people in the recording (2 or 3 for crossing)");
  app.add_option("--scenario", scenario, "simulator scenario");
  app.add_option("--switch-every", every, "updates between size changes")->check(CLI::PositiveNumber);
  app.add_option("--allowance-mb", allowanceMb, "growth allowed between update 1,000 and the end");
  app.add_option("--data", data, "data file");
  CLI11_PARSE(app, argc, argv);

  // The recording, at 640x480; the smaller sizes are taken from it.
  quorvik::sim::ScenarioOptions options;
  options.name = scenario;
  options.people = people;
  options.width = 640;
  options.height = 480;
  options.frames = frames;
  options.seed = 11;
  const quorvik::sim::Scenario sim = quorvik::sim::Scenario::make(options);
  quorvik::sim::Renderer renderer(sim);
  std::vector<std::vector<uint16_t>> recording(static_cast<size_t>(frames));
  quorvik::sim::Frame frame;
  for (int i = 0; i < frames; ++i) {
    renderer.render(i, frame);
    recording[size_t(i)].assign(frame.depth.data(), frame.depth.data() + frame.depth.size());
  }
  std::printf("recording: %s, %d people, %d frames at 640x480, played in a loop\n", scenario.c_str(), people, frames);

  qbt_bodytracker_options_t trackerOptions;
  qbt_bodytracker_fill_default_options(&trackerOptions);
  trackerOptions.dataFilePath = data.c_str();
  qbt_bodytracker_t tracker = nullptr;
  if (qbt_bodytracker_create(&trackerOptions, &tracker) != 0) {
    std::fprintf(stderr, "cannot create a tracker\n");
    return 1;
  }

  // Mostly 640x480, with stretches at the smaller sizes.
  constexpr int kScales[] = {1, 1, 2, 1, 4};
  std::map<int, std::vector<double>> times;  // by width
  std::vector<uint16_t> small;
  int failures = 0;
  uint64_t bodies = 0;
  double startMb = 0, after1000Mb = 0;
  for (int i = 0; i < updates; ++i) {
    const int k = kScales[(i / every) % std::size(kScales)];
    const std::vector<uint16_t>& full = recording[size_t(i % frames)];
    const uint16_t* pixels = full.data();
    if (k != 1) {
      subsample(full, 640, k, small);
      pixels = small.data();
    }
    const qbt_depthmap_t map{pixels, 640 / k, 480 / k};
    qbt_bodyframe_t bodyFrame{};
    const auto t0 = std::chrono::steady_clock::now();
    const qbt_result_t code = qbt_bodytracker_update(tracker, &map, &bodyFrame);
    const auto t1 = std::chrono::steady_clock::now();
    if (code != 0) {
      qbt_error_info_t info{};
      qbt_error_info(&info);
      if (++failures <= 5) std::fprintf(stderr, "update %d: %s\n", i, info.message);
      continue;
    }
    times[map.width].push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
    qbt_bodylist_t list{};
    qbt_bodyframe_body_list(bodyFrame, &list);
    bodies += list.count;
    qbt_bodyframe_release(&bodyFrame);
    if (i == 0) {
      startMb = resident_mb();
      std::printf("RSS at start (after the first update): %.1f MB, threads %d\n", startMb, thread_count());
    }
    if (i + 1 == 1000) {
      after1000Mb = resident_mb();
      std::printf("RSS after 1,000 updates: %.1f MB\n", after1000Mb);
    }
  }
  const double endMb = resident_mb();
  std::printf("RSS after %d updates: %.1f MB (%+.1f MB since update 1,000), threads %d\n", updates, endMb,
              endMb - after1000Mb, thread_count());
  std::printf("bodies per update: %.2f, failed updates: %d\n", static_cast<double>(bodies) / updates, failures);
  for (auto it = times.rbegin(); it != times.rend(); ++it) {
    const std::vector<double>& t = it->second;
    std::printf("%dx%d: %zu updates, median %.2f ms, p99 %.2f ms, max %.2f ms\n", it->first, it->first * 3 / 4,
                t.size(), percentile(t, 0.5), percentile(t, 0.99), *std::max_element(t.begin(), t.end()));
  }
  qbt_bodytracker_destroy(&tracker);
  const bool grew = updates >= 1000 && endMb - after1000Mb > allowanceMb;
  if (grew) std::printf("resident size grew by more than %.1f MB\n", allowanceMb);
  return failures != 0 || grew ? 1 : 0;
}
