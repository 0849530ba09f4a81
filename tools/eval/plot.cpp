#include "plot.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include <fmt/format.h>
#include <png.h>

namespace quorvik::eval {
namespace {

// Rows top to bottom, three bits each, 4 = left column.
struct Glyph {
  char c;
  uint8_t rows[5];
};
constexpr Glyph kFont[] = {
    {'0', {7, 5, 5, 5, 7}}, {'1', {2, 6, 2, 2, 7}}, {'2', {7, 1, 7, 4, 7}}, {'3', {7, 1, 7, 1, 7}},
    {'4', {5, 5, 7, 1, 1}}, {'5', {7, 4, 7, 1, 7}}, {'6', {7, 4, 7, 5, 7}}, {'7', {7, 1, 1, 1, 1}},
    {'8', {7, 5, 7, 5, 7}}, {'9', {7, 5, 7, 1, 7}}, {'A', {2, 5, 7, 5, 5}}, {'B', {6, 5, 6, 5, 6}},
    {'C', {3, 4, 4, 4, 3}}, {'D', {6, 5, 5, 5, 6}}, {'E', {7, 4, 6, 4, 7}}, {'F', {7, 4, 6, 4, 4}},
    {'G', {3, 4, 5, 5, 3}}, {'H', {5, 5, 7, 5, 5}}, {'I', {7, 2, 2, 2, 7}}, {'J', {1, 1, 1, 5, 2}},
    {'K', {5, 5, 6, 5, 5}}, {'L', {4, 4, 4, 4, 7}}, {'M', {5, 7, 7, 5, 5}}, {'N', {6, 5, 5, 5, 5}},
    {'O', {2, 5, 5, 5, 2}}, {'P', {6, 5, 6, 4, 4}}, {'Q', {2, 5, 5, 6, 3}}, {'R', {6, 5, 6, 5, 5}},
    {'S', {3, 4, 2, 1, 6}}, {'T', {7, 2, 2, 2, 2}}, {'U', {5, 5, 5, 5, 7}}, {'V', {5, 5, 5, 5, 2}},
    {'W', {5, 5, 7, 7, 5}}, {'X', {5, 5, 2, 5, 5}}, {'Y', {5, 5, 2, 2, 2}}, {'Z', {7, 1, 2, 4, 7}},
    {'.', {0, 0, 0, 0, 2}}, {'-', {0, 0, 7, 0, 0}}, {'%', {5, 1, 2, 4, 5}}, {':', {0, 2, 0, 2, 0}},
    {'/', {1, 1, 2, 4, 4}}, {'(', {1, 2, 2, 2, 1}}, {')', {4, 2, 2, 2, 4}}, {'_', {0, 0, 0, 0, 7}},
};

const Glyph* glyph(char c) {
  if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  for (const Glyph& g : kFont)
    if (g.c == c) return &g;
  return nullptr;
}

constexpr Rgb kInk{30, 30, 30};
constexpr Rgb kGrid{225, 225, 225};
constexpr Rgb kBar{70, 110, 190};
constexpr Rgb kLine{200, 70, 50};

std::string tick_text(double v) {
  if (std::fabs(v - std::round(v)) < 1e-9) return fmt::format("{:.0f}", v);
  return fmt::format("{:g}", std::round(v * 1000.0) / 1000.0);
}

}  // namespace

Canvas::Canvas(int width, int height, Rgb background)
    : width_(std::max(1, width)), height_(std::max(1, height)) {
  pixels_.resize(static_cast<size_t>(width_) * height_ * 3);
  for (size_t i = 0; i < pixels_.size(); i += 3) {
    pixels_[i] = background.r;
    pixels_[i + 1] = background.g;
    pixels_[i + 2] = background.b;
  }
}

Rgb Canvas::at(int x, int y) const {
  if (x < 0 || y < 0 || x >= width_ || y >= height_) return {};
  const size_t i = (static_cast<size_t>(y) * width_ + x) * 3;
  return {pixels_[i], pixels_[i + 1], pixels_[i + 2]};
}

void Canvas::set(int x, int y, Rgb c) {
  if (x < 0 || y < 0 || x >= width_ || y >= height_) return;
  const size_t i = (static_cast<size_t>(y) * width_ + x) * 3;
  pixels_[i] = c.r;
  pixels_[i + 1] = c.g;
  pixels_[i + 2] = c.b;
}

void Canvas::line(int x0, int y0, int x1, int y1, Rgb c) {
  // Bresenham, all octants.
  const int dx = std::abs(x1 - x0), dy = -std::abs(y1 - y0);
  const int sx = x0 < x1 ? 1 : -1, sy = y0 < y1 ? 1 : -1;
  int err = dx + dy;
  for (;;) {
    set(x0, y0, c);
    if (x0 == x1 && y0 == y1) return;
    const int e2 = 2 * err;
    if (e2 >= dy) {
      err += dy;
      x0 += sx;
    }
    if (e2 <= dx) {
      err += dx;
      y0 += sy;
    }
  }
}

void Canvas::fill(int x0, int y0, int x1, int y1, Rgb c) {
  if (x0 > x1) std::swap(x0, x1);
  if (y0 > y1) std::swap(y0, y1);
  for (int y = std::max(0, y0); y <= std::min(height_ - 1, y1); ++y)
    for (int x = std::max(0, x0); x <= std::min(width_ - 1, x1); ++x) set(x, y, c);
}

int Canvas::text(int x, int y, const std::string& s, Rgb c, int scale) {
  int pen = x;
  for (char ch : s) {
    if (const Glyph* g = glyph(ch)) {
      for (int row = 0; row < 5; ++row)
        for (int col = 0; col < 3; ++col)
          if ((g->rows[row] >> (2 - col)) & 1)
            fill(pen + col * scale, y + row * scale, pen + (col + 1) * scale - 1, y + (row + 1) * scale - 1, c);
    }
    pen += 4 * scale;
  }
  return pen - x;
}

bool Canvas::write_png(const std::string& path) const {
  FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) return false;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
  if (png == nullptr || info == nullptr) {
    png_destroy_write_struct(&png, info != nullptr ? &info : nullptr);
    std::fclose(file);
    return false;
  }
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    std::fclose(file);
    return false;
  }
  png_init_io(png, file);
  png_set_IHDR(png, info, static_cast<png_uint_32>(width_), static_cast<png_uint_32>(height_), 8, PNG_COLOR_TYPE_RGB,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  for (int y = 0; y < height_; ++y)
    png_write_row(png, const_cast<png_bytep>(pixels_.data() + static_cast<size_t>(y) * width_ * 3));
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return std::fclose(file) == 0;
}

