#include "api/body_list.h"

#include <gtest/gtest.h>

namespace quorvik::api {
namespace {

using skeleton::Body;
using skeleton::BodyStatus;
using skeleton::Joint;
using skeleton::JointStatus;

Body full_body(uint8_t id) {
  Body body;
  body.id = id;
  body.status = BodyStatus::Tracking;
  for (uint8_t j = 0; j < 16; ++j) {
    Joint joint{j, static_cast<JointStatus>(j % 3), {float(j), float(j) + 0.5f}, {10.f * j, -1.f * j, 1000.f + j}};
    body.joints.emplace(j, joint);
  }
  return body;
}

struct Frame {
  std::vector<Body> bodies;
  skeleton::_::BodyFrame frame;
  void point() {
    frame.bodies = bodies.data();
    frame.bodyCount = bodies.size();
  }
};

TEST(BodyList, EveryJointLandsInTheSlotOfItsType) {
  Frame f;
  f.bodies = {full_body(3), full_body(7)};
  f.bodies[1].status = BodyStatus::TrackingStarted;
  f.point();
  std::vector<qbt_body_t> storage;
  qbt_bodylist_t list;
  ASSERT_EQ(build_body_list(f.frame, storage, list), 0);
  ASSERT_EQ(list.count, 2u);
  EXPECT_EQ(list.bodies[0].id, 3);
  EXPECT_EQ(list.bodies[0].status, QBT_BODY_STATUS_TRACKING);
  EXPECT_EQ(list.bodies[1].status, QBT_BODY_STATUS_TRACKING_STARTED);
  for (uint8_t j = 0; j < 16; ++j) {
    SCOPED_TRACE(int(j));
    const qbt_joint_t& slot = list.bodies[1].joints[j];
    EXPECT_EQ(slot.jointType, j);
    EXPECT_EQ(slot.status, j % 3);
    EXPECT_EQ(slot.depthPosition.y, float(j) + 0.5f);
    EXPECT_EQ(slot.worldPosition.x, 10.f * j);
    EXPECT_EQ(slot.worldPosition.z, 1000.f + j);
  }
  // A second call gives the same contents.
  qbt_bodylist_t again;
  ASSERT_EQ(build_body_list(f.frame, storage, again), 0);
  EXPECT_EQ(again.count, 2u);
  EXPECT_EQ(again.bodies[0].joints[15].worldPosition.z, 1015.f);
}

TEST(BodyList, MissingJointsStayZeroAndNoJointIsSkipped) {
  Frame f;
  Body body;
  body.id = 1;
  body.status = BodyStatus::TrackingLost;
  body.joints.emplace(4, Joint{4, JointStatus::Low, {1, 2}, {3, 4, 5}});
  body.joints.emplace(255, Joint{255, JointStatus::High, {9, 9}, {9, 9, 9}});
  f.bodies = {body};
  f.point();
  std::vector<qbt_body_t> storage;
  qbt_bodylist_t list;
  ASSERT_EQ(build_body_list(f.frame, storage, list), 0);
  for (int j = 0; j < 16; ++j) {
    const qbt_joint_t& slot = list.bodies[0].joints[j];
    if (j == 4) {
      EXPECT_EQ(slot.status, QBT_JOINT_STATUS_LOW);
      continue;
    }
    EXPECT_EQ(slot.jointType, 0);
    EXPECT_EQ(slot.status, 0);
    EXPECT_EQ(slot.worldPosition.z, 0.f);
  }
}

TEST(BodyList, ConversionFailuresLeaveAnEmptyList) {
  struct Case {
    const char* label;
    void (*spoil)(Body&);
    qbt_result_t code;
  } cases[] = {
      {"joint type", [](Body& b) { b.joints[5].type = 16; }, 100},
      {"joint status", [](Body& b) { b.joints[5].status = static_cast<JointStatus>(3); }, 101},
      {"body status", [](Body& b) { b.status = static_cast<BodyStatus>(4); }, 102},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    Frame f;
    f.bodies = {full_body(1), full_body(2)};
    c.spoil(f.bodies[1]);
    f.point();
    std::vector<qbt_body_t> storage;
    qbt_bodylist_t list;
    EXPECT_EQ(build_body_list(f.frame, storage, list), c.code);
    EXPECT_TRUE(storage.empty());
    EXPECT_EQ(list.bodies, nullptr);
    EXPECT_EQ(list.count, 0u);
  }
}

TEST(BodyFrame, ReleasingMoreThanHandedOutStaysAtZero) {
  skeleton::_::BodyFrame frame;
  frame.add_ref();
  frame.add_ref();
  frame.remove_ref();
  EXPECT_EQ(frame.refCount, 1u);
  frame.remove_ref();
  frame.remove_ref();
  EXPECT_EQ(frame.refCount, 0u);
}

}  // namespace
}  // namespace quorvik::api
