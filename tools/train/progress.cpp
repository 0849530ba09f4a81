#include "progress.h"

#include <unistd.h>

#include <algorithm>

#include <fmt/format.h>

namespace quorvik::train {

std::string format_seconds(double s) {
  if (!(s >= 0) || s > 1e7) return "?";
  const auto t = static_cast<long>(s + 0.5);
  if (t >= 3600) return fmt::format("{}h{:02}m", t / 3600, t / 60 % 60);
  if (t >= 60) return fmt::format("{}m{:02}s", t / 60, t % 60);
  return fmt::format("{}s", t);
}

Progress::Progress(std::string label, double total, std::FILE* out)
    : label_(std::move(label)), total_(total), out_(out), terminal_(isatty(fileno(out)) != 0),
      start_(std::chrono::steady_clock::now()) {}

void Progress::update(double done) {
  const auto now = std::chrono::steady_clock::now();
  const double fraction = total_ > 0 ? std::clamp(done / total_, 0.0, 1.0) : 1.0;
  const double elapsed = std::chrono::duration<double>(now - start_).count();
  const double left = fraction > 0 ? elapsed * (1 - fraction) / fraction : -1;
  if (terminal_) {
    if (now - lastDraw_ < std::chrono::milliseconds(200) && fraction < 1) return;
    lastDraw_ = now;
    constexpr int kWidth = 30;
    const int filled = static_cast<int>(fraction * kWidth);
    fmt::print(out_, "\r{} [{}{}] {:5.1f}% elapsed {} ETA {}   ", label_, std::string(filled, '#'),
               std::string(kWidth - filled, '.'), 100 * fraction, format_seconds(elapsed), format_seconds(left));
  } else {
    const int tenth = static_cast<int>(fraction * 10);
    if (tenth == lastTenth_) return;
    lastTenth_ = tenth;
    fmt::print(out_, "{}: {:3.0f}% elapsed {} ETA {}\n", label_, 100 * fraction, format_seconds(elapsed),
               format_seconds(left));
  }
  std::fflush(out_);
}

void Progress::finish() {
  update(total_);
  if (terminal_) fmt::print(out_, "\n");
}

}  // namespace quorvik::train
