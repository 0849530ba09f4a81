// `qbt live`: tracks a depth camera (or a recording played at its own pace) as it delivers
// frames, and `qbt view`: plays a recording in the live window, under the viewer's control.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "cli_error.h"
#include "commands.h"
#include "console.h"
#include "frame_source.h"
#include "json_lines.h"
#include "live_window.h"
#include "overlay.h"
#include "tracking.h"

namespace quorvik::cli {

namespace {

volatile std::sig_atomic_t gInterrupted = 0;
extern "C" void on_interrupt(int) { gInterrupted = 1; }

struct SessionOptions {
  std::string source;  // live: openni2, freenect, a .oni file or empty; view: the recording
  std::string data;
  std::string out;
  std::string record;
  std::string snapshots = ".";
  bool noWindow = false;
  int maxFrames = 0;  // 0: until the source ends
  // view only
  bool paused = false;
  double speed = 1.0;
  int first = 0;
};

// What every tracked frame goes through: the tracker, the JSON Lines, the recording, the
// window and the status line.
class Session {
 public:
  Session(const SessionOptions& o, const FrameSource& source, bool wantWindow) : o_(o), source_(source) {
    const CameraSettings& camera = source.camera();
    mirrored_ = camera.mirrored.value_or(true);
    std::fprintf(stderr, "qbt: source %s, %ux%u at %.0f frames per second (%s)\nqbt: camera options used:\n%s",
                 source.description().c_str(), source.size().width, source.size().height, camera.fps,
                 mirrored_ ? "mirrored" : "not mirrored", camera.describe().c_str());
    tracker_ = std::make_unique<Tracker>(find_data_file(o.data), mirrored_, &camera.options);
    console_ = program_stdout();
    out_ = console_;
    if (!o.out.empty()) {
      out_ = std::fopen(o.out.c_str(), "w");
      if (out_ == nullptr) throw CliError(kExitOutput, "cannot write " + o.out);
    }
    if (!o.record.empty()) recording_ = std::make_unique<RecordingFolder>(o.record, camera, mirrored_, source.description());
    if (wantWindow && !o.noWindow) {
      std::string why;
      window_ = open_live_window("qbt " + source.description(), source.size().width, source.size().height, why);
      if (!window_) std::fprintf(stderr, "qbt: no live window: %s; going on without one\n", why.c_str());
    }
    terminal_ = ::isatty(STDERR_FILENO) != 0;
  }

