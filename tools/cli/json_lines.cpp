#include "json_lines.h"

#include <cmath>

#include "cli_error.h"

namespace quorvik::cli {

namespace {

// Two decimals are far below the tracker's accuracy and keep the lines short.
double rounded(float v) { return std::round(static_cast<double>(v) * 100.0) / 100.0; }

const nlohmann::json& member(const nlohmann::json& j, const char* key, const std::string& where) {
  if (!j.is_object() || !j.contains(key)) throw CliError(kExitInput, where + ": missing \"" + key + "\"");
  return j[key];
}

template <size_t N>
void read_numbers(const nlohmann::json& j, float (&out)[N], const std::string& where) {
  if (!j.is_array() || j.size() != N) throw CliError(kExitInput, where + ": expected " + std::to_string(N) + " numbers");
  for (size_t i = 0; i < N; ++i) {
    if (!j[i].is_number()) throw CliError(kExitInput, where + ": expected numbers");
    out[i] = j[i].get<float>();
  }
}

}  // namespace

nlohmann::ordered_json frame_to_json(const TrackedFrame& frame) {
  nlohmann::ordered_json bodies = nlohmann::ordered_json::array();
  for (const TrackedBody& body : frame.bodies) {
    nlohmann::ordered_json joints = nlohmann::ordered_json::array();
    for (const TrackedJoint& j : body.joints) {
      joints.push_back({{"type", joint_name(j.type)},
                        {"status", joint_status_name(j.status)},
                        {"depth", {rounded(j.depth[0]), rounded(j.depth[1])}},
                        {"world", {rounded(j.world[0]), rounded(j.world[1]), rounded(j.world[2])}}});
    }
    bodies.push_back({{"id", body.id}, {"status", body_status_name(body.status)}, {"joints", std::move(joints)}});
  }
  nlohmann::ordered_json plane = nlohmann::ordered_json::array();
  for (float v : frame.plane) plane.push_back(std::round(static_cast<double>(v) * 1e4) / 1e4);
  return {{"frame", frame.index},
          {"bodies", std::move(bodies)},
          {"floor", {{"detected", frame.floorDetected}, {"plane", std::move(plane)}}}};
}

TrackedFrame frame_from_json(const nlohmann::json& j) {
  TrackedFrame f;
  const nlohmann::json& index = member(j, "frame", "frame object");
  if (!index.is_number_integer()) throw CliError(kExitInput, "\"frame\" is not an integer");
  f.index = index.get<int>();
  const std::string where = "frame " + std::to_string(f.index);
  const nlohmann::json& bodies = member(j, "bodies", where);
  if (!bodies.is_array()) throw CliError(kExitInput, where + ": \"bodies\" is not an array");
  for (const nlohmann::json& b : bodies) {
    TrackedBody& body = f.bodies.emplace_back();
    const nlohmann::json& id = member(b, "id", where);
    if (!id.is_number_integer()) throw CliError(kExitInput, where + ": body id is not an integer");
    body.id = id.get<uint8_t>();
    const std::string bodyWhere = where + " body " + std::to_string(body.id);
    const nlohmann::json& status = member(b, "status", bodyWhere);
    const int s = status.is_string() ? body_status_from_name(status.get<std::string>()) : -1;
    if (s < 0) throw CliError(kExitInput, bodyWhere + ": unknown status");
    body.status = static_cast<uint8_t>(s);
    const nlohmann::json& joints = member(b, "joints", bodyWhere);
    if (!joints.is_array() || joints.size() != QBT_JOINT_COUNT)
      throw CliError(kExitInput, bodyWhere + ": \"joints\" must hold 16 joints");
    for (const nlohmann::json& jj : joints) {
      const nlohmann::json& type = member(jj, "type", bodyWhere);
      const int t = type.is_string() ? joint_from_name(type.get<std::string>()) : -1;
      if (t < 0) throw CliError(kExitInput, bodyWhere + ": unknown joint type");
      TrackedJoint& joint = body.joints[static_cast<size_t>(t)];
      joint.type = static_cast<uint8_t>(t);
      const nlohmann::json& js = member(jj, "status", bodyWhere);
      const int st = js.is_string() ? joint_status_from_name(js.get<std::string>()) : -1;
      if (st < 0) throw CliError(kExitInput, bodyWhere + ": unknown joint status");
      joint.status = static_cast<uint8_t>(st);
      read_numbers(member(jj, "depth", bodyWhere), joint.depth, bodyWhere + " depth");
      read_numbers(member(jj, "world", bodyWhere), joint.world, bodyWhere + " world");
    }
  }
  const nlohmann::json& floor = member(j, "floor", where);
  const nlohmann::json& detected = member(floor, "detected", where + " floor");
  if (!detected.is_boolean()) throw CliError(kExitInput, where + ": floor \"detected\" is not true or false");
  f.floorDetected = detected.get<bool>();
  float plane[4];
  read_numbers(member(floor, "plane", where + " floor"), plane, where + " floor plane");
  f.plane = {plane[0], plane[1], plane[2], plane[3]};
  return f;
}

std::vector<TrackedFrame> read_json_lines(std::istream& in, const std::string& name) {
  std::vector<TrackedFrame> frames;
  std::string line;
  int lineNumber = 0;
  while (std::getline(in, line)) {
    ++lineNumber;
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    const nlohmann::json j = nlohmann::json::parse(line, nullptr, false);
    if (j.is_discarded())
      throw CliError(kExitInput, name + " line " + std::to_string(lineNumber) + " is not JSON; give the output of qbt track");
    try {
      frames.push_back(frame_from_json(j));
    } catch (const CliError& e) {
      throw CliError(kExitInput, name + " line " + std::to_string(lineNumber) + ": " + e.what());
    }
  }
  return frames;
}

}  // namespace quorvik::cli
