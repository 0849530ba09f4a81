// OpenNI2 devices and .oni recordings. The depth stream's own properties say how the
// sensor converts shifts to depth; those, its fields of view and its mirroring become the
// tracker's camera options.

#include <OpenNI.h>
#include <PS1080.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <optional>

#include <fmt/format.h>

#include "cli_error.h"
#include "segmentation/depth_conversion.h"
#include "source_drivers.h"

namespace quorvik::cli {

namespace {

constexpr float kRadiansToDegrees = 57.29577951f;
// A device that sends nothing for this long is taken as gone; a recording as ended.
constexpr int kDeviceSilenceMs = 2000;
constexpr int kFileSilenceMs = 1000;

std::string openni_error() {
  const char* e = openni::OpenNI::getExtendedError();
  return e != nullptr && *e != '\0' ? e : "no reason given";
}

// OpenNI2 is started by the first user and left running until the process ends: shutting
// it down unloads its drivers, and what their static constructors allocated is then
// reported as leaked by a leak checker that can no longer name the driver it came from.
void start_openni() {
  if (openni::OpenNI::initialize() != openni::STATUS_OK)
    throw CliError(kExitInput, "OpenNI2 cannot start: " + openni_error());
}

template <typename T>
std::optional<T> property(openni::VideoStream& stream, int id) {
  T value{};
  if (stream.getProperty(id, &value) != openni::STATUS_OK) return std::nullopt;
  return value;
}

// The depth stream of a device or recording, with the camera settings it reports and a
// conversion to millimetres for the shift formats.
class DepthStream {
 public:
  explicit DepthStream(const std::string& uri) {
    const openni::Status rc = device_.open(uri.empty() ? openni::ANY_DEVICE : uri.c_str());
    if (rc != openni::STATUS_OK) throw CliError(kExitInput, "cannot open " + name(uri) + ": " + openni_error());
    if (!device_.hasSensor(openni::SENSOR_DEPTH)) throw CliError(kExitInput, name(uri) + " has no depth sensor");
    if (stream_.create(device_, openni::SENSOR_DEPTH) != openni::STATUS_OK)
      throw CliError(kExitInput, "cannot read the depth of " + name(uri) + ": " + openni_error());
    if (!device_.isFile()) prefer_millimetres();
    read_settings();
  }
  ~DepthStream() {
    stream_.stop();
    stream_.destroy();
    device_.close();
  }
  DepthStream(const DepthStream&) = delete;
  DepthStream& operator=(const DepthStream&) = delete;

  openni::Device& device() { return device_; }
  openni::VideoStream& stream() { return stream_; }
  const CameraSettings& camera() const { return camera_; }
  FrameSize size() const { return size_; }

  void start() {
    if (stream_.start() != openni::STATUS_OK) throw CliError(kExitInput, "cannot start the depth stream: " + openni_error());
  }

  // Waits up to `ms` for a frame; false when none came.
  bool read(int ms, std::vector<uint16_t>& depth, int& index, double& seconds) {
    openni::VideoStream* streams[] = {&stream_};
    int ready = -1;
    if (openni::OpenNI::waitForAnyStream(streams, 1, &ready, ms) != openni::STATUS_OK) return false;
    openni::VideoFrameRef frame;
    if (stream_.readFrame(&frame) != openni::STATUS_OK || !frame.isValid()) return false;
    if (static_cast<uint32_t>(frame.getWidth()) != size_.width || static_cast<uint32_t>(frame.getHeight()) != size_.height)
      throw CliError(kExitInput, fmt::format("the depth stream changed its size to {}x{}", frame.getWidth(), frame.getHeight()));
    const size_t n = size_t{size_.width} * size_.height;
    depth.resize(n);
    const auto* pixels = static_cast<const uint16_t*>(frame.getData());
    const int stride = frame.getStrideInBytes() / 2;
    for (uint32_t y = 0; y < size_.height; ++y) {
      const uint16_t* row = pixels + static_cast<size_t>(y) * static_cast<size_t>(stride);
      uint16_t* out = depth.data() + size_t{y} * size_.width;
      switch (format_) {
        case openni::PIXEL_FORMAT_DEPTH_100_UM:
          for (uint32_t x = 0; x < size_.width; ++x) out[x] = static_cast<uint16_t>(row[x] / 10);
          break;
        case openni::PIXEL_FORMAT_SHIFT_9_2:
        case openni::PIXEL_FORMAT_SHIFT_9_3:
          // Raw disparity: the same tables the tracker builds from these options.
          for (uint32_t x = 0; x < size_.width; ++x)
            out[x] = row[x] < tables_.shiftToDepth.size() ? tables_.shiftToDepth[row[x]] : uint16_t{0};
          break;
        default: std::copy(row, row + size_.width, out);
      }
    }
    index = frame.getFrameIndex();
    seconds = static_cast<double>(frame.getTimestamp()) * 1e-6;
    return true;
  }

 private:
  static std::string name(const std::string& uri) { return uri.empty() ? "the OpenNI2 device" : uri; }

