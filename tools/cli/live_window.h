#pragma once
// The live window of `qbt live` and `qbt view`: the tracked picture (depth in grey, bodies
// in their colours, the floor tinted, skeletons) with frames per second and tracker time
// in a bar below it, and the keys a viewer needs.

#include <memory>
#include <string>
#include <vector>

#include "png_io.h"

namespace quorvik::cli {

enum class WindowKey { kPause, kMirror, kReset, kSnapshot, kQuit, kStep, kFaster, kSlower };

class LiveWindow {
 public:
  virtual ~LiveWindow() = default;
  // Shows a picture made by window_picture, with `title` as the window's title.
  virtual void show(const RgbImage& picture, const std::string& title) = 0;
  // Keys pressed since the last call, in order; closing the window is kQuit.
  virtual std::vector<WindowKey> poll() = 0;
};

// Null, with `why` set, when this build has no window support or no display answers.
std::unique_ptr<LiveWindow> open_live_window(const std::string& title, uint32_t width, uint32_t height, std::string& why);

// The picture as the window shows it: scaled by a whole factor, flipped when `mirrored`,
// with the status bar. Kept apart from the window so that it can be checked without one.
RgbImage window_picture(const RgbImage& picture, bool mirrored, double fps, double trackerMs);

// The whole factor by which a picture of this size is enlarged in the window.
int window_scale(uint32_t width);

}  // namespace quorvik::cli
