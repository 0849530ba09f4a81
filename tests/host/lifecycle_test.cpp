// A host's view of whole sequences: people rendered into depth maps, tracked through the
// shared library, bodies and masks read back through the C interface.

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "quorvik/body_tracking.h"
#include "support/box_forest.h"
#include "support/sim_scene.h"

namespace {

class Host {
 public:
  explicit Host(int scale = 1) : scene(1000.f, 5.f, 160 * scale, 120 * scale) {
    qbt_bodytracker_options_t options;
    qbt_bodytracker_fill_default_options(&options);
    options.dataFilePath = box_forest::file().c_str();
    EXPECT_EQ(qbt_bodytracker_create(&options, &tracker), 0);
    scene.floor().wall(4500);
  }
  ~Host() { qbt_bodytracker_destroy(&tracker); }

  // One update; returns the bodies by id. The frame is released before returning unless kept.
  std::map<uint8_t, qbt_body_t> update(qbt_bodyframe_t* keep = nullptr) {
    depth = scene.render();
    const qbt_depthmap_t map{depth.data(), scene.width(), scene.height()};
    qbt_bodyframe_t frame;
    EXPECT_EQ(qbt_bodytracker_update(tracker, &map, &frame), 0);
    qbt_bodylist_t list;
    EXPECT_EQ(qbt_bodyframe_body_list(frame, &list), 0);
    std::map<uint8_t, qbt_body_t> bodies;
    for (uint32_t i = 0; i < list.count; ++i) bodies[list.bodies[i].id] = list.bodies[i];
    if (keep != nullptr)
      *keep = frame;
    else
      qbt_bodyframe_release(&frame);
    return bodies;
  }

