#include "live_window.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "overlay.h"

#ifdef QBT_CLI_WITH_SDL2
#include <SDL.h>
#endif

namespace quorvik::cli {

namespace {

constexpr int kBarHeight = 16;

// The units after the numbers, in the 3x5 block style of draw_number.
void draw_unit(RgbImage& image, int x, int y, const char* text, const uint8_t rgb[3], int scale) {
  for (int k = 0; text[k] != '\0'; ++k) {
    const uint16_t bits = text[k] == 'f' ? 0x39A4 : text[k] == 'p' ? 0x6BA4 : text[k] == 's' ? 0x388E : 0x5F6D;
    for (int row = 0; row < 5; ++row)
      for (int col = 0; col < 3; ++col) {
        if (!((bits >> (14 - row * 3 - col)) & 1)) continue;
        for (int sy = 0; sy < scale; ++sy)
          for (int sx = 0; sx < scale; ++sx) {
            const int px = x + (k * 4 + col) * scale + sx, py = y + row * scale + sy;
            if (px >= 0 && py >= 0 && px < static_cast<int>(image.width) && py < static_cast<int>(image.height))
              std::copy_n(rgb, 3, image.at(static_cast<uint32_t>(px), static_cast<uint32_t>(py)));
          }
      }
  }
}

int digits(long n) { return static_cast<int>(std::to_string(n).size()); }

}  // namespace

int window_scale(uint32_t width) { return std::max(1, static_cast<int>(640 / std::max<uint32_t>(width, 1))); }

RgbImage window_picture(const RgbImage& picture, bool mirrored, double fps, double trackerMs) {
  const int scale = window_scale(picture.width);
  const uint32_t w = picture.width * static_cast<uint32_t>(scale), h = picture.height * static_cast<uint32_t>(scale);
  RgbImage out(w, h + kBarHeight);
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) {
      const uint32_t sx = x / static_cast<uint32_t>(scale), sy = y / static_cast<uint32_t>(scale);
      std::copy_n(picture.at(mirrored ? picture.width - 1 - sx : sx, sy), 3, out.at(x, y));
    }
  std::fill(out.pixels.begin() + static_cast<std::ptrdiff_t>(size_t{w} * h * 3), out.pixels.end(), uint8_t{24});
  // Frames per second on the left, the tracker's milliseconds per frame on the right.
  static constexpr uint8_t kFps[3] = {255, 255, 255}, kMs[3] = {255, 225, 40};
  const int y = static_cast<int>(h) + 3, half = static_cast<int>(w) / 2;
  const long f = std::lround(fps), ms = std::lround(trackerMs);
  draw_number(out, 4, y, static_cast<int>(f), kFps, 2);
  draw_unit(out, 4 + (digits(f) * 4 + 2) * 2, y, "fps", kFps, 2);
  draw_number(out, half, y, static_cast<int>(ms), kMs, 2);
  draw_unit(out, half + (digits(ms) * 4 + 2) * 2, y, "ms", kMs, 2);
  return out;
}

#ifdef QBT_CLI_WITH_SDL2

namespace {

class SdlWindow : public LiveWindow {
 public:
  SdlWindow(SDL_Window* window, SDL_Renderer* renderer) : window_(window), renderer_(renderer) {}
  ~SdlWindow() override {
    if (texture_ != nullptr) SDL_DestroyTexture(texture_);
    SDL_DestroyRenderer(renderer_);
    SDL_DestroyWindow(window_);
    SDL_QuitSubSystem(SDL_INIT_VIDEO);
  }
  SdlWindow(const SdlWindow&) = delete;
  SdlWindow& operator=(const SdlWindow&) = delete;

