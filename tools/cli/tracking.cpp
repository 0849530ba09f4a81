#include "tracking.h"

#include <chrono>
#include <filesystem>

#include "cli_error.h"

#ifndef QBT_CLI_SOURCE_DATA
#define QBT_CLI_SOURCE_DATA ""
#endif
#ifndef QBT_CLI_INSTALLED_DATA
#define QBT_CLI_INSTALLED_DATA ""
#endif

namespace quorvik::cli {

namespace {

constexpr const char* kJointNames[QBT_JOINT_COUNT] = {
    "Head",     "ShoulderSpine", "LeftShoulder", "LeftElbow", "LeftHand", "RightShoulder", "RightElbow", "RightHand",
    "MidSpine", "BaseSpine",     "LeftHip",      "LeftKnee",  "LeftFoot", "RightHip",      "RightKnee",  "RightFoot"};
constexpr const char* kBodyStatusNames[4] = {"NotTracking", "TrackingLost", "TrackingStarted", "Tracking"};
constexpr const char* kJointStatusNames[3] = {"None", "Low", "High"};

}  // namespace

const char* joint_name(int type) { return type >= 0 && type < QBT_JOINT_COUNT ? kJointNames[type] : "Unknown"; }

int joint_from_name(const std::string& name) {
  for (int i = 0; i < QBT_JOINT_COUNT; ++i)
    if (name == kJointNames[i]) return i;
  return -1;
}

int mirror_joint_type(int type) {
  switch (type) {
    case QBT_JOINT_LEFT_SHOULDER: return QBT_JOINT_RIGHT_SHOULDER;
    case QBT_JOINT_LEFT_ELBOW: return QBT_JOINT_RIGHT_ELBOW;
    case QBT_JOINT_LEFT_HAND: return QBT_JOINT_RIGHT_HAND;
    case QBT_JOINT_RIGHT_SHOULDER: return QBT_JOINT_LEFT_SHOULDER;
    case QBT_JOINT_RIGHT_ELBOW: return QBT_JOINT_LEFT_ELBOW;
    case QBT_JOINT_RIGHT_HAND: return QBT_JOINT_LEFT_HAND;
    case QBT_JOINT_LEFT_HIP: return QBT_JOINT_RIGHT_HIP;
    case QBT_JOINT_LEFT_KNEE: return QBT_JOINT_RIGHT_KNEE;
    case QBT_JOINT_LEFT_FOOT: return QBT_JOINT_RIGHT_FOOT;
    case QBT_JOINT_RIGHT_HIP: return QBT_JOINT_LEFT_HIP;
    case QBT_JOINT_RIGHT_KNEE: return QBT_JOINT_LEFT_KNEE;
    case QBT_JOINT_RIGHT_FOOT: return QBT_JOINT_LEFT_FOOT;
    default: return type;
  }
}

const char* body_status_name(int status) { return status >= 0 && status < 4 ? kBodyStatusNames[status] : "Unknown"; }
const char* joint_status_name(int status) { return status >= 0 && status < 3 ? kJointStatusNames[status] : "Unknown"; }

int body_status_from_name(const std::string& name) {
  for (int i = 0; i < 4; ++i)
    if (name == kBodyStatusNames[i]) return i;
  return -1;
}

int joint_status_from_name(const std::string& name) {
  for (int i = 0; i < 3; ++i)
    if (name == kJointStatusNames[i]) return i;
  return -1;
}

const std::vector<BoneEnds>& skeleton_bones() {
  static const std::vector<BoneEnds> bones = {
      {QBT_JOINT_HEAD, QBT_JOINT_SHOULDER_SPINE},       {QBT_JOINT_SHOULDER_SPINE, QBT_JOINT_MID_SPINE},
      {QBT_JOINT_MID_SPINE, QBT_JOINT_BASE_SPINE},      {QBT_JOINT_SHOULDER_SPINE, QBT_JOINT_LEFT_SHOULDER},
      {QBT_JOINT_LEFT_SHOULDER, QBT_JOINT_LEFT_ELBOW},  {QBT_JOINT_LEFT_ELBOW, QBT_JOINT_LEFT_HAND},
      {QBT_JOINT_SHOULDER_SPINE, QBT_JOINT_RIGHT_SHOULDER}, {QBT_JOINT_RIGHT_SHOULDER, QBT_JOINT_RIGHT_ELBOW},
      {QBT_JOINT_RIGHT_ELBOW, QBT_JOINT_RIGHT_HAND},    {QBT_JOINT_BASE_SPINE, QBT_JOINT_LEFT_HIP},
      {QBT_JOINT_LEFT_HIP, QBT_JOINT_LEFT_KNEE},        {QBT_JOINT_LEFT_KNEE, QBT_JOINT_LEFT_FOOT},
      {QBT_JOINT_BASE_SPINE, QBT_JOINT_RIGHT_HIP},      {QBT_JOINT_RIGHT_HIP, QBT_JOINT_RIGHT_KNEE},
      {QBT_JOINT_RIGHT_KNEE, QBT_JOINT_RIGHT_FOOT}};
  return bones;
}

std::string find_data_file(const std::string& given) {
  namespace fs = std::filesystem;
  std::error_code ec;
  if (!given.empty()) {
    if (!fs::is_regular_file(given, ec))
      throw CliError(kExitDataFile, "data file not found: " + given + "; check the path given with --data");
    return given;
  }
  for (const char* candidate : {QBT_CLI_SOURCE_DATA, QBT_CLI_INSTALLED_DATA})
    if (*candidate != '\0' && fs::is_regular_file(candidate, ec)) return candidate;
  throw CliError(kExitDataFile, std::string("no data file: neither ") + QBT_CLI_SOURCE_DATA + " nor " +
                                    QBT_CLI_INSTALLED_DATA + " exists; give a trained forest with --data PATH");
}

std::string library_message() {
  qbt_error_info_t info{};
  qbt_error_info(&info);
  return info.message != nullptr ? info.message : "";
}

Tracker::Tracker(const std::string& dataFile, bool mirrored, const qbt_bodytracker_options_t* camera)
    : dataFile_(dataFile) {
  qbt_bodytracker_options_t options;
  if (camera != nullptr) options = *camera;
  else qbt_bodytracker_fill_default_options(&options);
  options.dataFilePath = dataFile_.c_str();
  if (qbt_bodytracker_create(&options, &tracker_) != QBT_RESULT_SUCCESS)
    throw CliError(kExitTracking, "cannot create a tracker: " + library_message());
  if (qbt_bodytracker_set_is_depth_mirrored(tracker_, mirrored) != QBT_RESULT_SUCCESS) {
    const std::string why = library_message();
    qbt_bodytracker_destroy(&tracker_);
    throw CliError(kExitTracking, "cannot set the mirroring: " + why);
  }
}

Tracker::~Tracker() { qbt_bodytracker_destroy(&tracker_); }

void Tracker::reset() {
  if (qbt_bodytracker_reset(tracker_) != QBT_RESULT_SUCCESS)
    throw CliError(kExitTracking, "cannot reset the tracker: " + library_message());
}

TrackedFrame Tracker::update(const uint16_t* depth, uint32_t width, uint32_t height, int index, bool keepMasks) {
  const qbt_depthmap_t map{depth, static_cast<int32_t>(width), static_cast<int32_t>(height)};
  qbt_bodyframe_t frame{};
  const auto start = std::chrono::steady_clock::now();
  const qbt_result_t rc = qbt_bodytracker_update(tracker_, &map, &frame);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (updates_++ > 0) {
    seconds_ += seconds;
    ++timed_;
  }
  switch (rc) {
    case QBT_RESULT_SUCCESS: break;
    case QBT_RESULT_INVALID_DEPTHMAP_SIZE:
      throw CliError(kExitInput, "frames of " + std::to_string(width) + "x" + std::to_string(height) +
                                     " cannot be tracked: width and height must be the same whole multiple of "
                                     "160x120 (160x120, 320x240, 640x480, ...); resize or crop the recording.\n"
                                     "The library says: " + library_message());
    case QBT_RESULT_DATAFILE_INVALID_FORMAT:
    case QBT_RESULT_DATAFILE_NOT_FOUND:
      throw CliError(kExitDataFile, "the data file " + dataFile_ + " cannot be loaded (`qbt info " + dataFile_ +
                                        "` tells why); give a trained forest with --data PATH.\nThe library says: " +
                                        library_message());
    default: throw CliError(kExitTracking, "tracking failed: " + library_message());
  }

  TrackedFrame out;
  out.index = index;
  out.width = width;
  out.height = height;
  qbt_bodylist_t list{};
  qbt_bodymask_t mask{};
  qbt_floormask_t floorMask{};
  qbt_plane_t plane{};
  bool floorDetected = false;
  const bool ok = qbt_bodyframe_body_list(frame, &list) == QBT_RESULT_SUCCESS &&
                  qbt_bodyframe_floor_info(frame, &floorDetected, &plane, &floorMask) == QBT_RESULT_SUCCESS &&
                  qbt_bodyframe_bodymask(frame, &mask) == QBT_RESULT_SUCCESS;
  if (!ok) {
    const std::string why = library_message();
    qbt_bodyframe_release(&frame);
    throw CliError(kExitTracking, "cannot read the body frame: " + why);
  }
  for (uint32_t i = 0; i < list.count; ++i) {
    const qbt_body_t& b = list.bodies[i];
    TrackedBody& body = out.bodies.emplace_back();
    body.id = b.id;
    body.status = b.status;
    for (int k = 0; k < QBT_JOINT_COUNT; ++k) body.joints[static_cast<size_t>(k)].type = static_cast<uint8_t>(k);
    for (const qbt_joint_t& j : b.joints) {
      if (j.jointType >= QBT_JOINT_COUNT) continue;
      TrackedJoint& t = body.joints[j.jointType];
      t.type = j.jointType;
      t.status = j.status;
      t.depth[0] = j.depthPosition.x;
      t.depth[1] = j.depthPosition.y;
      t.world[0] = j.worldPosition.x;
      t.world[1] = j.worldPosition.y;
      t.world[2] = j.worldPosition.z;
    }
  }
  out.floorDetected = floorDetected;
  out.plane = {plane.nx, plane.ny, plane.nz, plane.d};
  if (keepMasks) {
    if (mask.data != nullptr && static_cast<uint32_t>(mask.width) == width && static_cast<uint32_t>(mask.height) == height)
      out.bodyMask.assign(mask.data, mask.data + size_t{width} * height);
    if (floorMask.data != nullptr && static_cast<uint32_t>(floorMask.width) == width &&
        static_cast<uint32_t>(floorMask.height) == height)
      out.floorMask.assign(floorMask.data, floorMask.data + size_t{width} * height);
  }
  qbt_bodyframe_release(&frame);
  return out;
}

}  // namespace quorvik::cli
