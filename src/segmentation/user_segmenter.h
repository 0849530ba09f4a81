#pragma once
// Users stage of the segmentation engine: cuts the near scene into connected regions, gives
// them user ids that persist from frame to frame and writes the engine's label map (user id
// 1 to 10 per pixel, 0 = nobody).
//
// Identity rests on one rule: a region inherits the id of the previous frame's user under
// whose pixels it lies, counted only where the depth has not changed. Everything else
// (pairs of touching users, static parts handed back to the background, fragments, new
// users, lost users) keeps three invariants: a region has at most one owner, an owner is an
// active user, and a user's region list holds only regions it owns.
//
// All tables are fixed arrays inside the object; only the images (and the union-find table,
// which is as long as the image) grow with the frame size.

#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "op/union_find.h"
#include "segmentation/background_model.h"
#include "segmentation/candidate_detector.h"
#include "segmentation/containers.h"
#include "segmentation/depth_frame_input.h"
#include "segmentation/person_check.h"

namespace quorvik::legacy {

// A region the users stage found static; the engine writes it into the background.
struct HandedBackRegion {
  int32_t regionId = 0;
  Box3D<int> box;
  int32_t weight = 0;  // square millimetres
};

struct RegionStats {
  int32_t pixels = 0;      // all pixels of the region
  int32_t nearPixels = 0;  // pixels nearer than the labelling cut
  int32_t minX = 0, minY = 0, maxX = 0, maxY = 0;  // box of the near pixels
  int32_t minDepth = 0, maxDepth = 0;
  // Pixels pushed away as static (raw depths): what a still person leaves of a region.
  int32_t farPixels = 0;
  int32_t farMinX = 0, farMinY = 0, farMaxX = 0, farMaxY = 0;
  int32_t farMinDepth = 0, farMaxDepth = 0;
  int64_t farSumX = 0, farSumDepth = 0, farWeight = 0;
  int64_t sumX = 0, sumY = 0, sumDepth = 0;
  // Hundredths of square millimetres while the statistics are gathered, square millimetres
  // after the carry-over.
  int64_t weight = 0, foregroundWeight = 0, unchangedWeight = 0;
  int64_t overlap[11] = {};  // with the previous frame's users 1 to 10, on unchanged pixels
  double meanX = 0, meanY = 0, meanDepth = 0, worldX = 0;
  bool hasNear = false, hasZero = false, mostlyUnchanged = false, mostlyForeground = false;
  bool handedBack = false;
  uint8_t handedBackBy = 0;
  uint8_t fragment = 0;  // set when a user let go of it as a separate person-sized part

  bool usable() const { return hasNear && !hasZero; }
};

// The floor as the shift it predicts at pixel (x, y): a x + b y + c, when one is known.
// The floor mask covers only the bottom of the image and a narrow band around the plane.
struct FloorShiftPlane {
  bool known = false;
  double a = 0, b = 0, c = 0;
};

struct UserPosition {
  float x = 0, y = 0, z = 0;  // world millimetres of the centroid
};

struct UserRecord {
  static constexpr int32_t kMaxRegions = 500;
  static constexpr int32_t kHistory = 100;