  ~Session() {
    if (out_ != nullptr && out_ != console_) std::fclose(out_);
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void track(const SourceFrame& frame) {
    const FrameSize s = source_.size();
    const auto t0 = std::chrono::steady_clock::now();
    const TrackedFrame tracked =
        tracker_->update(frame.depth.data(), s.width, s.height, firstIndex_ + tracked_, window_ != nullptr);
    trackerMs_ = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    const std::string line = frame_to_json(tracked).dump();
    std::fputs(line.c_str(), out_);
    std::fputc('\n', out_);
    if (std::ferror(out_)) throw CliError(kExitOutput, "cannot write " + (o_.out.empty() ? std::string("to standard output") : o_.out));
    if (recording_) recording_->add(frame, s);
    ++tracked_;
    bodies_ = 0;
    for (const TrackedBody& b : tracked.bodies) bodies_ += b.status != QBT_BODY_STATUS_TRACKING_LOST;
    // Frames per second over the last second or so.
    const auto now = std::chrono::steady_clock::now();
    if (tracked_ == 1) rateFrom_ = now;
    else ++rateFrames_;
    const double span = std::chrono::duration<double>(now - rateFrom_).count();
    if (span > 0.2) fps_ = rateFrames_ / span;
    if (span >= 1.0) {
      rateFrom_ = now;
      rateFrames_ = 0;
    }
    if (window_) {
      picture_ = render_overlay(frame.depth.data(), s.width, s.height, tracked);
      redraw();
    }
    status(false);
  }

  void redraw() {
    if (!window_ || picture_.pixels.empty()) return;
    window_->show(window_picture(picture_, viewMirrored_, fps_, trackerMs_), title());
  }

  // Handles the keys every window has; returns the rest.
  std::vector<WindowKey> keys() {
    std::vector<WindowKey> rest;
    if (!window_) return rest;
    for (WindowKey k : window_->poll()) {
      switch (k) {
        case WindowKey::kPause:
          paused_ = !paused_;
          std::fprintf(stderr, "qbt: %s at frame %d\n", paused_ ? "paused" : "playing", firstIndex_ + tracked_ - 1);
          redraw();
          break;
        case WindowKey::kMirror:
          viewMirrored_ = !viewMirrored_;
          std::fprintf(stderr, "qbt: view %s\n", viewMirrored_ ? "mirrored" : "as delivered");
          redraw();
          break;
        case WindowKey::kReset:
          tracker_->reset();
          std::fprintf(stderr, "qbt: tracker reset at frame %d\n", firstIndex_ + tracked_ - 1);
          break;
        case WindowKey::kSnapshot: snapshot(); break;
        case WindowKey::kQuit: quit_ = true; break;
        default: rest.push_back(k);
      }
    }
    return rest;
  }

  void dropped(int n) { dropped_ += n; }
  bool paused() const { return paused_; }
  void set_paused(bool p) { paused_ = p; }
  bool quit() const { return quit_ || gInterrupted != 0; }
  bool has_window() const { return window_ != nullptr; }
  int tracked() const { return tracked_; }
  void set_speed(double s) { speed_ = s; }
  // The recording index of the first frame tracked, for the JSON Lines and the title.
  void set_first_index(int i) { firstIndex_ = i; }

  void finish(const std::string& why) {
    status(true);
    if (std::fflush(out_) != 0) throw CliError(kExitOutput, "cannot write " + (o_.out.empty() ? std::string("the output") : o_.out));
    if (recording_) recording_->finish();
    std::fprintf(stderr, "qbt: %d frames tracked, %d dropped while the tracker was busy; %s\n", tracked_, dropped_,
                 why.c_str());
    if (recording_) std::fprintf(stderr, "qbt: recorded %d frames in %s\n", recording_->frames(), recording_->dir().c_str());
  }

 private:
  std::string title() const {
    return fmt::format("qbt {} - frame {}{} - {:.1f} fps - tracker {:.1f} ms - {} bodies{}", source_.description(),
                       firstIndex_ + tracked_ - 1, paused_ ? " (paused)" : "", fps_, trackerMs_, bodies_,
                       speed_ != 1.0 ? fmt::format(" - speed {:g}x", speed_) : "");
  }

  void status(bool last) {
    const auto now = std::chrono::steady_clock::now();
    if (!last && std::chrono::duration<double>(now - lastStatus_).count() < (terminal_ ? 0.2 : 1.0)) return;
    lastStatus_ = now;
    const std::string text = fmt::format("frame {}  {:.1f} fps  tracker {:.1f} ms  {} bodies  {} dropped",
                                         firstIndex_ + tracked_ - 1,
                                         fps_, trackerMs_, bodies_, dropped_);
    if (terminal_) std::fprintf(stderr, "\r%-70s%s", text.c_str(), last ? "\n" : "");
    else std::fprintf(stderr, "qbt: %s\n", text.c_str());
  }

  void snapshot() {
    if (picture_.pixels.empty()) return;
    const std::string path =
        (std::filesystem::path(o_.snapshots) / fmt::format("qbt-snapshot-{:06d}.png", firstIndex_ + tracked_ - 1)).string();
    write_rgb_png(path, window_picture(picture_, viewMirrored_, fps_, trackerMs_));
    std::fprintf(stderr, "qbt: snapshot %s\n", path.c_str());
  }

  const SessionOptions& o_;
  const FrameSource& source_;
  bool mirrored_ = true;
  std::unique_ptr<Tracker> tracker_;
  std::FILE* console_ = nullptr;
  std::FILE* out_ = nullptr;
  std::unique_ptr<RecordingFolder> recording_;
  std::unique_ptr<LiveWindow> window_;
  RgbImage picture_;
  bool terminal_ = false;
  bool paused_ = false, viewMirrored_ = false, quit_ = false;
  int tracked_ = 0, dropped_ = 0, bodies_ = 0, firstIndex_ = 0;
  double fps_ = 0, trackerMs_ = 0, speed_ = 1.0;
  int rateFrames_ = 0;
  std::chrono::steady_clock::time_point rateFrom_, lastStatus_;
};

// The camera's frames reach the tracker through a slot that holds only the newest one: a
// tracker slower than the camera skips frames instead of falling behind.
class LatestFrame {
 public:
  explicit LatestFrame(FrameSource& source) : source_(source), thread_([this] { run(); }) {}
  ~LatestFrame() {
    {
      std::lock_guard lock(mutex_);
      stop_ = true;
      cv_.notify_all();
    }
    thread_.join();
  }
  LatestFrame(const LatestFrame&) = delete;
  LatestFrame& operator=(const LatestFrame&) = delete;