  // Millimetres at 30 frames per second, at the largest size the tracker can take.
  void prefer_millimetres() {
    const openni::SensorInfo* info = device_.getSensorInfo(openni::SENSOR_DEPTH);
    if (info == nullptr) return;
    const openni::Array<openni::VideoMode>& modes = info->getSupportedVideoModes();
    int best = -1, bestPixels = 0;
    for (int i = 0; i < modes.getSize(); ++i) {
      const openni::VideoMode& m = modes[i];
      const int w = m.getResolutionX(), h = m.getResolutionY();
      const bool trackable = w % 160 == 0 && h % 120 == 0 && w / 160 == h / 120;
      if (!trackable || m.getPixelFormat() != openni::PIXEL_FORMAT_DEPTH_1_MM || m.getFps() != 30) continue;
      if (w * h > bestPixels) {
        best = i;
        bestPixels = w * h;
      }
    }
    if (best >= 0) stream_.setVideoMode(modes[best]);
  }

  void read_settings() {
    const openni::VideoMode mode = stream_.getVideoMode();
    size_ = {static_cast<uint32_t>(mode.getResolutionX()), static_cast<uint32_t>(mode.getResolutionY())};
    format_ = mode.getPixelFormat();
    if (mode.getFps() > 0) camera_.fps = mode.getFps();
    camera_.mirrored = stream_.getMirroringEnabled();
    qbt_bodytracker_options_t& o = camera_.options;
    auto report = [&](const char* field) { camera_.reported.emplace_back(field); };
    const float hfov = stream_.getHorizontalFieldOfView(), vfov = stream_.getVerticalFieldOfView();
    if (std::isfinite(hfov) && hfov > 0.1f && hfov < 3.f && std::isfinite(vfov) && vfov > 0.1f && vfov < 3.f) {
      o.horizontalFov = hfov * kRadiansToDegrees;
      o.verticalFov = vfov * kRadiansToDegrees;
      report("horizontalFov");
      report("verticalFov");
    }
    using ull = unsigned long long;
    if (auto v = property<ull>(stream_, XN_STREAM_PROPERTY_ZERO_PLANE_DISTANCE); v && *v > 0 && *v < 65536) {
      o.zeroPlaneDistance = static_cast<uint16_t>(*v);
      report("zeroPlaneDistance");
    }
    if (auto v = property<double>(stream_, XN_STREAM_PROPERTY_ZERO_PLANE_PIXEL_SIZE); v && *v > 0 && *v < 10) {
      o.zeroPlanePixelSize = static_cast<float>(*v);
      report("zeroPlanePixelSize");
    }
    if (auto v = property<double>(stream_, XN_STREAM_PROPERTY_EMITTER_DCMOS_DISTANCE); v && *v > 0 && *v < 100) {
      o.emitterDcmosDistance = static_cast<float>(*v);
      report("emitterDcmosDistance");
    }
    if (auto v = property<ull>(stream_, XN_STREAM_PROPERTY_MAX_SHIFT); v && *v >= 2 && *v < 65536) {
      o.maxShiftValue = static_cast<int32_t>(*v);
      report("maxShiftValue");
    }
    if (const int maxValue = stream_.getMaxPixelValue(); maxValue > 0 && maxValue < 65536) {
      o.deviceMaxDepth = maxValue;
      report("deviceMaxDepth");
    }
    if (auto v = property<ull>(stream_, XN_STREAM_PROPERTY_CONST_SHIFT); v && *v < 65536) {
      o.constShift = static_cast<uint32_t>(*v);
      report("constShift");
    }
    if (auto v = property<ull>(stream_, XN_STREAM_PROPERTY_PIXEL_SIZE_FACTOR); v && *v > 0 && *v < 256) {
      o.pixelSizeFactor = static_cast<uint32_t>(*v);
      report("pixelSizeFactor");
    }
    if (auto v = property<ull>(stream_, XN_STREAM_PROPERTY_PARAM_COEFF); v && *v > 0 && *v < 256) {
      o.paramCoeff = static_cast<uint32_t>(*v);
      report("paramCoeff");
    }
    if (auto v = property<ull>(stream_, XN_STREAM_PROPERTY_SHIFT_SCALE); v && *v > 0 && *v < 256) {
      o.shiftScale = static_cast<uint32_t>(*v);
      report("shiftScale");
    }
    if (format_ == openni::PIXEL_FORMAT_SHIFT_9_2 || format_ == openni::PIXEL_FORMAT_SHIFT_9_3) {
      tables_ = skeleton::build_conversion_tables(shift_params_of(o));
    } else if (format_ != openni::PIXEL_FORMAT_DEPTH_1_MM && format_ != openni::PIXEL_FORMAT_DEPTH_100_UM) {
      throw CliError(kExitInput, fmt::format("the depth stream delivers pixel format {}, which is not depth",
                                             static_cast<int>(format_)));
    }
  }

