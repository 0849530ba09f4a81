#pragma once
// The tracker's own copy of the host's options: the host may free its structure and its path
// string as soon as creation returns.

#include <string>

#include "segmentation/depth_conversion.h"

namespace quorvik::skeleton {

struct TrackerOptions {
  float horizontalFovDegrees = 58.59f;
  float verticalFovDegrees = 45.64f;
  ShiftConversionParams shift;
  std::string dataFilePath;  // empty selects kDefaultDataFile
};

inline constexpr const char* kDefaultDataFile = "QuorvikBodyTracking.data";

inline std::string resolve_data_file_path(const TrackerOptions& options) {
  return options.dataFilePath.empty() ? std::string(kDefaultDataFile) : options.dataFilePath;
}

}  // namespace quorvik::skeleton
