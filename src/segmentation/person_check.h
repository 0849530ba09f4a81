#pragma once
// A person who stands still from the first frame never differs from the background model
// and never moves enough to confirm a candidate, so shape alone cannot tell them from a
// coat stand or a stack of boxes. Whoever owns the body-part forest can: the users stage
// hands it the pixels of a proposed person and asks whether they read as one body.

#include <cstdint>
#include <functional>

#include "segmentation/containers.h"

namespace quorvik::legacy {

struct PersonReading {
  bool person = false;    // head above shoulders above hips and legs, confidently labelled
  double headShare = 0;   // of the labelled pixels, read as a head
};

// `mask` is 1 on the proposal's pixels, at the engine's size.
using PersonCheck = std::function<PersonReading(const Array2D<uint8_t>& mask)>;

}  // namespace quorvik::legacy