  // Waits up to `ms` for a frame. False when none came; `ended()` tells whether any will.
  bool take(SourceFrame& frame, int ms, int& skipped) {
    std::unique_lock lock(mutex_);
    cv_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return fresh_ || ended_; });
    skipped = skipped_;
    skipped_ = 0;
    if (!fresh_) {
      if (failure_) std::rethrow_exception(failure_);
      return false;
    }
    frame.depth.swap(latest_.depth);
    frame.number = latest_.number;
    frame.seconds = latest_.seconds;
    fresh_ = false;
    return true;
  }

  bool ended() {
    std::lock_guard lock(mutex_);
    return ended_ && !fresh_;
  }
  // Lets the source go on after its first frame. The first update waits for the data file
  // to load; a recording held back meanwhile loses no frames to that.
  void release() {
    std::lock_guard lock(mutex_);
    released_ = true;
    cv_.notify_all();
  }
  int delivered() {
    std::lock_guard lock(mutex_);
    return delivered_;
  }

 private:
  void run() {
    try {
      SourceFrame f;
      while (!stop_ && source_.next(f)) {
        std::unique_lock lock(mutex_);
        if (fresh_) ++skipped_;
        latest_.depth.swap(f.depth);
        latest_.number = f.number;
        latest_.seconds = f.seconds;
        fresh_ = true;
        ++delivered_;
        cv_.notify_all();
        if (delivered_ == 1) cv_.wait(lock, [this] { return released_ || stop_; });
      }
    } catch (...) {
      std::lock_guard lock(mutex_);
      failure_ = std::current_exception();
    }
    std::lock_guard lock(mutex_);
    ended_ = true;
    cv_.notify_one();
  }