  bool active = false;
  int16_t regions[kMaxRegions] = {};
  int32_t regionCount = 0;
  Box3D<int> box;    // owned regions this frame (x, y pixels; z millimetres)
  int64_t area = 0;  // owned regions this frame, square millimetres
  double meanDepth = 0;  // of the owned regions, weighted by area
  int32_t pixelCount = 0;
  int32_t age = 0;
  int32_t lostCounter = 0;
  bool probation = false;
  int32_t pairPartner = 0;
  bool secondOfPair = false;
  UserPosition history[kHistory];
  int32_t historyIndex = 0, historyCount = 0;
  uint8_t pairFlags[11] = {};
  int32_t bestRegion = 0;  // region with the largest overlap in the carry-over
  // From the final label map of the previous stage 2.
  Box3D<int> labelBox;
  int32_t labelPixels = 0;
  int64_t labelArea = 0;
  int64_t previousArea = 0;
  UserPosition position;  // latest centroid
  Box3D<int> lastBox;     // label box of the latest frame in which it had pixels
  double centroidColumn = 0;
  int32_t worldHeight = 0;
  int32_t maxWorldHeight = 0;
  int32_t framesUnseen = 0;  // frames in a row without a single pixel
  bool seen = false;         // position holds a real sighting
  bool shapeFlag = false;    // static and too small to be a person
  int32_t stillFrames = 0;    // frames in a row without a change in its regions
  uint64_t nextObjectCheck = 0;
  int32_t objectNo = 0;       // no answers in a row while short and still
  int32_t peakPixels = 0;     // the most pixels it ever had

  bool append(int32_t region) {
    if (regionCount >= kMaxRegions) return false;
    regions[regionCount++] = int16_t(region);
    return true;
  }
  void clear_frame_state() {
    regionCount = 0;
    box.reset();
    area = 0;
    pixelCount = 0;
    pairPartner = 0;
    secondOfPair = false;
    bestRegion = 0;
  }
};

// Two users whose pixels joined into shared regions; their boundary is cut per pixel.
struct PairEvent {
  bool used = false;
  int32_t first = 0, second = 0;
  int32_t splitColumn = 0;
  bool secondOnLeft = false;
  int64_t recordedOverlap = 0;
  int32_t frames = 0;
  bool pairedThisFrame = false;
};

// A person-sized group of unowned foreground regions followed over a few frames before it
// becomes a user.
struct PendingPerson {
  bool used = false;
  bool matched = false;
  float firstX = 0, firstZ = 0, x = 0, z = 0;
  float moved = 0;
  int32_t frames = 0;
};

// A still person-shaped region being asked about, followed by its position on the ground:
// checks back off, so that a coat stand costs a forest pass now and then, not every frame.
struct StillProposal {
  bool used = false;
  bool seen = false;  // matched a region this frame
  float x = 0, z = 0;  // world millimetres
  int32_t yes = 0, no = 0;
  uint64_t nextCheck = 0;  // frame of the next check
};

class UserSegmenter {
 public:
  static constexpr int32_t kMaxUsers = 10;
  static constexpr int32_t kMaxRegions = 2000;
  static constexpr int32_t kMaxRegionId = kMaxRegions - 1;
  static constexpr int32_t kMaxPairs = kMaxUsers * (kMaxUsers - 1) / 2;
  static constexpr int32_t kMaxPending = 16;
  static constexpr int32_t kMaxStill = 16;
  static constexpr int32_t kMaxGroupRegions = 256;
  static constexpr int32_t kWeightTableSize = 10000;

  void start(int32_t width, int32_t height, const uint16_t* depthToShift, uint32_t depthToShiftLength,
             bool mirrored, const skeleton::SegCoordinateMapper<double>* mapper);
  // Stage 1: regions of the near scene and the ids they inherit. Reads the input stage's
  // rings and valid box, the floor mask where hasFloor, and the background model's
  // foreground, resetThisFrame, badFrame, sceneChanging and changeDepth.
  void stage1(DepthFrameInput& input, const Array2D<uint8_t>& floorMask, bool hasFloor,
              const BackgroundModel& background, FloorShiftPlane floorPlane = {});
  // Stage 2: new users (from the tracked candidates and from person-sized foreground), user
  // update and the final label map.
  void stage2(DepthFrameInput& input, std::span<const TrackedCandidate> candidates,
              const BackgroundModel& background);

  // Without a check, still people are found only once they move.
  void set_person_check(PersonCheck check) { personCheck_ = std::move(check); }

