#include "png_io.h"

#include <png.h>

#include <cstring>
#include <fstream>

#include "cli_error.h"
#include "recording.h"

namespace quorvik::cli {

namespace {

uint32_t big_endian32(const unsigned char* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}

const char* colour_name(int colourType) {
  switch (colourType) {
    case 0: return "greyscale";
    case 2: return "RGB colour";
    case 3: return "palette colour";
    case 4: return "greyscale with alpha";
    case 6: return "RGBA colour";
    default: return "unknown colour type";
  }
}

}  // namespace

PngHeader read_png_header(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw CliError(kExitInput, "cannot read " + path + ": the file does not exist or is not readable");
  // Signature, then the IHDR chunk: length, type, width, height, bit depth, colour type,
  // compression, filter, interlace.
  unsigned char head[29] = {};
  in.read(reinterpret_cast<char*>(head), sizeof(head));
  static constexpr unsigned char kSignature[8] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
  if (in.gcount() != static_cast<std::streamsize>(sizeof(head)) || std::memcmp(head, kSignature, 8) != 0 ||
      std::memcmp(head + 12, "IHDR", 4) != 0)
    throw CliError(kExitInput, path + " is not a PNG file");
  PngHeader h;
  h.width = big_endian32(head + 16);
  h.height = big_endian32(head + 20);
  h.bitDepth = head[24];
  h.colourType = head[25];
  h.interlaced = head[28] != 0;
  return h;
}

std::vector<uint16_t> read_depth_png(const std::string& path, uint32_t& width, uint32_t& height) {
  const PngHeader h = read_png_header(path);
  if (h.colourType != 0 || h.bitDepth != 16) {
    throw CliError(kExitInput, path + " is a " + std::to_string(h.bitDepth) + "-bit " + colour_name(h.colourType) +
                                   " PNG; depth frames must be 16-bit greyscale PNGs holding millimetres "
                                   "(an 8-bit or colour picture of depth has lost the distances)");
  }
  if (h.interlaced)
    throw CliError(kExitInput, path + " is an interlaced PNG; save the depth frames without interlacing");
  op::Image<uint16_t> image;
  try {
    image = sim::read_png16(path);
  } catch (const std::exception& e) {
    throw CliError(kExitInput, std::string("cannot decode ") + path + ": " + e.what());
  }
  width = image.width();
  height = image.height();
  return std::vector<uint16_t>(image.data(), image.data() + size_t{width} * height);
}

void write_rgb_png(const std::string& path, const RgbImage& image) {
  png_image png;
  std::memset(&png, 0, sizeof(png));
  png.version = PNG_IMAGE_VERSION;
  png.width = image.width;
  png.height = image.height;
  png.format = PNG_FORMAT_RGB;
  if (!png_image_write_to_file(&png, path.c_str(), 0, image.pixels.data(), 0, nullptr)) {
    const std::string why = png.message;
    png_image_free(&png);
    throw CliError(kExitOutput, "cannot write " + path + ": " + why);
  }
}

}  // namespace quorvik::cli
