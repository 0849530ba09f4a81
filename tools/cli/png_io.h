#pragma once
// PNG files of the command line: 16-bit greyscale depth frames in, colour pictures out.

#include <cstdint>
#include <string>
#include <vector>

namespace quorvik::cli {

struct PngHeader {
  uint32_t width = 0, height = 0;
  int bitDepth = 0;
  int colourType = 0;  // PNG colour type: 0 grey, 2 RGB, 3 palette, 4 grey+alpha, 6 RGBA
  bool interlaced = false;
};

// Reads the image header only. Throws CliError (input) when the file cannot be read or is
// not a PNG.
PngHeader read_png_header(const std::string& path);

// A depth frame in millimetres. Throws CliError (input) with a message that says what is
// wrong: unreadable, not a PNG, 8-bit or colour instead of 16-bit greyscale, interlaced,
// corrupt.
std::vector<uint16_t> read_depth_png(const std::string& path, uint32_t& width, uint32_t& height);

struct RgbImage {
  uint32_t width = 0, height = 0;
  std::vector<uint8_t> pixels;  // r, g, b per pixel, rows top to bottom

  RgbImage() = default;
  RgbImage(uint32_t w, uint32_t h) : width(w), height(h), pixels(size_t{w} * h * 3, 0) {}
  uint8_t* at(uint32_t x, uint32_t y) { return &pixels[(size_t{y} * width + x) * 3]; }
  const uint8_t* at(uint32_t x, uint32_t y) const { return &pixels[(size_t{y} * width + x) * 3]; }
};

// Throws CliError (output) when the file cannot be written.
void write_rgb_png(const std::string& path, const RgbImage& image);

}  // namespace quorvik::cli
