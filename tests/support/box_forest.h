#pragma once
// A hand-made forest that labels a user by where a pixel sits in the user's box: head on
// top, torso below it, left and right legs at the bottom. Enough for every tracking stage to
// run without a trained file.

#include <string>

namespace box_forest {

void write(const std::string& path);

// The forest in a temporary file of this process's own, written on the first call.
const std::string& file();

}  // namespace box_forest