double nice_step(double maximum, int targetTicks) {
  if (!(maximum > 0)) return 1.0;
  const double raw = maximum / std::max(1, targetTicks);
  const double power = std::pow(10.0, std::floor(std::log10(raw)));
  for (double m : {1.0, 2.0, 5.0})
    if (m * power >= raw) return m * power;
  return 10.0 * power;
}

bool write_bar_chart(const std::string& path, const std::string& title, const std::vector<std::string>& names,
                     const std::vector<double>& values, const std::string& unit) {
  constexpr int kRow = 22, kTop = 40, kPlotWidth = 440;
  int nameWidth = 0;
  for (const std::string& n : names) nameWidth = std::max(nameWidth, Canvas::text_width(n));
  const int left = nameWidth + 16;
  const int rows = static_cast<int>(names.size());
  Canvas c(left + kPlotWidth + 60, kTop + rows * kRow + 40);
  c.text(10, 12, title, kInk, 2);

  double maximum = 0;
  for (double v : values) maximum = std::max(maximum, v);
  const double step = nice_step(maximum);
  const double top = std::max(step, std::ceil(maximum / step) * step);
  const int bottom = kTop + rows * kRow;
  for (double v = 0; v <= top + 1e-9; v += step) {
    const int x = left + static_cast<int>(std::lround(v / top * kPlotWidth));
    c.line(x, kTop, x, bottom, kGrid);
    c.text(x - Canvas::text_width(tick_text(v)) / 2, bottom + 6, tick_text(v), kInk, 2);
  }
  c.text(left + kPlotWidth - Canvas::text_width(unit), bottom + 22, unit, kInk, 2);
  for (int i = 0; i < rows; ++i) {
    const int y = kTop + i * kRow;
    c.text(left - 8 - Canvas::text_width(names[static_cast<size_t>(i)]), y + 6, names[static_cast<size_t>(i)], kInk, 2);
    const double v = i < static_cast<int>(values.size()) ? values[static_cast<size_t>(i)] : 0.0;
    if (v > 0) {
      const int w = std::max(1, static_cast<int>(std::lround(v / top * kPlotWidth)));
      c.fill(left, y + 3, left + w, y + kRow - 4, kBar);
      c.text(left + w + 4, y + 6, tick_text(std::round(v * 10.0) / 10.0), kInk, 1);
    }
  }
  c.line(left, kTop, left, bottom, kInk);
  c.line(left, bottom, left + kPlotWidth, bottom, kInk);
  return c.write_png(path);
}

