#pragma once
// Conversion of a frame's internal bodies into the public body records.

#include <vector>

#include "quorvik/body_tracking.h"
#include "tracker/body_frame.h"

namespace quorvik::api {

// Fills `storage` from the frame and points `list` at it. On a conversion failure the storage
// and the list are left empty and the code (100, 101 or 102) is returned; 0 otherwise.
qbt_result_t build_body_list(const skeleton::_::BodyFrame& frame, std::vector<qbt_body_t>& storage,
                             qbt_bodylist_t& list);

}  // namespace quorvik::api
