#pragma once
// Tracking through the library's C interface, as any host program would, with the results
// copied out of the body frame so they outlive it.

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "quorvik/body_tracking.h"

namespace quorvik::cli {

// "Head", "ShoulderSpine", ... indexed by joint type.
const char* joint_name(int type);
// Joint type of a name, -1 when unknown.
int joint_from_name(const std::string& name);
// The left/right counterpart of a joint type (itself for the spine and head).
int mirror_joint_type(int type);
const char* body_status_name(int status);
const char* joint_status_name(int status);
int body_status_from_name(const std::string& name);
int joint_status_from_name(const std::string& name);

struct TrackedJoint {
  uint8_t type = 0;
  uint8_t status = QBT_JOINT_STATUS_NONE;
  float depth[2] = {0, 0};     // pixels of the input depth map
  float world[3] = {0, 0, 0};  // mm, camera space: x right, y up, z forward
};

struct TrackedBody {
  uint8_t id = 0;
  uint8_t status = QBT_BODY_STATUS_NOT_TRACKING;
  std::array<TrackedJoint, QBT_JOINT_COUNT> joints{};
};

// The two skeleton ends of each bone drawn in pictures.
struct BoneEnds {
  uint8_t a, b;
};
const std::vector<BoneEnds>& skeleton_bones();

struct TrackedFrame {
  int index = 0;
  std::vector<TrackedBody> bodies;
  bool floorDetected = false;
  std::array<float, 4> plane{};  // nx, ny, nz, d with n.p + d = 0 (mm)
  uint32_t width = 0, height = 0;
  std::vector<uint8_t> bodyMask;   // body id per pixel, empty when not known
  std::vector<uint8_t> floorMask;  // 1 on the floor, empty when not known
};

// The data file to use: `given` when not empty, else the repository's copy, else the
// installed one. Throws CliError (data file) when the file is missing.
std::string find_data_file(const std::string& given);

// The last failure's text from the library.
std::string library_message();

class Tracker {
 public:
  // Throws CliError (data file or tracking) when the tracker cannot be created. `camera`
  // gives the camera fields of the options (the library's defaults when null).
  Tracker(const std::string& dataFile, bool mirrored, const qbt_bodytracker_options_t* camera = nullptr);
  ~Tracker();
  Tracker(const Tracker&) = delete;
  Tracker& operator=(const Tracker&) = delete;

  // Tracks one depth map. Throws CliError: input for a size the library refuses (with the
  // library's own message), data file when the forest does not load, tracking otherwise.
  TrackedFrame update(const uint16_t* depth, uint32_t width, uint32_t height, int index, bool keepMasks = true);

  // Forgets every body; the next update starts afresh.
  void reset();

  // Seconds spent inside the library's update, without the first update (which waits for
  // the data file to load), and the number of updates counted in it.
  double tracking_seconds() const { return seconds_; }
  int timed_updates() const { return timed_; }

 private:
  qbt_bodytracker_t tracker_ = nullptr;
  std::string dataFile_;
  double seconds_ = 0;
  int timed_ = 0;
  int updates_ = 0;
};

}  // namespace quorvik::cli