  void show(const RgbImage& picture, const std::string& title) override {
    const int w = static_cast<int>(picture.width), h = static_cast<int>(picture.height);
    if (texture_ == nullptr || w != textureW_ || h != textureH_) {
      if (texture_ != nullptr) SDL_DestroyTexture(texture_);
      texture_ = SDL_CreateTexture(renderer_, SDL_PIXELFORMAT_RGB24, SDL_TEXTUREACCESS_STREAMING, w, h);
      textureW_ = w;
      textureH_ = h;
      SDL_SetWindowSize(window_, w, h);
    }
    if (title != title_) {
      SDL_SetWindowTitle(window_, title.c_str());
      title_ = title;
    }
    SDL_UpdateTexture(texture_, nullptr, picture.pixels.data(), w * 3);
    SDL_RenderClear(renderer_);
    SDL_RenderCopy(renderer_, texture_, nullptr, nullptr);
    SDL_RenderPresent(renderer_);
  }

  std::vector<WindowKey> poll() override {
    std::vector<WindowKey> keys;
    SDL_Event e;
    while (SDL_PollEvent(&e) != 0) {
      if (e.type == SDL_QUIT) keys.push_back(WindowKey::kQuit);
      if (e.type == SDL_WINDOWEVENT && e.window.event == SDL_WINDOWEVENT_EXPOSED) SDL_RenderPresent(renderer_);
      if (e.type != SDL_KEYDOWN) continue;
      switch (e.key.keysym.sym) {
        case SDLK_SPACE: keys.push_back(WindowKey::kPause); break;
        case SDLK_m: keys.push_back(WindowKey::kMirror); break;
        case SDLK_r: keys.push_back(WindowKey::kReset); break;
        case SDLK_s: keys.push_back(WindowKey::kSnapshot); break;
        case SDLK_q:
        case SDLK_ESCAPE: keys.push_back(WindowKey::kQuit); break;
        case SDLK_RIGHT:
        case SDLK_PERIOD: keys.push_back(WindowKey::kStep); break;
        case SDLK_PLUS:
        case SDLK_EQUALS:
        case SDLK_KP_PLUS:
        case SDLK_UP: keys.push_back(WindowKey::kFaster); break;
        case SDLK_MINUS:
        case SDLK_KP_MINUS:
        case SDLK_DOWN: keys.push_back(WindowKey::kSlower); break;
        default: break;
      }
    }
    return keys;
  }

 private:
  SDL_Window* window_;
  SDL_Renderer* renderer_;
  SDL_Texture* texture_ = nullptr;
  int textureW_ = 0, textureH_ = 0;
  std::string title_;
};

}  // namespace

std::unique_ptr<LiveWindow> open_live_window(const std::string& title, uint32_t width, uint32_t height, std::string& why) {
  // Ctrl+C stays with qbt, which ends the run cleanly on it.
  SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
  if (SDL_InitSubSystem(SDL_INIT_VIDEO) != 0) {
    why = std::string("no display (") + SDL_GetError() + ")";
    return nullptr;
  }
  const int scale = window_scale(width);
  SDL_Window* window = SDL_CreateWindow(title.c_str(), SDL_WINDOWPOS_UNDEFINED, SDL_WINDOWPOS_UNDEFINED,
                                        static_cast<int>(width) * scale, static_cast<int>(height) * scale + kBarHeight, 0);
  if (window == nullptr) {
    why = std::string("cannot open a window (") + SDL_GetError() + ")";
    SDL_QuitSubSystem(SDL_INIT_VIDEO);
    return nullptr;
  }
  // Pixels stay pixels: the picture is already enlarged by a whole factor.
  SDL_SetHint(SDL_HINT_RENDER_SCALE_QUALITY, "0");
  SDL_Renderer* renderer = SDL_CreateRenderer(window, -1, SDL_RENDERER_SOFTWARE);
  if (renderer == nullptr) {
    why = std::string("cannot draw into the window (") + SDL_GetError() + ")";
    SDL_DestroyWindow(window);
    SDL_QuitSubSystem(SDL_INIT_VIDEO);
    return nullptr;
  }
  return std::make_unique<SdlWindow>(window, renderer);
}

#else

std::unique_ptr<LiveWindow> open_live_window(const std::string&, uint32_t, uint32_t, std::string& why) {
  why = "this qbt was built without SDL2 (install libsdl2-dev and build again)";
  return nullptr;
}

#endif

}  // namespace quorvik::cli
