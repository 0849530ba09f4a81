#pragma once
// The camera drivers behind open_camera_source, each built only when its package is there.

#include <memory>
#include <string>

#include "frame_source.h"

namespace quorvik::cli {

#ifdef QBT_CLI_WITH_OPENNI2
// `uri` empty: the first OpenNI2 device; else a .oni file, played at its recorded rate.
// Null with `why` set when nothing can be opened.
std::unique_ptr<FrameSource> open_openni2_source(const std::string& uri, std::string& why);
#endif

#ifdef QBT_CLI_WITH_FREENECT
std::unique_ptr<FrameSource> open_freenect_source(std::string& why);
#endif

}  // namespace quorvik::cli
