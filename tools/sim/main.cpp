// qbt-sim: writes a synthetic depth recording of a named scenario.

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>

#include "recording.h"
#include "renderer.h"
#include "scene.h"

namespace {

void progress(int done, int total, double seconds) {
  constexpr int kWidth = 40;
  const int filled = total > 0 ? done * kWidth / total : kWidth;
  std::string bar(static_cast<size_t>(filled), '#');
  bar.resize(kWidth, '.');
  std::fprintf(stderr, "\r[%s] %d/%d frames  %.1f fps", bar.c_str(), done, total,
               seconds > 0 ? done / seconds : 0.0);
  std::fflush(stderr);
}

}  // namespace

int main(int argc, char** argv) {
  using namespace quorvik::sim;
  CLI::App app{"Writes a synthetic depth recording of people in a room, with ground truth."};
  ScenarioOptions o;
  std::string size = "320x240", out;
  bool list = false, quiet = false;
  app.add_option("scenario", o.name, "Scenario name (see --list)");
  app.add_option("--people", o.people, "Number of people (default: the scenario's own)");
  app.add_option("--size", size, "Image size: 160x120, 320x240 or 640x480");
  app.add_option("--frames", o.frames, "Number of frames")->check(CLI::NonNegativeNumber);
  app.add_option("--seed", o.seed, "Random seed; the same seed gives the same recording");
  app.add_option("--fps", o.fps, "Frame rate")->check(CLI::PositiveNumber);
  app.add_flag("--mirrored", o.mirrored, "Deliver mirrored depth, as a mirroring sensor does");
  app.add_option("--out", out, "Output directory");
  app.add_flag("--list", list, "List the scenario names and exit");
  app.add_flag("--quiet", quiet, "No progress bar");
  CLI11_PARSE(app, argc, argv);

  if (list) {
    for (const std::string& n : scenario_names()) std::cout << n << "\n";
    return 0;
  }
  if (out.empty()) {
    std::cerr << "--out is required\n";
    return 2;
  }
  const auto x = size.find('x');
  try {
    if (x == std::string::npos) throw std::invalid_argument("size must be WIDTHxHEIGHT");
    o.width = static_cast<uint32_t>(std::stoul(size.substr(0, x)));
    o.height = static_cast<uint32_t>(std::stoul(size.substr(x + 1)));
    const Scenario scenario = Scenario::make(o);
    Renderer renderer(scenario);
    RecordingWriter writer(out, scenario);
    Frame frame;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < scenario.frame_count(); ++i) {
      renderer.render(i, frame);
      writer.write(frame);
      if (!quiet && (i % 5 == 0 || i + 1 == scenario.frame_count()))
        progress(i + 1, scenario.frame_count(),
                 std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    writer.finish();
    if (!quiet) std::fprintf(stderr, "\n");
  } catch (const std::exception& e) {
    std::cerr << "qbt-sim: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
