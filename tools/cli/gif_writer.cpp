#include "gif_writer.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>

#include "cli_error.h"

namespace quorvik::cli {

namespace {

constexpr int kCubeLevels = 6;
constexpr int kGreyLevels = 40;
constexpr int kGreyBase = kCubeLevels * kCubeLevels * kCubeLevels;  // 216

int cube_level(uint8_t v) { return (v * (kCubeLevels - 1) + 127) / 255; }
uint8_t cube_value(int level) { return static_cast<uint8_t>(level * 255 / (kCubeLevels - 1)); }
uint8_t grey_value(int level) { return static_cast<uint8_t>(level * 255 / (kGreyLevels - 1)); }

int distance2(const uint8_t* p, uint8_t r, uint8_t g, uint8_t b) {
  const int dr = p[0] - r, dg = p[1] - g, db = p[2] - b;
  return dr * dr + dg * dg + db * db;
}

class BitPacker {
 public:
  explicit BitPacker(std::vector<uint8_t>& out) : out_(out) {}
  void put(uint32_t code, int bits) {
    acc_ |= code << used_;
    used_ += bits;
    while (used_ >= 8) {
      out_.push_back(static_cast<uint8_t>(acc_ & 0xFF));
      acc_ >>= 8;
      used_ -= 8;
    }
  }
  void flush() {
    if (used_ > 0) out_.push_back(static_cast<uint8_t>(acc_ & 0xFF));
    acc_ = 0;
    used_ = 0;
  }

