#include "cli_util.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "support/box_forest.h"
#include "recording.h"
#include "renderer.h"

namespace cli_test {

namespace fs = std::filesystem;

ScratchDir::ScratchDir(const std::string& name)
    : path_(fs::temp_directory_path() / ("qbt-cli-" + name + "-" + std::to_string(::getpid()))) {
  fs::remove_all(path_);
  fs::create_directories(path_);
}

ScratchDir::~ScratchDir() {
  std::error_code ec;
  fs::remove_all(path_, ec);
}

void write_box_forest(const std::string& path) { box_forest::write(path); }

void write_recording(const std::string& dir, const std::string& scenario, int frames, int people, bool mirrored,
                     uint32_t width, uint32_t height) {
  quorvik::sim::ScenarioOptions o;
  o.name = scenario;
  o.frames = frames;
  o.people = people;
  o.mirrored = mirrored;
  o.width = width;
  o.height = height;
  o.seed = 3;
  const quorvik::sim::Scenario sc = quorvik::sim::Scenario::make(o);
  quorvik::sim::Renderer renderer(sc);
  quorvik::sim::RecordingWriter writer(dir, sc);
  quorvik::sim::Frame f;
  for (int i = 0; i < frames; ++i) {
    renderer.render(i, f);
    writer.write(f);
  }
  writer.finish();
}

RunResult run_qbt(const std::string& args, const std::string& environment) {
  static int serial = 0;
  const fs::path base = fs::temp_directory_path() / ("qbt-cli-run-" + std::to_string(::getpid()) + "-" + std::to_string(serial++));
  const std::string outPath = base.string() + ".out", errPath = base.string() + ".err";
  const std::string cmd = environment + " '" + QBT_CLI_EXE + "' " + args + " >'" + outPath + "' 2>'" + errPath + "' </dev/null";
  const int status = std::system(cmd.c_str());
  RunResult r;
  r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  auto slurp = [](const std::string& p) {
    std::ifstream in(p);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  };
  r.out = slurp(outPath);
  r.err = slurp(errPath);
  fs::remove(outPath);
  fs::remove(errPath);
  return r;
}

}  // namespace cli_test
