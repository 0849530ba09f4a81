#pragma once
// The camera drivers behind open_camera_source, each built only when its package is there.

#include <memory>
#include <string>

#include "frame_source.h"
#include "segmentation/depth_conversion.h"

namespace quorvik::cli {

// The shift-conversion constants of a camera's options, for the library's own tables: the
// drivers that hand out raw disparity are read through them.
skeleton::ShiftConversionParams shift_params_of(const qbt_bodytracker_options_t& o);

#ifdef QBT_CLI_WITH_OPENNI2
// `uri` empty: the first OpenNI2 device; else a .oni file, played at its recorded rate.
// Null with `why` set when nothing can be opened.
std::unique_ptr<FrameSource> open_openni2_source(const std::string& uri, std::string& why);
#endif

#ifdef QBT_CLI_WITH_FREENECT
std::unique_ptr<FrameSource> open_freenect_source(std::string& why);
#endif

}  // namespace quorvik::cli
