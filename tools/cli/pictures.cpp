#include "pictures.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>

#include "cli_error.h"
#include "overlay.h"

namespace quorvik::cli {

namespace fs = std::filesystem;

namespace {

constexpr int kSheetTiles = 24;
constexpr int kSheetColumns = 6;

std::string shell_quote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

std::string frame_png(int index) {
  char name[64];
  std::snprintf(name, sizeof(name), "overlay_%06d.png", index);
  return name;
}

}  // namespace

std::string find_on_path(const std::string& program) {
  const char* path = std::getenv("PATH");
  if (path == nullptr) return {};
  std::string dirs = path;
  size_t start = 0;
  while (start <= dirs.size()) {
    const size_t end = std::min(dirs.find(':', start), dirs.size());
    const std::string dir = dirs.substr(start, end - start);
    if (!dir.empty()) {
      const std::string candidate = dir + "/" + program;
      if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    start = end + 1;
  }
  return {};
}

PictureWriter::PictureWriter(PictureOptions options) : options_(std::move(options)) {
  std::error_code ec;
  fs::create_directories(options_.dir, ec);
  if (ec || !fs::is_directory(options_.dir))
    throw CliError(kExitOutput, "cannot create the picture folder " + options_.dir + ": " + ec.message());
  step_ = std::max(1, (options_.expectedFrames + kSheetTiles - 1) / kSheetTiles);
  if (options_.mp4) ffmpeg_ = find_on_path("ffmpeg");
}

PictureWriter::~PictureWriter() {
  if (video_ != nullptr) ::pclose(video_);
}

void PictureWriter::add(const RgbImage& overlay, int frameIndex) {
  if (added_ == 0) {
    width_ = overlay.width;
    height_ = overlay.height;
    firstFrame_ = frameIndex;
    const int delay = static_cast<int>(std::lround(100.f / std::max(1.f, options_.fps)));
    if (options_.gif) gif_ = std::make_unique<GifWriter>((fs::path(options_.dir) / "overlay.gif").string(), width_, height_, delay);
    if (!ffmpeg_.empty()) {
      // Even sizes for the common pixel format; the pictures here are multiples of 160x120.
      const std::string cmd = shell_quote(ffmpeg_) + " -y -loglevel error -f rawvideo -pix_fmt rgb24 -s " +
                              std::to_string(width_) + "x" + std::to_string(height_) + " -r " +
                              std::to_string(static_cast<int>(std::lround(options_.fps))) +
                              " -i - -pix_fmt yuv420p -vf 'scale=trunc(iw/2)*2:trunc(ih/2)*2' " +
                              shell_quote((fs::path(options_.dir) / "overlay.mp4").string());
      video_ = ::popen(cmd.c_str(), "w");
    }
  }
  if (overlay.width != width_ || overlay.height != height_)
    throw CliError(kExitInput, "frame " + std::to_string(frameIndex) + " has another size than the first");
  lastFrame_ = frameIndex;
  if (options_.framePngs) write_rgb_png((fs::path(options_.dir) / frame_png(frameIndex)).string(), overlay);
  if (gif_) gif_->add_frame(overlay);
  if (video_ != nullptr && std::fwrite(overlay.pixels.data(), 1, overlay.pixels.size(), video_) != overlay.pixels.size()) {
    ::pclose(video_);
    video_ = nullptr;
    std::fprintf(stderr, "qbt: ffmpeg stopped reading frames, so there is no overlay.mp4\n");
  }
  if (added_ % step_ == 0) {
    tiles_.push_back(overlay);
    labels_.push_back(frameIndex);
  }
  ++added_;
}

std::vector<std::string> PictureWriter::finish() {
  std::vector<std::string> written;
  if (added_ == 0) return written;
  if (options_.framePngs)
    written.push_back((fs::path(options_.dir) / "overlay_NNNNNN.png").string() + " (" + std::to_string(added_) +
                      " frames, " + std::to_string(firstFrame_) + " to " + std::to_string(lastFrame_) + ")");
  const int shrink = std::max(1, static_cast<int>(width_ / 160));
  const std::string sheet = (fs::path(options_.dir) / "contact_sheet.png").string();
  write_rgb_png(sheet, contact_sheet(tiles_, labels_, kSheetColumns, shrink));
  written.push_back(sheet + (step_ == 1 ? std::string(" (every frame)") : " (every " + std::to_string(step_) + " frames)"));
  if (gif_) {
    gif_->finish();
    gif_.reset();
    written.push_back((fs::path(options_.dir) / "overlay.gif").string());
  }
  if (video_ != nullptr) {
    const int status = ::pclose(video_);
    video_ = nullptr;
    if (status == 0)
      written.push_back((fs::path(options_.dir) / "overlay.mp4").string());
    else
      std::fprintf(stderr, "qbt: ffmpeg failed, so there is no overlay.mp4 (the GIF and PNGs are complete)\n");
  }
  return written;
}

}  // namespace quorvik::cli
