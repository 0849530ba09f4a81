#pragma once
// The picture outputs of a run: overlay PNGs per frame, a contact sheet of every Nth
// frame, an animated GIF, and an MP4 when ffmpeg is on the PATH.

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "gif_writer.h"
#include "png_io.h"

namespace quorvik::cli {

struct PictureOptions {
  std::string dir;          // created when missing
  bool framePngs = true;    // overlay_NNNNNN.png per frame
  bool gif = true;          // overlay.gif
  bool mp4 = true;          // overlay.mp4, only when ffmpeg is found
  int expectedFrames = 0;   // picks the sheet's step: about 24 tiles
  float fps = 30.f;
};

// The full path of an executable found on PATH, or empty.
std::string find_on_path(const std::string& program);

class PictureWriter {
 public:
  // Throws CliError (output) when the folder cannot be created.
  explicit PictureWriter(PictureOptions options);
  ~PictureWriter();
  PictureWriter(const PictureWriter&) = delete;
  PictureWriter& operator=(const PictureWriter&) = delete;

  void add(const RgbImage& overlay, int frameIndex);
  // Writes what is pending and returns every file written (frame PNGs summed up as one
  // pattern entry).
  std::vector<std::string> finish();

 private:
  PictureOptions options_;
  int step_ = 1;
  int added_ = 0;
  int firstFrame_ = -1, lastFrame_ = -1;
  std::vector<RgbImage> tiles_;
  std::vector<int> labels_;
  std::unique_ptr<GifWriter> gif_;
  std::string ffmpeg_;
  std::FILE* video_ = nullptr;
  uint32_t width_ = 0, height_ = 0;
};

}  // namespace quorvik::cli
