#pragma once
// Animated GIF output with one fixed 256-colour palette: a 6x6x6 colour cube and a ramp of
// 40 greys, so depth pictures keep smooth shading and the overlay colours stay close.

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "png_io.h"

namespace quorvik::cli {

// The fixed palette, 256 RGB triples.
const std::vector<uint8_t>& gif_palette();
// Nearest palette index of a colour.
uint8_t gif_palette_index(uint8_t r, uint8_t g, uint8_t b);

// GIF's variable-width LZW of palette indices below 1 << minCodeSize, packed into bytes
// least significant bit first (not yet cut into sub-blocks). minCodeSize is 2 to 8.
std::vector<uint8_t> gif_lzw_encode(const std::vector<uint8_t>& indices, int minCodeSize);

class GifWriter {
 public:
  // Every frame shows for `delayCentiseconds`; the animation loops. Throws CliError
  // (output) when the file cannot be created.
  GifWriter(const std::string& path, uint32_t width, uint32_t height, int delayCentiseconds);
  ~GifWriter();
  GifWriter(const GifWriter&) = delete;
  GifWriter& operator=(const GifWriter&) = delete;

  // Frames of another size are refused with std::invalid_argument.
  void add_frame(const RgbImage& image);
  // Writes the trailer and closes the file; throws CliError (output) on a write failure.
  void finish();

 private:
  void put(const void* data, size_t size);
  void put16(uint32_t v);

  std::string path_;
  std::FILE* file_ = nullptr;
  uint32_t width_, height_;
  int delay_;
  bool failed_ = false;
};

}  // namespace quorvik::cli
