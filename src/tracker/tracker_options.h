#pragma once
// The tracker's own copy of the host's options: the host may free its structure and its path
// string as soon as creation returns.

#include <string>

#include "segmentation/depth_conversion.h"

namespace quorvik::skeleton {

// The default camera's fields of view; tools and tests that model that camera take them
// from here.
inline constexpr float kDefaultHorizontalFovDegrees = 58.59f;
inline constexpr float kDefaultVerticalFovDegrees = 45.64f;

struct TrackerOptions {
  float horizontalFovDegrees = kDefaultHorizontalFovDegrees;
  float verticalFovDegrees = kDefaultVerticalFovDegrees;
  ShiftConversionParams shift;
  std::string dataFilePath;  // empty selects kDefaultDataFile
};

inline constexpr const char* kDefaultDataFile = "QuorvikBodyTracking.data";

inline std::string resolve_data_file_path(const TrackerOptions& options) {
  return options.dataFilePath.empty() ? std::string(kDefaultDataFile) : options.dataFilePath;
}

}  // namespace quorvik::skeleton
