#include "plot.h"

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <png.h>
#include <unistd.h>

namespace quorvik::eval {
namespace {

struct Read {
  bool ok = false;
  uint32_t width = 0, height = 0;
  std::vector<uint8_t> rgb;
  Rgb at(uint32_t x, uint32_t y) const {
    const size_t i = (size_t{y} * width + x) * 3;
    return {rgb[i], rgb[i + 1], rgb[i + 2]};
  }
};

Read read_png(const std::string& path) {
  Read r;
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, path.c_str())) return r;
  image.format = PNG_FORMAT_RGB;
  r.rgb.resize(PNG_IMAGE_SIZE(image));
  r.ok = png_image_finish_read(&image, nullptr, r.rgb.data(), 0, nullptr) != 0;
  r.width = image.width;
  r.height = image.height;
  return r;
}

std::string temp_path(const std::string& name) {
  return (std::filesystem::temp_directory_path() / ("qbt-eval-test-" + std::to_string(getpid()) + "-" + name)).string();
}

TEST(Canvas, WritesAValidPngOfItsSizeWithItsPixels) {
  Canvas c(37, 21, {10, 20, 30});
  c.set(3, 4, {200, 100, 50});
  c.fill(30, 19, 40, 25, {1, 2, 3});  // clipped at the corner
  c.line(0, 20, 36, 0, {0, 255, 0});
  const std::string path = temp_path("canvas.png");
  ASSERT_TRUE(c.write_png(path));
  const Read r = read_png(path);
  std::filesystem::remove(path);
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.width, 37u);
  EXPECT_EQ(r.height, 21u);
  EXPECT_EQ(r.at(3, 4), (Rgb{200, 100, 50}));
  EXPECT_EQ(r.at(36, 20), (Rgb{1, 2, 3}));
  EXPECT_EQ(r.at(0, 20), (Rgb{0, 255, 0}));   // both ends of the line
  EXPECT_EQ(r.at(36, 0), (Rgb{0, 255, 0}));
  EXPECT_EQ(r.at(10, 2), (Rgb{10, 20, 30}));
  EXPECT_FALSE(c.write_png("/nonexistent-dir/x.png"));
}

TEST(Canvas, LinesAreUnbrokenInEveryDirection) {
  for (auto [x1, y1] : std::vector<std::pair<int, int>>{{20, 3}, {3, 20}, {-15, 7}, {-4, -18}, {12, -12}, {0, 9}}) {
    SCOPED_TRACE(testing::Message() << x1 << "," << y1);
    Canvas c(64, 64);
    c.line(30, 30, 30 + x1, 30 + y1, {0, 0, 0});
    int set = 0;
    for (int y = 0; y < 64; ++y)
      for (int x = 0; x < 64; ++x) set += c.at(x, y) == Rgb{0, 0, 0};
    EXPECT_EQ(set, std::max(std::abs(x1), std::abs(y1)) + 1);
    EXPECT_EQ(c.at(30 + x1, 30 + y1), (Rgb{0, 0, 0}));
  }
}

TEST(Canvas, TextAdvancesFourCellsPerCharacterAndDrawsDigits) {
  Canvas c(60, 20);
  EXPECT_EQ(c.text(1, 1, "1 a?", {0, 0, 0}, 2), Canvas::text_width("1 a?", 2));
  EXPECT_EQ(Canvas::text_width("abc", 3), 36);
  // "1": the middle column is inked on every row.
  for (int row = 0; row < 5; ++row) EXPECT_EQ(c.at(1 + 2, 1 + row * 2), (Rgb{0, 0, 0})) << row;
  // Blank and unknown characters leave their cells white.
  for (int x = 9; x < 17; ++x) EXPECT_EQ(c.at(x, 5), (Rgb{255, 255, 255})) << x;
  for (int x = 25; x < 33; ++x) EXPECT_EQ(c.at(x, 5), (Rgb{255, 255, 255})) << x;
}

TEST(Charts, NiceStepsAndChartFiles) {
  EXPECT_DOUBLE_EQ(nice_step(400), 100);
  EXPECT_DOUBLE_EQ(nice_step(92), 20);
  EXPECT_DOUBLE_EQ(nice_step(0.8), 0.2);
  EXPECT_DOUBLE_EQ(nice_step(0), 1);
  EXPECT_DOUBLE_EQ(nice_step(23, 1), 50);

  const std::string bars = temp_path("bars.png"), lines = temp_path("lines.png");
  ASSERT_TRUE(write_bar_chart(bars, "Mean joint error", {"Head", "LeftHand", "Nothing"}, {80, 250, 0}, "mm"));
  ASSERT_TRUE(write_line_chart(lines, "Error", {0.5, 1.5, 2.5}, {100, 140, 190}, "distance (m)", "mm"));
  const Read b = read_png(bars), l = read_png(lines);
  std::filesystem::remove(bars);
  std::filesystem::remove(lines);
  ASSERT_TRUE(b.ok);
  ASSERT_TRUE(l.ok);
  // Height follows the rows; the longer bar reaches further right than the shorter.
  EXPECT_EQ(b.height, 40u + 3 * 22 + 40);
  auto bar_end = [&](uint32_t row) {
    const uint32_t y = 40 + row * 22 + 10;
    uint32_t last = 0;
    for (uint32_t x = 0; x < b.width; ++x)
      if (b.at(x, y) == Rgb{70, 110, 190}) last = x;
    return last;
  };
  EXPECT_GT(bar_end(1), bar_end(0));
  EXPECT_GT(bar_end(0), 0u);
  EXPECT_EQ(bar_end(2), 0u);
  EXPECT_GT(l.width, 500u);
  EXPECT_GT(l.height, 300u);
}

}  // namespace
}  // namespace quorvik::eval