  // The current label map: region ids between the two stages, user ids after stage 2.
  Array2D<uint16_t>& label_map() { return labelRing_.current(); }
  const Array2D<uint16_t>& label_map() const { return labelRing_.back(0); }
  const Array2D<uint16_t>& previous_label_map() const { return labelRing_.back(1); }
  std::span<const HandedBackRegion> regions_handed_back() const { return {handedBack_, size_t(handedBackCount_)}; }
  // The user found standing still this frame (0 = none).
  bool object_dropped() const { return objectDropped_; }
  const Array2D<uint8_t>& object_mask() const { return objectMask_; }
  int32_t still_user_found() const { return seedUser_ != 0 && users_[seedUser_].active ? seedUser_ : 0; }
  std::span<const Box3D<int>> active_user_boxes() const { return {userBoxes_, size_t(userBoxCount_)}; }

  // Read access for the user analyzer and for tests.
  const UserRecord& user(int32_t id) const { return users_[id]; }
  bool is_active(int32_t id) const { return id >= 1 && id <= kMaxUsers && users_[id].active; }
  int32_t active_user_count() const;
  int32_t region_count() const { return regionCount_; }
  const RegionStats& region(int32_t id) const { return regions_[id]; }
  uint32_t region_owner(int32_t id) const { return owner_[id]; }
  std::span<const uint32_t> free_ids() const { return {freeIds_, size_t(freeCount_)}; }
  const Array2D<uint16_t>& labelling_depth() const { return labellingDepth_; }
  // The invariants between regions, owners and user lists; for tests.
  bool consistent() const;

 private:
  // Labelling and statistics (user_segmenter.cpp).
  void build_labelling_images(DepthFrameInput& input, const Array2D<uint8_t>& floorMask, bool hasFloor,
                              const BackgroundModel& background);
  void label_regions();
  void gather_region_statistics(const BackgroundModel& background, DepthFrameInput& input);
  // Identity and pairs (users_pairs.cpp).
  void carry_over_identity();
  void pair_users();
  void maintain_pair_events();
  int32_t find_pair(int32_t a, int32_t b) const;
  bool in_pair(int32_t id) const;
  void claim_pair_surfaces();
  uint8_t surface_owner(int32_t x, int32_t y);
  // What the users keep (users_checks.cpp).
  void check_against_background(const BackgroundModel& background);
  void hand_back_static_regions();
  void drop_fragments();
  void rebuild_handed_back();
  // New users from what moves (users_search.cpp) and from what stands still (users_still.cpp).
  void form_groups(int32_t n, bool far, int32_t depthGap);
  int32_t group_unowned_regions(bool excludeNearUsers);
  void reacquire_lost_users();
  bool covered_by_users(const Box3D<int>& box) const;
  void create_from_candidates(std::span<const TrackedCandidate> candidates);
  void create_from_foreground();
  int32_t group_static_regions();
  void find_still_people();
  // Update and the final label map (users_update.cpp).
  void attach_unowned_regions();
  void update_users();
  void relabel();
  void measure_users();
  void check_shapes();
  void drop_still_objects();
  bool hidden_below(int32_t id) const;

  // Bookkeeping shared by the steps (user_segmenter.cpp).
  int32_t create_user();
  void remove_user(int32_t id);
  void give_region(int32_t id, int32_t region);
  void gather_owned(int32_t id);
  int32_t world_height(int32_t minY, int32_t maxY, double depth) const;
  double pixel_size(double depth) const;

  int32_t width_ = 0, height_ = 0, pixelCount_ = 0;
  uint32_t scale_ = 0;
  const uint16_t* depthToShift_ = nullptr;
  uint32_t depthToShiftLength_ = 0;
  bool mirrored_ = false;
  const skeleton::SegCoordinateMapper<double>* mapper_ = nullptr;

