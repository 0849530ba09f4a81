#include "cli_util.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "support/box_forest.h"
#include "recording.h"
#include "renderer.h"
#include "segmentation/depth_conversion.h"

#ifdef __SANITIZE_ADDRESS__
// The OpenNI2 drivers that the tests load never free some of what they allocate.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
  return "leak:libOniFile.so\nleak:libPS1080.so\nleak:libPSLink.so\nleak:libDummyDevice.so\n";
}
#endif

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
  const quorvik::sim::Scenario sc = quorvik::sim::Scenario::make({.name = scenario, .people = people, .width = width,
                                                                  .height = height, .frames = frames, .seed = 3,
                                                                  .mirrored = mirrored});
  quorvik::sim::Renderer renderer(sc);
  quorvik::sim::RecordingWriter writer(dir, sc);
  quorvik::sim::Frame f;
  for (int i = 0; i < frames; ++i) {
    renderer.render(i, f);
    writer.write(f);
  }
  writer.finish();
}

void write_fakenect_dump(const std::string& recording, const std::string& dump, double secondsApart) {
  const quorvik::sim::Recording rec = quorvik::sim::Recording::open(recording);
  const quorvik::skeleton::ConversionTables tables = quorvik::skeleton::build_conversion_tables({});
  fs::create_directories(dump);
  std::ofstream index(dump + "/INDEX.txt");
  quorvik::sim::Frame f;
  std::vector<uint16_t> shifts;
  for (int i = 0; i < rec.frame_count(); ++i) {
    char name[64];
    std::snprintf(name, sizeof(name), "d-%.6f-%u.pgm", 1000.0 + i * secondsApart, 1000u + static_cast<unsigned>(i) * 1001u);
    index << name << "\n";
    rec.read(i, f);
    shifts.resize(f.depth.size());
    // 2047 is the sensor's "no measurement".
    for (size_t p = 0; p < shifts.size(); ++p) shifts[p] = f.depth.data()[p] == 0 ? 2047 : tables.shift_of(f.depth.data()[p]);
    std::ofstream out(dump + "/" + name, std::ios::binary);
    out << "P5 " << f.depth.width() << " " << f.depth.height() << " 65535\n";
    out.write(reinterpret_cast<const char*>(shifts.data()), static_cast<std::streamsize>(shifts.size() * 2));
  }
}

std::string fakenect_library_dir() {
  for (const char* dir : {"/usr/lib/x86_64-linux-gnu/fakenect", "/usr/lib/fakenect", "/usr/local/lib/fakenect"})
    if (fs::exists(fs::path(dir) / "libfreenect.so.0.5")) return dir;
  return "";
}

std::vector<std::vector<uint16_t>> read_recorded_frames(const std::string& dir) {
  std::vector<std::vector<uint16_t>> frames;
  for (int i = 0;; ++i) {
    char name[64];
    std::snprintf(name, sizeof(name), "depth_%06d.png", i);
    if (!fs::exists(fs::path(dir) / name)) break;
    const op::Image<uint16_t> img = quorvik::sim::read_png16((fs::path(dir) / name).string());
    frames.emplace_back(img.data(), img.data() + img.size());
  }
  return frames;
}

RunResult run_qbt(const std::string& args, const std::string& environment) {
  static int serial = 0;
  const fs::path base = fs::temp_directory_path() / ("qbt-cli-run-" + std::to_string(::getpid()) + "-" + std::to_string(serial++));
  const std::string outPath = base.string() + ".out", errPath = base.string() + ".err";
  const std::string cmd = environment + " '" + QBT_CLI_EXE + "' " + args + " >'" + outPath + "' 2>'" + errPath + "' </dev/null";
  const int status = std::system(cmd.c_str());
  RunResult r;
  r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  r.out = slurp(outPath);
  r.err = slurp(errPath);
  fs::remove(outPath);
  fs::remove(errPath);
  return r;
}

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace cli_test
