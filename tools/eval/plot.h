#pragma once
// Small plots without a plotting package: an RGB canvas with lines, boxes and text in a
// 3x5 pixel font, written as PNG through libpng, and the two chart forms the evaluation
// needs (horizontal bars with names, and a line through points).

#include <cstdint>
#include <string>
#include <vector>

namespace quorvik::eval {

struct Rgb {
  uint8_t r = 0, g = 0, b = 0;
  bool operator==(const Rgb&) const = default;
};

class Canvas {
 public:
  Canvas(int width, int height, Rgb background = {255, 255, 255});

  int width() const { return width_; }
  int height() const { return height_; }
  Rgb at(int x, int y) const;
  void set(int x, int y, Rgb c);  // outside the canvas: ignored
  void line(int x0, int y0, int x1, int y1, Rgb c);
  void fill(int x0, int y0, int x1, int y1, Rgb c);  // inclusive corners, any order
  // Upper-case letters, digits and . - % : / ( ) _ ; lower case is drawn as upper case and
  // anything else as a blank. `scale` pixels per font pixel; returns the width drawn.
  int text(int x, int y, const std::string& s, Rgb c, int scale = 2);
  static int text_width(const std::string& s, int scale = 2) { return static_cast<int>(s.size()) * 4 * scale; }

  bool write_png(const std::string& path) const;

 private:
  int width_, height_;
  std::vector<uint8_t> pixels_;
};

// Tick step of about `targetTicks` intervals up to `maximum`: 1, 2 or 5 times a power of ten.
double nice_step(double maximum, int targetTicks = 5);

// One bar per name, drawn from the left; values of 0 or below leave the row empty.
bool write_bar_chart(const std::string& path, const std::string& title, const std::vector<std::string>& names,
                     const std::vector<double>& values, const std::string& unit);

// Points joined in order; x and y must be the same length.
bool write_line_chart(const std::string& path, const std::string& title, const std::vector<double>& xs,
                      const std::vector<double>& ys, const std::string& xLabel, const std::string& yLabel);

}  // namespace quorvik::eval
