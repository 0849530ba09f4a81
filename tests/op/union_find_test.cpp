#include "op/union_find.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace op {
namespace {

// Labels the '#' pixels of a picture and writes each pixel's region number (1, 2, ... in
// raster order of the regions' first pixels; '.' for none). Digits join only equal digits.
std::vector<std::string> regions_of(const std::vector<std::string>& picture, Connectivity connectivity,
                                    RasterWindow window = {}) {
  const auto h = int32_t(picture.size()), w = int32_t(picture[0].size());
  if (window.stride == 0) window = RasterWindow::whole(w, h);
  std::string pixels;
  for (const std::string& row : picture) pixels += row;
  std::vector<int32_t> labels(pixels.size(), 0);
  UnionFind sets;
  sets.reset(1);
  label_components(
      sets, labels.data(), window, [&](int32_t i) { return pixels[size_t(i)] != '.'; },
      [&](int32_t i, int32_t n) { return pixels[size_t(i)] == pixels[size_t(n)]; }, connectivity);
  std::vector<int32_t> number(size_t(sets.size()));
  sets.number_sets(number.data());
  std::vector<std::string> out(size_t(h), std::string(size_t(w), '.'));
  for (int32_t i = 0; i < w * h; ++i) {
    if (labels[size_t(i)] != 0) out[size_t(i / w)][size_t(i % w)] = char('0' + number[size_t(labels[size_t(i)])]);
  }
  return out;
}

TEST(UnionFindTest, RegionsAreNumberedInRasterOrderOfTheirFirstPixel) {
  struct Case {
    const char* name;
    std::vector<std::string> picture;
    Connectivity connectivity;
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      // The arms of a U meet only in the last row: one region, found late.
      {"u shape", {"#.#.#", "#.#.#", "###.#"}, Connectivity::Four, {"1.1.2", "1.1.2", "111.2"}},
      // Diagonal neighbours join only with eight-connectivity.
      {"diagonal four", {"#..", ".#.", "..#"}, Connectivity::Four, {"1..", ".2.", "..3"}},
      {"diagonal eight", {"#..", ".#.", "..#"}, Connectivity::Eight, {"1..", ".1.", "..1"}},
      {"anti-diagonal eight", {"..#", ".#.", "#.."}, Connectivity::Eight, {"..1", ".1.", "1.."}},
      // The join test splits touching pixels.
      {"join test", {"1122", "1122", "3333"}, Connectivity::Four, {"1122", "1122", "3333"}},
      // A staircase that merges three provisional labels into the lowest.
      {"staircase", {"#.#.#", "#.#.#", "#####"}, Connectivity::Four, {"1.1.1", "1.1.1", "11111"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(regions_of(c.picture, c.connectivity), c.expected);
  }
}

TEST(UnionFindTest, OnlyTheWindowIsLabelledAndRead) {
  // The border would join the two inner columns; outside the window it is neither labelled
  // nor followed.
  const std::vector<std::string> picture = {"#####", "#.#.#", "#.#.#", "#####"};
  EXPECT_EQ(regions_of(picture, Connectivity::Eight, RasterWindow{5, 1, 1, 3, 2}),
            (std::vector<std::string>{".....", "..1..", "..1..", "....."}));
}

}  // namespace
}  // namespace op
