// libfreenect devices (first-generation structured-light sensors). The depth is taken as
// raw 11-bit disparity, the one format every libfreenect build and its playback library
// deliver, and turned into millimetres with the library's own shift tables, built from the
// sensor's constants where the driver can report them.

#include <dlfcn.h>
#include <libfreenect.h>
#include <libfreenect_registration.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>

#include <fmt/format.h>

#include "cli_error.h"
#include "segmentation/depth_conversion.h"
#include "source_drivers.h"

namespace quorvik::cli {

namespace {

constexpr double kSilenceSeconds = 2.0;
constexpr uint32_t kWidth = 640, kHeight = 480;

// The sensor's constants, from freenect_copy_registration when this libfreenect has it (the
// playback library does not, so it is looked up at run time rather than linked).
void read_constants(freenect_device* device, CameraSettings& camera) {
  using Copy = freenect_registration (*)(freenect_device*);
  using Destroy = int (*)(freenect_registration*);
  const auto copy = reinterpret_cast<Copy>(::dlsym(RTLD_DEFAULT, "freenect_copy_registration"));
  const auto destroy = reinterpret_cast<Destroy>(::dlsym(RTLD_DEFAULT, "freenect_destroy_registration"));
  if (copy == nullptr || destroy == nullptr) return;
  freenect_registration reg = copy(device);
  const freenect_zero_plane_info& z = reg.zero_plane_info;
  qbt_bodytracker_options_t& o = camera.options;
  if (z.reference_distance > 0 && z.reference_distance < 65536) {
    o.zeroPlaneDistance = static_cast<uint16_t>(std::lround(z.reference_distance));
    camera.reported.emplace_back("zeroPlaneDistance");
  }
  if (z.reference_pixel_size > 0 && z.reference_pixel_size < 10) {
    o.zeroPlanePixelSize = z.reference_pixel_size;
    camera.reported.emplace_back("zeroPlanePixelSize");
  }
  if (z.dcmos_emitter_dist > 0 && z.dcmos_emitter_dist < 100) {
    o.emitterDcmosDistance = z.dcmos_emitter_dist;
    camera.reported.emplace_back("emitterDcmosDistance");
  }
  if (reg.const_shift > 0 && reg.const_shift < 65536) {
    o.constShift = static_cast<uint32_t>(std::lround(reg.const_shift));
    camera.reported.emplace_back("constShift");
  }
  destroy(&reg);
}

class FreenectSource : public FrameSource {
 public:
  FreenectSource(freenect_context* context, freenect_device* device) : context_(context), device_(device) {
    size_ = {kWidth, kHeight};
    description_ = "libfreenect device 0";
    read_constants(device_, camera_);
    tables_ = skeleton::build_conversion_tables(shift_params_of(camera_.options));

    freenect_set_user(device_, this);
    freenect_set_depth_callback(device_, &FreenectSource::on_depth);
    if (freenect_set_depth_mode(device_, freenect_find_depth_mode(FREENECT_RESOLUTION_MEDIUM, FREENECT_DEPTH_11BIT)) < 0 ||
        freenect_start_depth(device_) < 0)
      throw CliError(kExitInput, "the libfreenect device does not start its depth stream");
    start_ = std::chrono::steady_clock::now();
  }

  ~FreenectSource() override {
    freenect_stop_depth(device_);
    freenect_close_device(device_);
    freenect_shutdown(context_);
  }
  FreenectSource(const FreenectSource&) = delete;
  FreenectSource& operator=(const FreenectSource&) = delete;

  bool next(SourceFrame& frame) override {
    if (lost_) return false;
    fresh_ = false;
    const auto waitFrom = std::chrono::steady_clock::now();
    while (!fresh_) {
      timeval timeout{0, 200000};
      // An error here is a device that went away (or the end of a played-back dump).
      if (freenect_process_events_timeout(context_, &timeout) < 0 ||
          std::chrono::duration<double>(std::chrono::steady_clock::now() - waitFrom).count() > kSilenceSeconds) {
        lost_ = true;
        return false;
      }
    }
    frame.depth.swap(latest_);
    frame.number = count_ - 1;
    frame.seconds = std::chrono::duration<double>(latestTime_ - start_).count();
    return true;
  }

 private:
  static void on_depth(freenect_device* device, void* data, uint32_t /*timestamp*/) {
    auto* self = static_cast<FreenectSource*>(freenect_get_user(device));
    self->latest_.resize(size_t{kWidth} * kHeight);
    // The playback library hands out its buffer just past a text header, at any alignment.
    std::memcpy(self->latest_.data(), data, self->latest_.size() * sizeof(uint16_t));
    const std::vector<uint16_t>& table = self->tables_.shiftToDepth;
    for (uint16_t& v : self->latest_) v = v < table.size() ? table[v] : uint16_t{0};
    self->latestTime_ = std::chrono::steady_clock::now();
    self->fresh_ = true;
    ++self->count_;
  }

  freenect_context* context_;
  freenect_device* device_;
  skeleton::ConversionTables tables_;
  std::vector<uint16_t> latest_;
  std::chrono::steady_clock::time_point start_, latestTime_;
  bool fresh_ = false;
  int count_ = 0;
};

}  // namespace

std::unique_ptr<FrameSource> open_freenect_source(std::string& why) {
  freenect_context* context = nullptr;
  if (freenect_init(&context, nullptr) < 0 || context == nullptr) {
    why = "cannot start (no USB access?)";
    return nullptr;
  }
  freenect_set_log_level(context, FREENECT_LOG_FATAL);
  freenect_select_subdevices(context, FREENECT_DEVICE_CAMERA);
  freenect_device* device = nullptr;
  if (freenect_num_devices(context) <= 0 || freenect_open_device(context, &device, 0) < 0) {
    freenect_shutdown(context);
    why = "no device connected";
    return nullptr;
  }
  try {
    return std::make_unique<FreenectSource>(context, device);
  } catch (const CliError& e) {
    freenect_close_device(device);
    freenect_shutdown(context);
    why = e.what();
    return nullptr;
  }
}

}  // namespace quorvik::cli
