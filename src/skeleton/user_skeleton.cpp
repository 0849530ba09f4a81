#include "skeleton/user_skeleton.h"

namespace quorvik::skeleton {

UserSkeleton::UserSkeleton(uint8_t id) : userId(id), model(make_default_model()) {
  for (JointType type : report_joint_order()) joint(to_byte(type));
}

JointRecord& UserSkeleton::joint(uint8_t jointByte) {
  auto [it, inserted] = joints.try_emplace(jointByte);
  if (inserted) it->second.joint = jointByte;
  return it->second;
}

}  // namespace quorvik::skeleton
