#pragma once
// The JSON Lines form of tracking output: one object per frame (README.md has the schema).

#include <istream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tracking.h"

namespace quorvik::cli {

// Keys in the documented order: frame, bodies, floor.
nlohmann::ordered_json frame_to_json(const TrackedFrame& frame);
// Throws CliError (input) naming what is missing or malformed.
TrackedFrame frame_from_json(const nlohmann::json& j);
// Every line of a JSON Lines file; `name` is used in messages. Throws CliError (input).
std::vector<TrackedFrame> read_json_lines(std::istream& in, const std::string& name);

}  // namespace quorvik::cli
