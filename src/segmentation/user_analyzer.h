#pragma once
// The tracker's entry into scene segmentation: runs the engine on each depth map and turns
// its outputs into a user label image, the list of per-user records (new, kept, lost) and the
// floor.

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include <spdlog/logger.h>

#include "op/image.h"
#include "segmentation/depth_conversion.h"
#include "segmentation/person_check.h"
#include "segmentation/user_ids.h"

namespace quorvik::legacy {
class SegmentationEngine;
}

namespace quorvik::skeleton {

// What segmentation knows of a user; the tracker's own record extends it.
struct SegmentedUser {
  explicit SegmentedUser(uint8_t userId) : id(userId), labels{userId} {}

  uint8_t id;
  uint8_t lost = 0;
  // Carried into the body record unchanged.
  std::array<float, 7> extent{0, 1, 0, 1, 0, 1, 1.f};
  std::vector<uint16_t> labels;      // segments that make up the user
  std::vector<uint16_t> candidates;  // segments proposed to the classifier
  std::vector<uint16_t> extra;
};

class UserAnalyzer {
 public:
  UserAnalyzer(float hfovDegrees, float vfovDegrees, uint32_t width, uint32_t height);
  ~UserAnalyzer();
  UserAnalyzer(const UserAnalyzer&) = delete;
  UserAnalyzer& operator=(const UserAnalyzer&) = delete;

  // `User` derives from SegmentedUser and is constructible from an id. A record whose id
  // vanished is flagged lost for one update and erased at the start of the next.
  template <typename User>
  void update(const op::Image<uint16_t>& depth, const ConversionTables& tables, bool mirrored,
              std::vector<User>& users) {
    std::erase_if(users, [](const User& user) { return user.lost != 0; });
    const std::vector<uint8_t>& ids = segment(depth, tables, mirrored);
    for (User& user : users) user.lost = 1;
    for (uint8_t id : ids) {
      auto found = std::find_if(users.begin(), users.end(), [id](const User& user) { return user.id == id; });
      if (found != users.end())
        found->lost = 0;
      else
        users.emplace_back(id);
    }
  }

  // A fresh background model from the next update on.
  void reset();
  // Lets the users stage ask whether a still person-shaped proposal is a person.
  void set_person_check(legacy::PersonCheck check);

  const op::Image<uint16_t>& userLabels() const { return userLabels_; }
  bool floorDetected() const { return floorDetected_; }
  const std::array<float, 4>& floorPlane() const { return floorPlane_; }
  bool planeIsNull() const { return planeIsNull_; }
  const op::Image<uint8_t>& floorMask() const { return floorMask_; }

 private:
  // Runs the engine, refreshes the labels and the floor; returns the ids in order of first
  // appearance in the labels.
  const std::vector<uint8_t>& segment(const op::Image<uint16_t>& depth, const ConversionTables& tables,
                                      bool mirrored);
  void read_floor();

  op::Image<uint16_t> userLabels_;
  bool floorDetected_ = false;
  std::array<float, 4> floorPlane_{};
  bool planeIsNull_ = true;
  op::Image<uint8_t> floorMask_;
  float hfov_;
  float vfov_;
  std::unique_ptr<legacy::SegmentationEngine> engine_;
  bool engineStarted_ = false;
  uint64_t frameIndex_ = 1;
  uint64_t timestampMs_ = 0;
  std::vector<uint8_t> ids_;
  std::shared_ptr<spdlog::logger> logger_;
};

}  // namespace quorvik::skeleton