bool write_line_chart(const std::string& path, const std::string& title, const std::vector<double>& xs,
                      const std::vector<double>& ys, const std::string& xLabel, const std::string& yLabel) {
  constexpr int kLeft = 70, kTop = 40, kWidth = 480, kHeight = 300;
  Canvas c(kLeft + kWidth + 30, kTop + kHeight + 60);
  c.text(10, 12, title, kInk, 2);
  double xMax = 0, yMax = 0;
  for (double x : xs) xMax = std::max(xMax, x);
  for (double y : ys) yMax = std::max(yMax, y);
  const double xStep = nice_step(xMax), yStep = nice_step(yMax);
  const double xTop = std::max(xStep, std::ceil(xMax / xStep) * xStep);
  const double yTop = std::max(yStep, std::ceil(yMax / yStep) * yStep);
  const int bottom = kTop + kHeight;
  auto px = [&](double x) { return kLeft + static_cast<int>(std::lround(x / xTop * kWidth)); };
  auto py = [&](double y) { return bottom - static_cast<int>(std::lround(y / yTop * kHeight)); };
  for (double v = 0; v <= yTop + 1e-9; v += yStep) {
    c.line(kLeft, py(v), kLeft + kWidth, py(v), kGrid);
    c.text(kLeft - 6 - Canvas::text_width(tick_text(v)), py(v) - 5, tick_text(v), kInk, 2);
  }
  for (double v = 0; v <= xTop + 1e-9; v += xStep) {
    c.line(px(v), kTop, px(v), bottom, kGrid);
    c.text(px(v) - Canvas::text_width(tick_text(v)) / 2, bottom + 6, tick_text(v), kInk, 2);
  }
  c.line(kLeft, kTop, kLeft, bottom, kInk);
  c.line(kLeft, bottom, kLeft + kWidth, bottom, kInk);
  c.text(kLeft + kWidth - Canvas::text_width(xLabel), bottom + 24, xLabel, kInk, 2);
  c.text(10, kTop - 14, yLabel, kInk, 2);
  const size_t n = std::min(xs.size(), ys.size());
  for (size_t i = 0; i < n; ++i) {
    if (i > 0) c.line(px(xs[i - 1]), py(ys[i - 1]), px(xs[i]), py(ys[i]), kLine);
    c.fill(px(xs[i]) - 2, py(ys[i]) - 2, px(xs[i]) + 2, py(ys[i]) + 2, kLine);
  }
  return c.write_png(path);
}

}  // namespace quorvik::eval