  sim_scene::Scene scene;
  qbt_bodytracker_t tracker = nullptr;
  std::vector<uint16_t> depth;
};

TEST(HostSequence, AWalkerIsStartedTrackedLostAndForgotten) {
  Host host;
  const int walker = host.scene.add_person(-2600.f, 2800.f);
  std::vector<int> statuses;
  int firstVisible = -1, firstTracked = -1;
  for (int frame = 0; frame < 150; ++frame) {
    if (frame >= 40) host.scene.walk_to(walker, std::min(-2600.f + 30.f * (frame - 40), 0.f), 2800.f);
    if (firstVisible < 0 && host.scene.fully_visible(walker)) firstVisible = frame;
    const auto bodies = host.update();
    ASSERT_LE(bodies.size(), 1u) << "one person, one id";
    if (!bodies.empty()) {
      if (firstTracked < 0) firstTracked = frame;
      statuses.push_back(bodies.begin()->second.status);
    }
  }
  ASSERT_GE(firstTracked, 0) << "the walker never got a body";
  EXPECT_LE(firstTracked - firstVisible, 30) << "an id within a second of being fully visible";
  EXPECT_EQ(statuses.front(), QBT_BODY_STATUS_TRACKING_STARTED);
  for (size_t i = 1; i < statuses.size(); ++i) EXPECT_EQ(statuses[i], QBT_BODY_STATUS_TRACKING) << i;

  // The person leaves the view: reported lost once with no joints, then gone.
  host.scene.person(walker).visible = false;
  const auto lost = host.update();
  ASSERT_EQ(lost.size(), 1u);
  const qbt_body_t& body = lost.begin()->second;
  EXPECT_EQ(body.status, QBT_BODY_STATUS_TRACKING_LOST);
  for (const qbt_joint_t& joint : body.joints) EXPECT_EQ(joint.status, QBT_JOINT_STATUS_NONE);
  EXPECT_TRUE(host.update().empty());
}

TEST(HostSequence, MasksAtTheInputSizeAndJointsOnTheBody) {
  Host host(2);
  host.scene.add_person(0.f, 2600.f);
  const int walker = host.scene.add_person(-2400.f, 3200.f);
  qbt_bodyframe_t frame{};
  std::map<uint8_t, qbt_body_t> bodies;
  for (int i = 0; i < 90; ++i) {
    host.scene.walk_to(walker, -2400.f + 20.f * i, 3200.f);
    bodies = host.update(i == 89 ? &frame : nullptr);
  }
  ASSERT_FALSE(bodies.empty());
  qbt_bodymask_t mask;
  ASSERT_EQ(qbt_bodyframe_bodymask(frame, &mask), 0);
  ASSERT_EQ(mask.width, 320);
  ASSERT_EQ(mask.height, 240);
  int covered = 0;
  for (int y = 0; y < 240; y += 2) {
    for (int x = 0; x < 320; x += 2) {
      const uint8_t v = mask.data[y * 320 + x];
      ASSERT_EQ(mask.data[y * 320 + x + 1], v);
      ASSERT_EQ(mask.data[(y + 1) * 320 + x], v);
      ASSERT_EQ(mask.data[(y + 1) * 320 + x + 1], v);
      if (v != 0) {
        ++covered;
        EXPECT_TRUE(bodies.count(v)) << "mask ids are body ids";
      }
    }
  }
  EXPECT_GT(covered, 200);

  bool floorDetected = false;
  qbt_plane_t plane;
  qbt_floormask_t floorMask;
  ASSERT_EQ(qbt_bodyframe_floor_info(frame, &floorDetected, &plane, &floorMask), 0);
  EXPECT_TRUE(floorDetected);
  EXPECT_GT(plane.ny, 0.9f) << "the floor's normal points up";
  int onFloor = 0;
  for (int i = 0; i < 320 * 240; ++i) {
    onFloor += floorMask.data[i];
    if (floorMask.data[i] != 0) {
      EXPECT_EQ(mask.data[i], 0) << "a pixel is floor or body, not both";
    }
  }
  EXPECT_GT(onFloor, 1000);

  // Joints that are reported lie on the body, in input pixels.
  for (const auto& [id, body] : bodies) {
    const qbt_joint_t& mid = body.joints[QBT_JOINT_MID_SPINE];
    ASSERT_NE(mid.status, QBT_JOINT_STATUS_NONE) << int(id);
    EXPECT_GT(mid.worldPosition.z, 2000.f);
    EXPECT_LT(mid.worldPosition.z, 3800.f);
    const int x = static_cast<int>(mid.depthPosition.x), y = static_cast<int>(mid.depthPosition.y);
    ASSERT_TRUE(x >= 0 && x < 320 && y >= 0 && y < 240);
  }
  qbt_bodyframe_release(&frame);
}

TEST(HostSequence, MirroringSwapsSidesAndResetRestartsStatuses) {
  Host plain, mirrored;
  qbt_bodytracker_set_is_depth_mirrored(plain.tracker, false);
  for (Host* h : {&plain, &mirrored}) h->scene.add_person(-2400.f, 2800.f);
  std::map<uint8_t, qbt_body_t> a, b;
  for (int i = 0; i < 80; ++i) {
    for (Host* h : {&plain, &mirrored}) h->scene.walk_to(0, -2400.f + 30.f * i, 2800.f);
    a = plain.update();
    b = mirrored.update();
  }
  ASSERT_EQ(a.size(), 1u);
  ASSERT_EQ(b.size(), 1u);
  const qbt_body_t& pa = a.begin()->second;
  const qbt_body_t& pb = b.begin()->second;
  // Same scene: the mirrored tracker reports each joint in the slot of its mirror joint.
  const int mirror[16] = {0, 1, 5, 6, 7, 2, 3, 4, 8, 9, 13, 14, 15, 10, 11, 12};
  int sided = 0;
  for (int j = 0; j < 16; ++j) {
    SCOPED_TRACE(j);
    const qbt_joint_t& ja = pa.joints[j];
    const qbt_joint_t& jb = pb.joints[mirror[j]];
    EXPECT_EQ(ja.status, jb.status);
    if (ja.status == QBT_JOINT_STATUS_NONE) continue;
    EXPECT_NEAR(ja.worldPosition.x, jb.worldPosition.x, 1e-3);
    EXPECT_NEAR(ja.worldPosition.z, jb.worldPosition.z, 1e-3);
    if (mirror[j] != j) ++sided;
  }
  EXPECT_GT(sided, 0) << "some left or right joint is tracked";

  EXPECT_EQ(qbt_bodytracker_reset(plain.tracker), 0);
  bool started = false;
  for (int i = 0; i < 60 && !started; ++i) {
    const auto bodies = plain.update();
    if (!bodies.empty()) {
      EXPECT_EQ(bodies.begin()->second.status, QBT_BODY_STATUS_TRACKING_STARTED);
      started = true;
    }
  }
  EXPECT_TRUE(started) << "the person is found again after the reset";
}

}  // namespace