  openni::Device device_;
  openni::VideoStream stream_;
  CameraSettings camera_;
  FrameSize size_;
  openni::PixelFormat format_ = openni::PIXEL_FORMAT_DEPTH_1_MM;
  skeleton::ConversionTables tables_;
};

class DisconnectWatch : public openni::OpenNI::DeviceDisconnectedListener {
 public:
  explicit DisconnectWatch(std::string uri) : uri_(std::move(uri)) { openni::OpenNI::addDeviceDisconnectedListener(this); }
  ~DisconnectWatch() override { openni::OpenNI::removeDeviceDisconnectedListener(this); }
  DisconnectWatch(const DisconnectWatch&) = delete;
  DisconnectWatch& operator=(const DisconnectWatch&) = delete;
  void onDeviceDisconnected(const openni::DeviceInfo* info) override {
    if (info != nullptr && uri_ == info->getUri()) gone_ = true;
  }
  bool gone() const { return gone_; }

 private:
  std::string uri_;
  std::atomic<bool> gone_{false};
};

class OpenNiSource : public FrameSource {
 public:
  explicit OpenNiSource(const std::string& uri) : stream_(uri) {
    isFile_ = stream_.device().isFile();
    const openni::DeviceInfo& info = stream_.device().getDeviceInfo();
    description_ = isFile_ ? uri : fmt::format("OpenNI2 {} {} ({})", info.getVendor(), info.getName(), info.getUri());
    watch_ = std::make_unique<DisconnectWatch>(info.getUri());
    size_ = stream_.size();
    camera_ = stream_.camera();
    if (isFile_) {
      openni::PlaybackControl* playback = stream_.device().getPlaybackControl();
      playback->setRepeatEnabled(false);
      // Frame by frame until the first one has been read, then at the recorded rate.
      playback->setSpeed(-1.0f);
      frames_ = playback->getNumberOfFrames(stream_.stream());
    }
  }

  bool next(SourceFrame& frame) override {
    if (ended_) return false;
    // Started by the first read, so a recording plays from its beginning whatever came
    // between opening it and asking for frames.
    if (!started_) {
      stream_.start();
      started_ = true;
    } else if (isFile_ && !playing_) {
      stream_.device().getPlaybackControl()->setSpeed(1.0f);
      playing_ = true;
    }
    int index = 0;
    if (!stream_.read(isFile_ ? kFileSilenceMs : kDeviceSilenceMs, frame.depth, index, frame.seconds) || watch_->gone()) {
      ended_ = true;
      // A recording that stops early has lost nothing; a camera that goes quiet has.
      lost_ = !isFile_;
      return false;
    }
    if (first_ < 0) first_ = index;
    frame.number = index - first_;
    if (isFile_ && frames_ > 0 && frame.number >= frames_ - 1) ended_ = true;
    return true;
  }

 private:
  DepthStream stream_;
  std::unique_ptr<DisconnectWatch> watch_;
  bool isFile_ = false;
  int frames_ = 0;
  int first_ = -1;
  bool started_ = false, playing_ = false, ended_ = false;
};

// A recording read frame by frame when asked: nothing is skipped however slow the reader.
class OniRecording : public DepthInput {
 public:
  explicit OniRecording(const std::string& path) : path_(path) {
    start_openni();
    open();
    count_ = stream_->device().getPlaybackControl()->getNumberOfFrames(stream_->stream());
    if (count_ <= 0) throw CliError(kExitInput, path + " holds no depth frames");
    size_ = stream_->size();
    mirrored_ = stream_->camera().mirrored;
    options_ = stream_->camera().options;
  }

  std::vector<uint16_t> read(int index) const override {
    // Going back opens the file again: the file driver's own seek crashes in the mode
    // that reads frame by frame.
    if (index < next_) open();
    std::vector<uint16_t> depth;
    for (; next_ <= index; ++next_) {
      int frameIndex = 0;
      double seconds = 0;
      if (!stream_->read(kFileSilenceMs, depth, frameIndex, seconds))
        throw CliError(kExitInput, "cannot read " + describe(next_) + ": " + openni_error());
    }
    return depth;
  }

  std::string describe(int index) const override { return path_ + " frame " + std::to_string(index); }

 private:
  void open() const {
    stream_.reset();
    stream_ = std::make_unique<DepthStream>(path_);
    openni::PlaybackControl* playback = stream_->device().getPlaybackControl();
    if (playback == nullptr) throw CliError(kExitInput, path_ + " is not a recording OpenNI2 can play");
    playback->setRepeatEnabled(false);
    playback->setSpeed(-1.0f);
    stream_->start();
    next_ = 0;
  }

  std::string path_;
  mutable std::unique_ptr<DepthStream> stream_;
  mutable int next_ = 0;
};

}  // namespace

std::unique_ptr<FrameSource> open_openni2_source(const std::string& uri, std::string& why) {
  start_openni();
  if (uri.empty()) {
    openni::Array<openni::DeviceInfo> devices;
    openni::OpenNI::enumerateDevices(&devices);
    if (devices.getSize() == 0) {
      why = "no device connected";
      return nullptr;
    }
  }
  try {
    return std::make_unique<OpenNiSource>(uri);
  } catch (const CliError& e) {
    if (!uri.empty()) throw;  // a file the user named: its own message says more
    why = e.what();
    return nullptr;
  }
}

std::unique_ptr<DepthInput> open_oni_recording(const std::string& path) { return std::make_unique<OniRecording>(path); }

}  // namespace quorvik::cli
