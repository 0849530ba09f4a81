#pragma once
// Pictures of tracking output: a depth frame in grey with each body's pixels in the body's
// colour, the floor tinted and the skeleton drawn on top; and a contact sheet of such
// pictures.

#include <cstdint>
#include <string>
#include <vector>

#include "png_io.h"
#include "tracking.h"

namespace quorvik::cli {

// Colour of a body id (ids wrap around a palette of ten).
void body_colour(uint8_t id, uint8_t rgb[3]);

// When the frame carries no body mask (tracking output read back from JSON), pixels within
// a limb's girth of a tracked bone are taken as the body; without a floor mask, pixels
// near the reported floor plane are the floor.
RgbImage render_overlay(const uint16_t* depth, uint32_t width, uint32_t height, const TrackedFrame& frame);

// Tiles in rows of `columns`, each scaled down by `shrink` and labelled with its number.
RgbImage contact_sheet(const std::vector<RgbImage>& tiles, const std::vector<int>& labels, int columns, int shrink);

// Draws a number in small block digits with its top-left corner at (x, y).
void draw_number(RgbImage& image, int x, int y, int number, const uint8_t rgb[3], int scale = 1);

}  // namespace quorvik::cli
