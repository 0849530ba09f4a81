// The GIF output read back by a small independent decoder.

#include "gif_writer.h"

#include <cstdint>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "cli_util.h"

namespace {

using quorvik::cli::GifWriter;
using quorvik::cli::RgbImage;

// Textbook GIF LZW decoding: codes read least significant bit first, the table grows by
// one entry per code after the first, codes widen when the table reaches a power of two.
std::vector<uint8_t> lzw_decode(const std::vector<uint8_t>& data, int minCodeSize) {
  const uint32_t clear = 1u << minCodeSize, end = clear + 1;
  std::vector<std::vector<uint8_t>> table;
  auto reset = [&] {
    table.assign(clear + 2, {});
    for (uint32_t i = 0; i < clear; ++i) table[i] = {static_cast<uint8_t>(i)};
  };
  reset();
  int size = minCodeSize + 1;
  size_t bitPos = 0;
  auto read = [&]() -> int64_t {
    if (bitPos + static_cast<size_t>(size) > data.size() * 8) return -1;
    uint32_t code = 0;
    for (int b = 0; b < size; ++b, ++bitPos) code |= static_cast<uint32_t>((data[bitPos / 8] >> (bitPos % 8)) & 1) << b;
    return code;
  };
  std::vector<uint8_t> out;
  int64_t prev = -1;
  for (;;) {
    const int64_t code = read();
    if (code < 0) throw std::runtime_error("data ended without an end code");
    if (code == clear) {
      reset();
      size = minCodeSize + 1;
      prev = -1;
      continue;
    }
    if (code == end) return out;
    std::vector<uint8_t> entry;
    if (static_cast<size_t>(code) < table.size()) {
      entry = table[static_cast<size_t>(code)];
    } else if (static_cast<size_t>(code) == table.size() && prev >= 0) {
      entry = table[static_cast<size_t>(prev)];
      entry.push_back(entry[0]);
    } else {
      throw std::runtime_error("code " + std::to_string(code) + " not in the table");
    }
    out.insert(out.end(), entry.begin(), entry.end());
    if (prev >= 0 && table.size() < 4096) {
      std::vector<uint8_t> added = table[static_cast<size_t>(prev)];
      added.push_back(entry[0]);
      table.push_back(added);
      if (table.size() == (1u << size) && size < 12) ++size;
    }
    prev = code;
  }
}

TEST(GifLzw, RoundTripsImagesOfEveryKind) {
  std::mt19937 rng(5);
  struct Case {
    const char* name;
    std::vector<uint8_t> pixels;
    int minCodeSize;
  };
  std::vector<Case> cases;
  cases.push_back({"one pixel", {7}, 8});
  cases.push_back({"two equal pixels", {3, 3}, 2});
  cases.push_back({"a long run (the string-plus-its-first-byte case)", std::vector<uint8_t>(5000, 200), 8});
  std::vector<uint8_t> noise(40000);
  for (uint8_t& v : noise) v = static_cast<uint8_t>(rng() & 0xFF);
  cases.push_back({"noise that fills the table many times over", noise, 8});
  std::vector<uint8_t> small(3000);
  for (uint8_t& v : small) v = static_cast<uint8_t>(rng() & 3);
  cases.push_back({"four colours", small, 2});
  std::vector<uint8_t> ramp(320 * 240);
  for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = static_cast<uint8_t>((i % 320) / 8 + (i / 320 % 16 == 0 ? 100 : 0));
  cases.push_back({"a picture-like ramp", ramp, 8});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::vector<uint8_t> coded = quorvik::cli::gif_lzw_encode(c.pixels, c.minCodeSize);
    EXPECT_EQ(lzw_decode(coded, c.minCodeSize), c.pixels);
  }
  // Exactly at each widening of the codes the end code must be written as wide as the
  // decoder reads it.
  for (size_t n = 1; n < 700; ++n) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 7 % 4);
    SCOPED_TRACE(n);
    ASSERT_EQ(lzw_decode(quorvik::cli::gif_lzw_encode(v, 2), 2), v);
  }
}