 private:
  std::vector<uint8_t>& out_;
  uint32_t acc_ = 0;
  int used_ = 0;
};

}  // namespace

const std::vector<uint8_t>& gif_palette() {
  static const std::vector<uint8_t> palette = [] {
    std::vector<uint8_t> p;
    p.reserve(256 * 3);
    for (int r = 0; r < kCubeLevels; ++r)
      for (int g = 0; g < kCubeLevels; ++g)
        for (int b = 0; b < kCubeLevels; ++b) {
          p.push_back(cube_value(r));
          p.push_back(cube_value(g));
          p.push_back(cube_value(b));
        }
    for (int k = 0; k < kGreyLevels; ++k) p.insert(p.end(), 3, grey_value(k));
    return p;
  }();
  return palette;
}

uint8_t gif_palette_index(uint8_t r, uint8_t g, uint8_t b) {
  const std::vector<uint8_t>& p = gif_palette();
  const int cube = (cube_level(r) * kCubeLevels + cube_level(g)) * kCubeLevels + cube_level(b);
  const int mean = (r + g + b) / 3;
  const int grey = kGreyBase + (mean * (kGreyLevels - 1) + 127) / 255;
  return static_cast<uint8_t>(distance2(&p[static_cast<size_t>(grey) * 3], r, g, b) <
                                      distance2(&p[static_cast<size_t>(cube) * 3], r, g, b)
                                  ? grey
                                  : cube);
}

std::vector<uint8_t> gif_lzw_encode(const std::vector<uint8_t>& indices, int minCodeSize) {
  if (minCodeSize < 2 || minCodeSize > 8) throw std::invalid_argument("GIF code sizes are 2 to 8 bits");
  std::vector<uint8_t> out;
  BitPacker bits(out);
  const uint32_t clear = 1u << minCodeSize, end = clear + 1;
  constexpr uint32_t kMaxCodes = 4096;
  // (prefix code << 8 | next index) -> code of the longer string, open addressing at most
  // half full, so a clear costs one small fill.
  constexpr uint32_t kSlots = kMaxCodes * 2;
  std::vector<uint32_t> keys(kSlots, UINT32_MAX);
  std::vector<uint16_t> codes(kSlots, 0);
  auto slot_of = [&](uint32_t key) {
    uint32_t h = (key * 2654435761u) >> 19;  // 13 bits
    while (keys[h] != UINT32_MAX && keys[h] != key) h = (h + 1) & (kSlots - 1);
    return h;
  };
  int codeSize = minCodeSize + 1;
  uint32_t next = clear + 2;
  bits.put(clear, codeSize);
  if (indices.empty()) {
    bits.put(end, codeSize);
    bits.flush();
    return out;
  }
  uint32_t prefix = indices[0];
  for (size_t i = 1; i < indices.size(); ++i) {
    const uint8_t c = indices[i];
    const uint32_t key = prefix << 8 | c;
    const uint32_t slot = slot_of(key);
    if (keys[slot] == key) {
      prefix = codes[slot];
      continue;
    }
    bits.put(prefix, codeSize);
    keys[slot] = key;
    codes[slot] = static_cast<uint16_t>(next);
    ++next;
    // The decoder adds each entry one code later than this, so it widens its codes when
    // its table is one entry fuller than a power of two holds.
    if (next > (1u << codeSize) && codeSize < 12) ++codeSize;
    if (next == kMaxCodes) {
      bits.put(clear, codeSize);
      std::fill(keys.begin(), keys.end(), UINT32_MAX);
      codeSize = minCodeSize + 1;
      next = clear + 2;
    }
    prefix = c;
  }
  bits.put(prefix, codeSize);
  // Reading the last code, the decoder adds the entry this side added with the code
  // before it, and may widen the end code.
  ++next;
  if (next > (1u << codeSize) && codeSize < 12) ++codeSize;
  bits.put(end, codeSize);
  bits.flush();
  return out;
}

GifWriter::GifWriter(const std::string& path, uint32_t width, uint32_t height, int delayCentiseconds)
    : path_(path), width_(width), height_(height), delay_(std::clamp(delayCentiseconds, 2, 65535)) {
  if (width == 0 || height == 0 || width > 65535 || height > 65535)
    throw std::invalid_argument("GIF frames must be 1 to 65535 pixels wide and high");
  file_ = std::fopen(path.c_str(), "wb");
  if (file_ == nullptr) throw CliError(kExitOutput, "cannot write " + path);
  put("GIF89a", 6);
  put16(width);
  put16(height);
  const uint8_t screen[3] = {0xF7, 0, 0};  // global colour table of 256 entries, 8 bits per primary
  put(screen, 3);
  put(gif_palette().data(), gif_palette().size());
  // Loop for ever.
  const uint8_t loop[19] = {0x21, 0xFF, 0x0B, 'N', 'E', 'T', 'S', 'C', 'A', 'P', 'E', '2', '.', '0', 0x03, 0x01, 0, 0, 0};
  put(loop, sizeof(loop));
}

GifWriter::~GifWriter() {
  if (file_ != nullptr) std::fclose(file_);
}

void GifWriter::put(const void* data, size_t size) {
  if (std::fwrite(data, 1, size, file_) != size) failed_ = true;
}

void GifWriter::put16(uint32_t v) {
  const uint8_t b[2] = {static_cast<uint8_t>(v & 0xFF), static_cast<uint8_t>(v >> 8)};
  put(b, 2);
}

void GifWriter::add_frame(const RgbImage& image) {
  if (image.width != width_ || image.height != height_) throw std::invalid_argument("GIF frame of another size");
  if (file_ == nullptr) throw std::logic_error("GIF already finished");
  const uint8_t control[4] = {0x21, 0xF9, 0x04, 0x00};
  put(control, 4);
  put16(static_cast<uint32_t>(delay_));
  const uint8_t controlEnd[2] = {0, 0};
  put(controlEnd, 2);
  const uint8_t descriptor = 0x2C;
  put(&descriptor, 1);
  put16(0);
  put16(0);
  put16(width_);
  put16(height_);
  const uint8_t noLocalTable = 0;
  put(&noLocalTable, 1);

  std::vector<uint8_t> indices(size_t{width_} * height_);
  for (size_t i = 0; i < indices.size(); ++i)
    indices[i] = gif_palette_index(image.pixels[i * 3], image.pixels[i * 3 + 1], image.pixels[i * 3 + 2]);
  constexpr int kMinCodeSize = 8;
  const std::vector<uint8_t> data = gif_lzw_encode(indices, kMinCodeSize);
  const uint8_t minCode = kMinCodeSize;
  put(&minCode, 1);
  for (size_t at = 0; at < data.size(); at += 255) {
    const uint8_t n = static_cast<uint8_t>(std::min<size_t>(255, data.size() - at));
    put(&n, 1);
    put(data.data() + at, n);
  }
  const uint8_t blockEnd = 0;
  put(&blockEnd, 1);
}

void GifWriter::finish() {
  if (file_ == nullptr) return;
  const uint8_t trailer = 0x3B;
  put(&trailer, 1);
  const bool closed = std::fclose(file_) == 0;
  file_ = nullptr;
  if (failed_ || !closed) throw CliError(kExitOutput, "cannot write " + path_ + " (disk full?)");
}

}  // namespace quorvik::cli