  Array2D<uint16_t> labellingDepth_{0, 0, true};
  Array2D<uint16_t> labellingShift_{0, 0, true};
  Array2D<uint8_t> unchanged_;
  Array2D<uint8_t> unchangedNear_;
  Array2D<int32_t> provisional_;
  ImageRing<uint16_t, 2> labelRing_;
  op::UnionFind pixelSets_;            // over provisional labels
  std::vector<int32_t> regionNumber_;  // provisional label -> region id - 1

  int32_t weight_[kWeightTableSize] = {};
  int32_t regionCount_ = 0;
  RegionStats regions_[kMaxRegions];
  uint32_t owner_[kMaxRegions] = {};
  int64_t overlapTotals_[kMaxUsers + 1][kMaxUsers + 1] = {};
  int8_t cutEvent_[kMaxRegions] = {};
  // Surfaces inside the regions a pair shares (labels in provisional_, sets in pixelSets_).
  std::vector<uint8_t> surfaceOwner_;
  std::vector<int32_t> surfaceVotes_;
  std::vector<int8_t> surfaceEvent_;
  ValidBox box_;  // valid box of the frame, clamped to the image; empty when left > right
  UserRecord users_[kMaxUsers + 1];
  PairEvent pairs_[kMaxPairs];
  uint32_t freeIds_[kMaxUsers] = {};
  int32_t freeCount_ = 0;
  HandedBackRegion handedBack_[kMaxRegions];
  int32_t handedBackCount_ = 0;
  Box3D<int> userBoxes_[kMaxUsers];
  int32_t userBoxCount_ = 0;
  bool badFrame_ = false;
  bool searchAllowed_ = false;
  uint64_t frame_ = 0;

  // Grouping of unowned regions for the new-user paths.
  struct Group {
    int32_t first = 0, count = 0;
    int64_t area = 0;
    int32_t minX = 0, minY = 0, maxX = 0, maxY = 0, minDepth = 0, maxDepth = 0;
    double meanDepth = 0, worldX = 0;
    int32_t height = 0, width = 0;
  };
  int32_t groupRegion_[kMaxGroupRegions] = {};
  op::UnionFind regionGroups_;  // over groupRegion_, or a user's regions for the fragments
  int32_t groupMembers_[kMaxGroupRegions] = {};
  Group groups_[kMaxGroupRegions];
  int32_t groupCount_ = 0;
  PendingPerson pending_[kMaxPending];
  int64_t keep_still_parts(double meanDepth, Box3D<int>& box);
  int64_t cut_still_person(const Group& group, Box3D<int>& box);
  bool still_pixel(int32_t x, int32_t y, uint16_t region) const;
  bool has_head(const Box3D<int>& box) const;
  static constexpr int32_t kMaxHeadRows = 64;
  uint8_t stillMember_[kMaxRegions] = {};
  Group stillSources_[kMaxGroupRegions];
  std::vector<int32_t> fillOrder_;
  struct StillPart {
    size_t first = 0, count = 0;  // in fillOrder_
    Box3D<int> box;
  };
  std::vector<StillPart> stillParts_;
  std::vector<uint8_t> stillTaken_;

  PersonCheck personCheck_;
  StillProposal still_[kMaxStill];
  Array2D<uint8_t> objectMask_;  // a short, still user asked about
  bool objectDropped_ = false;   // this frame, with its pixels in objectMask_
  Array2D<uint8_t> stillMask_;  // the proposal asked about
  int32_t seedUser_ = 0;        // a user found this frame, given stillMask_ in the relabel
  FloorShiftPlane floorPlane_;

  // Pixels of each user in the final label map.
  struct LabelSums {
    int32_t pixels = 0;
    int32_t minX = INT32_MAX, minY = INT32_MAX, minZ = INT32_MAX;
    int32_t maxX = INT32_MIN, maxY = INT32_MIN, maxZ = INT32_MIN;
    int64_t x = 0, y = 0, z = 0, weight = 0;
  };
  LabelSums labelSums_[kMaxUsers + 1];
};

}  // namespace quorvik::legacy
