#include "report.h"

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

namespace quorvik::eval {
namespace {

using skeleton::JointStatus;

Tally sample_tally() {
  Tally t;
  t.frames = 10;
  t.floorFrames = 8;
  t.floorError = {1.f, 3.f};
  t.partCompared = 100;
  t.partCorrect = 60;
  t.personPixels = 200;
  t.personLabelled = 100;
  t.idSwitches = 1;
  t.falseBodyFrames = 4;
  t.acquisition = {3, -1, 5};
  t.maskShared = 90;
  t.maskPixels = 100;
  t.maskTruth = 120;
  t.add_joint(0, JointStatus::High, {50, 30, 40}, 2000);
  t.add_joint(0, JointStatus::High, {150, 90, 120}, 2000);
  t.add_joint(1, JointStatus::None, {}, 0);
  t.add_joint(1, JointStatus::Low, {70, 70, 0}, 2000);
  return t;
}

TEST(Headline, NumbersFromATally) {
  const auto m = headline(sample_tally());
  EXPECT_DOUBLE_EQ(m.at("detection_rate"), 0.5);
  EXPECT_DOUBLE_EQ(m.at("high_share"), 0.5);
  EXPECT_DOUBLE_EQ(m.at("mean_error_mm"), 90.0);
  EXPECT_DOUBLE_EQ(m.at("median_error_mm"), 70.0);
  EXPECT_DOUBLE_EQ(m.at("part_accuracy"), 0.6);
  EXPECT_DOUBLE_EQ(m.at("mask_precision"), 0.9);
  EXPECT_DOUBLE_EQ(m.at("mask_recall"), 0.75);
  EXPECT_DOUBLE_EQ(m.at("coverage"), 0.5);
  EXPECT_DOUBLE_EQ(m.at("floor_found"), 0.8);
  EXPECT_DOUBLE_EQ(m.at("floor_error_deg"), 2.0);
  EXPECT_DOUBLE_EQ(m.at("acquired_share"), 2.0 / 3.0);
  EXPECT_DOUBLE_EQ(m.at("acquisition_frames"), 4.0);
  EXPECT_DOUBLE_EQ(m.at("id_switches"), 1.0);
  EXPECT_DOUBLE_EQ(m.at("false_body_frames"), 4.0);
  // Without data a metric is absent rather than zero.
  const auto empty = headline(Tally{});
  EXPECT_EQ(empty.count("detection_rate"), 0u);
  EXPECT_EQ(empty.count("floor_error_deg"), 0u);
}

TEST(Floors, WrittenFloorsPassAndARaisedFloorFails) {
  const auto m = headline(sample_tally());
  const nlohmann::json floors = floors_from(m);
  EXPECT_TRUE(check_floors(m, floors).empty());
  for (const auto& [name, value] : m) {
    SCOPED_TRACE(name);
    nlohmann::json raised = floors;
    const bool higher = higher_is_better(name);
    ASSERT_TRUE(floors[higher ? "min" : "max"].contains(name));
    // Just past the measured value in the bad direction.
    raised[higher ? "min" : "max"][name] = higher ? value + 1e-6 : value - 1e-6;
    const auto failures = check_floors(m, raised);
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_NE(failures[0].find(name), std::string::npos);
    EXPECT_NE(failures[0].find(higher ? "below" : "above"), std::string::npos);
  }
}

TEST(Floors, AMissingMetricFailsAndOtherSectionsAreIgnored) {
  const std::map<std::string, double> m{{"coverage", 0.9}};
  const nlohmann::json floors = nlohmann::json::parse(R"({"min": {"coverage": 0.5, "part_accuracy": 0.1}, "note": 1})");
  const auto failures = check_floors(m, floors);
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_NE(failures[0].find("part_accuracy"), std::string::npos);
  EXPECT_TRUE(check_floors(m, nlohmann::json::object()).empty());
}

// The stored floors name only metrics a run produces, each in the section of its direction.
TEST(Floors, TheStoredQuickFloorsAreWellFormed) {
  std::ifstream in(std::string(QBT_SOURCE_DIR) + "/tools/eval/quick_floor.json");
  ASSERT_TRUE(in.good());
  const nlohmann::json floors = nlohmann::json::parse(in);
  const auto known = headline(sample_tally());
  ASSERT_TRUE(floors.contains("min"));
  for (const char* section : {"min", "max"}) {
    if (!floors.contains(section)) continue;
    for (const auto& [name, bound] : floors[section].items()) {
      SCOPED_TRACE(name);
      EXPECT_EQ(known.count(name), 1u);
      EXPECT_EQ(higher_is_better(name), std::string(section) == "min");
      EXPECT_TRUE(bound.is_number());
    }
  }
}

TEST(Report, TableAndJsonCarryEveryScenario) {
  CaseResult a, b;
  a.evalCase.label = "first";
  a.tally = sample_tally();
  b.evalCase.label = "second";
  b.evalCase.options.mirrored = true;
  b.tally = sample_tally();
  std::ostringstream text;
  print_table(text, {a, b});
  EXPECT_NE(text.str().find("first"), std::string::npos);
  EXPECT_NE(text.str().find("LeftShoulder"), std::string::npos);
  const nlohmann::json j = to_json({a, b});
  ASSERT_EQ(j["scenarios"].size(), 2u);
  EXPECT_EQ(j["scenarios"][1]["mirrored"], true);
  EXPECT_EQ(j["total"]["frames"], 20);
  EXPECT_DOUBLE_EQ(j["total"]["detection_rate"].get<double>(), 0.5);
  EXPECT_EQ(j["total"]["joints"]["Head"]["truth"], 4);
}

}  // namespace
}  // namespace quorvik::eval
