#include "api/body_list.h"

#include <cstring>

namespace quorvik::api {
namespace {

bool convert_body(const skeleton::Body& body, qbt_body_t& out, qbt_result_t& failure) {
  out.id = body.id;
  const auto status = static_cast<uint8_t>(body.status);
  if (status > QBT_BODY_STATUS_TRACKING) {
    failure = QBT_RESULT_BODY_STATUS_CONVERSION_FAILED;
    return false;
  }
  out.status = status;
  std::memset(out.joints, 0, sizeof out.joints);
  int visited = 0;
  for (const auto& [key, joint] : body.joints) {
    if (visited++ == QBT_JOINT_COUNT) break;
    // 255 is "no joint": it has no public slot.
    if (joint.type == skeleton::kNoJointByte) continue;
    if (joint.type >= QBT_JOINT_COUNT) {
      failure = QBT_RESULT_JOINT_TYPE_CONVERSION_FAILED;
      return false;
    }
    const auto jointStatus = static_cast<uint8_t>(joint.status);
    if (jointStatus > QBT_JOINT_STATUS_HIGH) {
      failure = QBT_RESULT_JOINT_STATUS_CONVERSION_FAILED;
      return false;
    }
    qbt_joint_t& slot = out.joints[joint.type];
    slot.jointType = joint.type;
    slot.status = jointStatus;
    slot.depthPosition = {joint.depthPosition[0], joint.depthPosition[1]};
    slot.worldPosition = {joint.worldPosition[0], joint.worldPosition[1], joint.worldPosition[2]};
  }
  return true;
}

}  // namespace

qbt_result_t build_body_list(const skeleton::_::BodyFrame& frame, std::vector<qbt_body_t>& storage,
                             qbt_bodylist_t& list) {
  storage.clear();
  list = qbt_bodylist_t{};
  storage.resize(frame.bodyCount);
  for (uint64_t i = 0; i < frame.bodyCount; ++i) {
    qbt_result_t failure = 0;
    if (!convert_body(frame.bodies[i], storage[i], failure)) {
      storage.clear();
      return failure;
    }
  }
  list.count = static_cast<uint32_t>(storage.size());
  list.bodies = storage.empty() ? nullptr : storage.data();
  return 0;
}

}  // namespace quorvik::api
