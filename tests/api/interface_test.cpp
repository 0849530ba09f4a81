// The exported functions seen from a host: only the public header and the shared library.

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "quorvik/body_tracking.h"

extern "C" int qbt_abi_layout_checked(void);

namespace {

std::string last_text() {
  qbt_error_info_t info{};
  EXPECT_EQ(qbt_error_info(&info), 0);
  return info.message;
}

qbt_result_t last_code() {
  qbt_error_info_t info{};
  EXPECT_EQ(qbt_error_info(&info), 0);
  return info.code;
}

// A handle that is not null; the checks under test never look behind it.
qbt_bodytracker_t fake_tracker() { return reinterpret_cast<qbt_bodytracker_t>(uintptr_t{0x10}); }

TEST(ErrorRecord, StartsEmptyAndSurvivesSuccess) {
  ASSERT_EQ(qbt_abi_layout_checked(), 1);
  EXPECT_EQ(last_code(), 0);
  EXPECT_EQ(last_text(), "No error occurred.");
  EXPECT_EQ(qbt_error_info(nullptr), 7);
  EXPECT_EQ(last_text(), "qbt_error_info(): Invalid parameter: info is null");
  qbt_bodytracker_options_t options;
  EXPECT_EQ(qbt_bodytracker_fill_default_options(&options), 0);
  // A later success leaves the failure in place.
  EXPECT_EQ(last_code(), 7);
  EXPECT_EQ(last_text(), "qbt_error_info(): Invalid parameter: info is null");
}

TEST(ErrorRecord, MessagePointerIsTheSharedBuffer) {
  qbt_error_info_t first{};
  qbt_error_info(&first);
  qbt_bodytracker_reset(nullptr);
  EXPECT_STREQ(first.message, "qbt_bodytracker_reset(): Invalid parameter: bodyTracker");
}

TEST(DefaultOptions, HaveTheDocumentedValues) {
  qbt_bodytracker_options_t o;
  std::memset(&o, 0xAB, sizeof o);
  ASSERT_EQ(qbt_bodytracker_fill_default_options(&o), 0);
  uint32_t bits;
  std::memcpy(&bits, &o.horizontalFov, 4);
  EXPECT_EQ(bits, 0x426A5C29u);
  std::memcpy(&bits, &o.verticalFov, 4);
  EXPECT_EQ(bits, 0x42368F5Cu);
  std::memcpy(&bits, &o.zeroPlanePixelSize, 4);
  EXPECT_EQ(bits, 0x3DE96788u);
  EXPECT_EQ(o.zeroPlaneDistance, 130);
  EXPECT_EQ(o.emitterDcmosDistance, 7.5f);
  EXPECT_EQ(o.maxShiftValue, 2047);
  EXPECT_EQ(o.deviceMaxDepth, 10000);
  EXPECT_EQ(o.constShift, 200u);
  EXPECT_EQ(o.pixelSizeFactor, 1u);
  EXPECT_EQ(o.paramCoeff, 4u);
  EXPECT_EQ(o.shiftScale, 10u);
  EXPECT_EQ(o.minDepth, 0);
  EXPECT_EQ(o.maxDepth, 10000);
  EXPECT_EQ(o.dataFilePath, nullptr);
  EXPECT_EQ(qbt_bodytracker_fill_default_options(nullptr), 7);
  EXPECT_EQ(last_text(), "qbt_bodytracker_fill_default_options(): Invalid parameter: options is null");
}

TEST(HandleValidity, OnlyAllZeroIsInvalid) {
  EXPECT_FALSE(qbt_bodyframe_is_valid(qbt_bodyframe_t{}));
  EXPECT_FALSE(qbt_asyncbodyframe_is_valid(qbt_asyncbodyframe_t{}));
  qbt_bodyframe_t frame{};
  frame.tracker = fake_tracker();
  EXPECT_TRUE(qbt_bodyframe_is_valid(frame));
  qbt_bodyframe_t frameOnly{};
  frameOnly.frame = reinterpret_cast<qbt_frame_object*>(uintptr_t{0x20});
  EXPECT_TRUE(qbt_bodyframe_is_valid(frameOnly));
  qbt_asyncbodyframe_t async{};
  async.slot = reinterpret_cast<qbt_pending_slot*>(uintptr_t{0x20});
  EXPECT_TRUE(qbt_asyncbodyframe_is_valid(async));
}

struct CheckCase {
  const char* label;
  qbt_result_t (*call)();
  const char* text;
};

// Every refused argument: code 7 and the exact stored text, in the order the checks run.
TEST(ArgumentChecks, EachRefusalStoresItsText) {
  static qbt_bodyframe_t frame;
  static qbt_asyncbodyframe_t async;
  static bool flag;
  static qbt_bodylist_t list;
  static qbt_bodymask_t mask;
  static qbt_plane_t plane;
  static qbt_floormask_t floorMask;
  static qbt_bodyframe_info_t info;
  static qbt_depthmap_t depth;
  static qbt_bodytracker_t tracker;
  static const qbt_bodyframe_t trackerOnly{fake_tracker(), nullptr};
  static const qbt_asyncbodyframe_t asyncTrackerOnly{fake_tracker(), nullptr};
  static qbt_depthmap_t nullData;
  nullData.data = nullptr, nullData.width = 160, nullData.height = 120;

  const CheckCase cases[] = {
      {"create null out", [] { return qbt_bodytracker_create(nullptr, nullptr); },
       "qbt_bodytracker_create(): Invalid parameter: bodyTracker is null"},
      {"destroy null", [] { return qbt_bodytracker_destroy(nullptr); },
       "qbt_bodytracker_destroy(): Invalid parameter: bodyTracker is null"},
      {"destroy invalid", [] { tracker = nullptr; return qbt_bodytracker_destroy(&tracker); },
       "qbt_bodytracker_destroy(): Invalid parameter: bodyTracker"},
      {"reset", [] { return qbt_bodytracker_reset(nullptr); },
       "qbt_bodytracker_reset(): Invalid parameter: bodyTracker"},
      {"set mirrored", [] { return qbt_bodytracker_set_is_depth_mirrored(nullptr, true); },
       "qbt_bodytracker_set_is_depth_mirrored(): Invalid parameter: bodyTracker"},
      {"is mirrored handle", [] { return qbt_bodytracker_is_depth_mirrored(nullptr, &flag); },
       "qbt_bodytracker_is_depth_mirrored(): Invalid parameter: bodyTracker"},
      {"is mirrored out", [] { return qbt_bodytracker_is_depth_mirrored(fake_tracker(), nullptr); },
       "qbt_bodytracker_is_depth_mirrored(): Invalid parameter: isDepthMirrored is null"},
      {"update handle", [] { return qbt_bodytracker_update(nullptr, &depth, &frame); },
       "qbt_bodytracker_update(): Invalid parameter: bodyTracker"},
      {"update out", [] { return qbt_bodytracker_update(fake_tracker(), &depth, nullptr); },
       "qbt_bodytracker_update(): Invalid parameter: bodyFrame is null"},
      {"update depth", [] { return qbt_bodytracker_update(fake_tracker(), nullptr, &frame); },
       "qbt_bodytracker_update(): Invalid parameter: depthMap is null"},
      {"update null data", [] { return qbt_bodytracker_update(fake_tracker(), &nullData, &frame); },
       "qbt_bodytracker_update(): Invalid parameter: depthMap data is null"},
      {"async handle", [] { return qbt_bodytracker_update_async(nullptr, &depth, &async); },
       "qbt_bodytracker_update_async(): Invalid parameter: bodyTracker"},
      {"async out", [] { return qbt_bodytracker_update_async(fake_tracker(), &depth, nullptr); },
       "qbt_bodytracker_update_async(): Invalid parameter: asyncBodyFrame is null"},
      {"async depth", [] { return qbt_bodytracker_update_async(fake_tracker(), nullptr, &async); },
       "qbt_bodytracker_update_async(): Invalid parameter: depthMap is null"},
      {"async null data", [] { return qbt_bodytracker_update_async(fake_tracker(), &nullData, &async); },
       "qbt_bodytracker_update_async(): Invalid parameter: depthMap data is null"},
      {"ready handle", [] { return qbt_asyncbodyframe_frame_ready(qbt_asyncbodyframe_t{}, &flag); },
       "qbt_asyncbodyframe_frame_ready(): Invalid parameter: asyncBodyFrame"},
      {"ready out", [] { return qbt_asyncbodyframe_frame_ready(asyncTrackerOnly, nullptr); },
       "qbt_asyncbodyframe_frame_ready(): Invalid parameter: isReady is null"},
      {"take handle", [] { return qbt_asyncbodyframe_take_frame(qbt_asyncbodyframe_t{}, &frame); },
       "qbt_asyncbodyframe_take_frame(): Invalid parameter: asyncBodyFrame"},
      {"take out", [] { return qbt_asyncbodyframe_take_frame(asyncTrackerOnly, nullptr); },
       "qbt_asyncbodyframe_take_frame(): Invalid parameter: bodyFrame is null"},
      {"list handle", [] { return qbt_bodyframe_body_list(qbt_bodyframe_t{}, &list); },
       "qbt_bodyframe_body_list(): Invalid parameter: bodyFrame"},
      {"list out", [] { return qbt_bodyframe_body_list(trackerOnly, nullptr); },
       "qbt_bodyframe_body_list(): Invalid parameter: bodyList is null"},
      {"list frame", [] { return qbt_bodyframe_body_list(trackerOnly, &list); },
       "qbt_bodyframe_body_list(): Invalid parameter: bodyFrame"},
      {"mask handle", [] { return qbt_bodyframe_bodymask(qbt_bodyframe_t{}, &mask); },
       "qbt_bodyframe_bodymask(): Invalid parameter: bodyFrame"},
      {"mask out", [] { return qbt_bodyframe_bodymask(trackerOnly, nullptr); },
       "qbt_bodyframe_bodymask(): Invalid parameter: bodyMask is null"},
      {"mask frame", [] { return qbt_bodyframe_bodymask(trackerOnly, &mask); },
       "qbt_bodyframe_bodymask(): Invalid parameter: bodyFrame"},
      {"floor handle", [] { return qbt_bodyframe_floor_info(qbt_bodyframe_t{}, &flag, &plane, &floorMask); },
       "qbt_bodyframe_floor_info(): Invalid parameter: bodyFrame"},
      {"floor detected", [] { return qbt_bodyframe_floor_info(trackerOnly, nullptr, &plane, &floorMask); },
       "qbt_bodyframe_floor_info(): Invalid parameter: floorDetected"},
      {"floor plane", [] { return qbt_bodyframe_floor_info(trackerOnly, &flag, nullptr, &floorMask); },
       "qbt_bodyframe_floor_info(): Invalid parameter: floorPlane"},
      {"floor mask", [] { return qbt_bodyframe_floor_info(trackerOnly, &flag, &plane, nullptr); },
       "qbt_bodyframe_floor_info(): Invalid parameter: floorMask"},
      {"floor frame", [] { return qbt_bodyframe_floor_info(trackerOnly, &flag, &plane, &floorMask); },
       "qbt_bodyframe_floor_info(): Invalid parameter: bodyFrame"},
      {"info handle", [] { return qbt_bodyframe_info(qbt_bodyframe_t{}, &info); },
       "qbt_bodyframe_info(): Invalid parameter: bodyFrame"},
      {"info out", [] { return qbt_bodyframe_info(trackerOnly, nullptr); },
       "qbt_bodyframe_info(): Invalid parameter: info is null"},
      {"info frame", [] { return qbt_bodyframe_info(trackerOnly, &info); },
       "qbt_bodyframe_info(): Invalid parameter: bodyFrame"},
      {"release null", [] { return qbt_bodyframe_release(nullptr); },
       "qbt_bodyframe_release(): Invalid parameter: bodyFrame is null"},
      {"release handle", [] { frame = qbt_bodyframe_t{}; return qbt_bodyframe_release(&frame); },
       "qbt_bodyframe_release(): Invalid parameter: bodyFrame"},
      {"release frame", [] { frame = trackerOnly; return qbt_bodyframe_release(&frame); },
       "qbt_bodyframe_release(): Invalid parameter: bodyFrame"},
  };
  for (const CheckCase& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(c.call(), 7);
    EXPECT_EQ(last_code(), 7);
    EXPECT_EQ(last_text(), c.text);
  }
}

// Outputs are cleared before the checks that follow them, so no stale handle survives a refusal.
TEST(ArgumentChecks, OutputsAreClearedBeforeLaterChecks) {
  const qbt_bodyframe_t stale{fake_tracker(), reinterpret_cast<qbt_frame_object*>(uintptr_t{0x30})};
  qbt_bodyframe_t frame = stale;
  EXPECT_EQ(qbt_bodytracker_update(fake_tracker(), nullptr, &frame), 7);
  EXPECT_FALSE(qbt_bodyframe_is_valid(frame));

  frame = stale;
  EXPECT_EQ(qbt_bodytracker_update(nullptr, nullptr, &frame), 7);
  EXPECT_TRUE(qbt_bodyframe_is_valid(frame)) << "the handle check comes before the clearing";

  qbt_asyncbodyframe_t async{fake_tracker(), reinterpret_cast<qbt_pending_slot*>(uintptr_t{0x30})};
  EXPECT_EQ(qbt_bodytracker_update_async(fake_tracker(), nullptr, &async), 7);
  EXPECT_FALSE(qbt_asyncbodyframe_is_valid(async));

  bool flag = true;
  EXPECT_EQ(qbt_asyncbodyframe_frame_ready(qbt_asyncbodyframe_t{}, &flag), 7);
  EXPECT_TRUE(flag) << "cleared only after the handle check";

  qbt_bodylist_t list{reinterpret_cast<qbt_body_t*>(uintptr_t{0x40}), 3};
  EXPECT_EQ(qbt_bodyframe_body_list(qbt_bodyframe_t{fake_tracker(), nullptr}, &list), 7);
  EXPECT_EQ(list.bodies, nullptr);
  EXPECT_EQ(list.count, 0u);

  bool detected = true;
  qbt_plane_t plane{1, 2, 3, 4};
  qbt_floormask_t mask{reinterpret_cast<const uint8_t*>(uintptr_t{0x40}), 5, 6};
  EXPECT_EQ(qbt_bodyframe_floor_info(qbt_bodyframe_t{fake_tracker(), nullptr}, &detected, &plane, &mask), 7);
  EXPECT_FALSE(detected);
  EXPECT_EQ(plane.nx, 0.f);
  EXPECT_EQ(plane.d, 0.f);
  EXPECT_EQ(mask.data, nullptr);
  EXPECT_EQ(mask.width, 0);

  qbt_bodyframe_t release{fake_tracker(), nullptr};
  EXPECT_EQ(qbt_bodyframe_release(&release), 7);
  EXPECT_FALSE(qbt_bodyframe_is_valid(release));
}

}  // namespace