  FrameSource& source_;
  std::mutex mutex_;
  std::condition_variable cv_;
  SourceFrame latest_;
  bool fresh_ = false, ended_ = false, released_ = false;
  int skipped_ = 0, delivered_ = 0;
  std::exception_ptr failure_;
  std::atomic<bool> stop_{false};
  std::thread thread_;  // last: it starts once everything it uses exists
};

void live(const SessionOptions& o) {
  std::unique_ptr<FrameSource> source = open_camera_source(o.source);
  Session session(o, *source, true);
  gInterrupted = 0;
  auto previous = std::signal(SIGINT, on_interrupt);
  std::string why;
  {
    LatestFrame latest(*source);
    SourceFrame frame;
    while (true) {
      session.keys();
      if (session.quit()) {
        why = gInterrupted ? "interrupted" : "quit";
        break;
      }
      if (o.maxFrames > 0 && session.tracked() >= o.maxFrames) {
        why = fmt::format("{} frames asked for", o.maxFrames);
        break;
      }
      int skipped = 0;
      const bool got = latest.take(frame, 30, skipped);
      session.dropped(skipped);
      if (!got) {
        if (latest.ended()) {
          why = source->lost() ? "the camera stopped sending frames (disconnected?)" : "the recording ended";
          break;
        }
        continue;
      }
      if (session.paused()) session.dropped(1);
      else session.track(frame);
      latest.release();
    }
    why = fmt::format("{} frames read; {}", latest.delivered(), why);
  }
  std::signal(SIGINT, previous);
  session.finish(why);
}

void view(const SessionOptions& o) {
  std::unique_ptr<DepthInput> input = open_depth_input(o.source, std::nullopt);
  const int count = input->frame_count();
  if (o.first < 0 || o.first >= count)
    throw CliError(kExitUsage, fmt::format("--first {} asked for, but {} holds frames 0 to {}", o.first, o.source, count - 1));
  std::unique_ptr<FrameSource> source = open_recording_source(std::move(input), o.source);
  Session session(o, *source, true);
  if (!session.has_window() && !o.noWindow)
    throw CliError(kExitUsage, "qbt view needs a window; use `qbt track` to track a recording without one");
  session.set_paused(o.paused);
  session.set_first_index(o.first);
  double speed = o.speed;
  session.set_speed(speed);
  SourceFrame frame;
  for (int i = 0; i < o.first; ++i) source->next(frame);
  gInterrupted = 0;
  auto previous = std::signal(SIGINT, on_interrupt);
  std::string why = "the recording ended";
  auto due = std::chrono::steady_clock::now();
  int steps = 1;  // frames to show while paused; the first is shown even when starting paused
  while (true) {
    for (WindowKey k : session.keys()) {
      if (k == WindowKey::kStep) ++steps;
      if (k == WindowKey::kFaster) speed = std::min(speed * 2, 16.0);
      if (k == WindowKey::kSlower) speed = std::max(speed / 2, 1.0 / 16);
      if (k == WindowKey::kFaster || k == WindowKey::kSlower) {
        session.set_speed(speed);
        std::fprintf(stderr, "qbt: speed %gx\n", speed);
      }
    }
    if (session.quit()) {
      why = gInterrupted ? "interrupted" : "quit";
      break;
    }
    const auto now = std::chrono::steady_clock::now();
    if ((session.paused() && steps == 0) || (!session.paused() && now < due)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      continue;
    }
    steps = std::max(0, steps - 1);
    if (!source->next(frame)) break;
    session.track(frame);
    due = std::max(due, now - std::chrono::milliseconds(100)) +
          std::chrono::duration_cast<std::chrono::steady_clock::duration>(
              std::chrono::duration<double>(1.0 / (source->camera().fps * speed)));
  }
  std::signal(SIGINT, previous);
  session.finish(why);
}

void add_common(CLI::App* cmd, SessionOptions& o) {
  cmd->add_option("--out", o.out, "JSON Lines file (default: standard output)");
  cmd->add_option("--data", o.data, "Data file (default: the repository's or the installed one)");
  cmd->add_flag("--no-window", o.noWindow, "Track without the live window");
  cmd->add_option("--snapshots", o.snapshots, "Folder for the pictures the s key takes")->capture_default_str();
  cmd->add_option("--record", o.record, "Write the tracked depth frames into this folder, for `qbt track`");
}

}  // namespace

void add_live_command(CLI::App& app) {
  auto o = std::make_shared<SessionOptions>();
  CLI::App* cmd = app.add_subcommand(
      "live", "Track a depth camera as it delivers frames (skipping frames rather than falling behind), with a live "
              "window, a status line and JSON Lines; keys: space pause, m mirror, r reset, s snapshot, q quit");
  cmd->add_option("--source", o->source, "openni2, freenect or an OpenNI2 .oni file (default: the first camera found)");
  cmd->add_option("--frames", o->maxFrames, "Stop after this many tracked frames (default: when the source ends)");
  add_common(cmd, *o);
  cmd->callback([o] { live(*o); });
}

void add_view_command(CLI::App& app) {
  auto o = std::make_shared<SessionOptions>();
  CLI::App* cmd = app.add_subcommand(
      "view", "Play a recording in the live window while tracking it; keys: space pause, right arrow step, +/- speed, "
              "m mirror, r reset, s snapshot, q quit");
  cmd->add_option("RECORDING", o->source, "A folder of depth PNGs or an OpenNI2 .oni file")->required();
  cmd->add_flag("--paused", o->paused, "Start paused on the first frame");
  cmd->add_option("--speed", o->speed, "Playback speed, 1 is the recording's own")->capture_default_str();
  cmd->add_option("--first", o->first, "First frame to show (0-based); tracking starts there")->capture_default_str();
  add_common(cmd, *o);
  cmd->callback([o] { view(*o); });
}

}  // namespace quorvik::cli
