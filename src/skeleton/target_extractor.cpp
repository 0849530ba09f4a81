#include "skeleton/target_extractor.h"

#include <algorithm>
#include <deque>
#include <utility>

#include "op/logging.h"

namespace quorvik::skeleton {

const LengthTarget* FitTargets::length_target(HumanBoneType bone) const {
  for (const LengthTarget& t : lengthTargets) {
    if (t.bone == bone) return &t;
  }
  return nullptr;
}

const PositionTarget* FitTargets::position_target(HumanBoneType bone) const {
  for (const PositionTarget& t : positionTargets) {
    if (t.bone == bone) return &t;
  }
  return nullptr;
}

bool FitTargets::is_chain_end(HumanBoneType bone) const {
  return std::find(chainEnds.begin(), chainEnds.end(), bone) != chainEnds.end();
}

TargetExtractor::TargetExtractor() : logger_(op::get_logger("TargetExtractor")) {}

FitTargets TargetExtractor::extract(HumanModel& proposalModel, const BoneLengths& userLengths) const {
  FitTargets targets;
  for (HumanBoneType type : all_bones()) {
    if (is_terminal_bone(type)) continue;
    Bone& bone = proposalModel.find(type);
    if (!bone.measured) continue;
    if (auto it = userLengths.find(type); it != userLengths.end()) {
      const LengthTarget target{type, type, it->second};
      auto existing = std::find_if(targets.lengthTargets.begin(), targets.lengthTargets.end(),
                                   [type](const LengthTarget& t) { return t.bone == type; });
      if (existing != targets.lengthTargets.end()) {
        *existing = target;
      } else {
        targets.lengthTargets.push_back(target);
      }
    }
    const PositionTarget target{type, bone.end_point()};
    auto existing = std::find_if(targets.positionTargets.begin(), targets.positionTargets.end(),
                                 [type](const PositionTarget& t) { return t.bone == type; });
    if (existing != targets.positionTargets.end()) {
      *existing = target;
    } else {
      targets.positionTargets.push_back(target);
    }
  }

  // Breadth first from Root's children, carrying the deepest measured bone on the path.
  Bone& root = proposalModel.find(HumanBoneType::Root);
  std::deque<std::pair<Bone*, Bone*>> queue;
  for (Bone* child : root.children) queue.emplace_back(child, nullptr);
  while (!queue.empty()) {
    auto [bone, carried] = queue.front();
    queue.pop_front();
    Bone* deepest = bone->measured ? bone : carried;
    if (bone->children.empty()) {
      if (deepest && !targets.is_chain_end(deepest->type)) targets.chainEnds.push_back(deepest->type);
      continue;
    }
    for (Bone* child : bone->children) queue.emplace_back(child, deepest);
  }
  return targets;
}

}  // namespace quorvik::skeleton