struct ParsedGif {
  uint32_t width = 0, height = 0;
  std::vector<std::vector<uint8_t>> frames;  // palette indices
  std::vector<int> delays;
  bool loops = false;
  bool trailer = false;
};

ParsedGif parse_gif(const std::vector<uint8_t>& b) {
  ParsedGif g;
  if (b.size() < 13 || std::string(b.begin(), b.begin() + 6) != "GIF89a") throw std::runtime_error("no GIF89a header");
  g.width = b[6] | b[7] << 8;
  g.height = b[8] | b[9] << 8;
  size_t at = 13;
  if (b[10] & 0x80) at += 3u * (2u << (b[10] & 7));
  auto skip_blocks = [&] {
    while (b.at(at) != 0) at += b[at] + 1u;
    ++at;
  };
  while (at < b.size()) {
    const uint8_t tag = b[at++];
    if (tag == 0x3B) {
      g.trailer = true;
      break;
    }
    if (tag == 0x21) {
      const uint8_t label = b.at(at++);
      if (label == 0xF9) g.delays.push_back(b.at(at + 2) | b.at(at + 3) << 8);
      if (label == 0xFF && std::string(b.begin() + static_cast<long>(at) + 1, b.begin() + static_cast<long>(at) + 12) == "NETSCAPE2.0")
        g.loops = true;
      skip_blocks();
    } else if (tag == 0x2C) {
      at += 8;
      const uint8_t flags = b.at(at++);
      if (flags & 0x80) at += 3u * (2u << (flags & 7));
      const int minCode = b.at(at++);
      std::vector<uint8_t> data;
      while (b.at(at) != 0) {
        data.insert(data.end(), b.begin() + static_cast<long>(at) + 1, b.begin() + static_cast<long>(at) + 1 + b[at]);
        at += b[at] + 1u;
      }
      ++at;
      g.frames.push_back(lzw_decode(data, minCode));
    } else {
      throw std::runtime_error("unknown block");
    }
  }
  return g;
}

TEST(GifWriterFile, AnimationDecodesFrameByFrame) {
  cli_test::ScratchDir dir("gif");
  const std::string path = dir / "a.gif";
  std::vector<RgbImage> frames;
  for (int f = 0; f < 3; ++f) {
    RgbImage img(37, 21);  // odd sizes, so rows do not line up with anything
    for (uint32_t y = 0; y < img.height; ++y)
      for (uint32_t x = 0; x < img.width; ++x) {
        uint8_t* p = img.at(x, y);
        p[0] = static_cast<uint8_t>(x * 7 + f * 40);
        p[1] = static_cast<uint8_t>(y * 12);
        p[2] = static_cast<uint8_t>(f == 1 ? 255 : 0);
      }
    frames.push_back(img);
  }
  {
    GifWriter w(path, 37, 21, 4);
    for (const RgbImage& img : frames) w.add_frame(img);
    EXPECT_THROW(w.add_frame(RgbImage(10, 10)), std::invalid_argument);
    w.finish();
  }
  std::ifstream in(path, std::ios::binary);
  const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const ParsedGif g = parse_gif(bytes);
  EXPECT_EQ(g.width, 37u);
  EXPECT_EQ(g.height, 21u);
  EXPECT_TRUE(g.loops);
  EXPECT_TRUE(g.trailer);
  ASSERT_EQ(g.frames.size(), 3u);
  EXPECT_EQ(g.delays, (std::vector<int>{4, 4, 4}));
  for (size_t f = 0; f < frames.size(); ++f) {
    SCOPED_TRACE(f);
    ASSERT_EQ(g.frames[f].size(), 37u * 21u);
    for (size_t i = 0; i < g.frames[f].size(); ++i) {
      const uint8_t* p = &frames[f].pixels[i * 3];
      ASSERT_EQ(g.frames[f][i], quorvik::cli::gif_palette_index(p[0], p[1], p[2])) << i;
    }
  }
}

}  // namespace
