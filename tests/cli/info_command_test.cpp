// `qbt info` on a forest whose shape is known.

#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "cli_util.h"

namespace {

bool has_row(const std::string& text, const std::string& pattern) {
  return std::regex_search(text, std::regex(pattern, std::regex::multiline));
}

TEST(InfoCommand, CountsTreesLeavesLabelsAndFeatureKinds) {
  cli_test::ScratchDir dir("info");
  cli_test::write_box_forest(dir / "box.data");
  const cli_test::RunResult r = cli_test::run_qbt("info " + (dir / "box.data"));
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("1 trees, 7 nodes, 4 leaves"), std::string::npos) << r.out;
  // Tree 0: the deepest leaf sits under three splits.
  EXPECT_TRUE(has_row(r.out, R"(^\s+0\s+3\s+7\s+4$)")) << r.out;
  for (const char* row : {R"(^\s+6 head\s+1\s)", R"(^\s+9 left upper leg\s+1\s)", R"(^\s+12 right upper leg\s+1\s)",
                          R"(^\s+17 left torso\s+1\s)", R"(^\s+2 RelativeX\s+1\s)", R"(^\s+3 RelativeY\s+2\s)"})
    EXPECT_TRUE(has_row(r.out, row)) << row << "\n" << r.out;
  EXPECT_FALSE(has_row(r.out, R"(Offset)")) << "kinds no split uses are left out";
}

}  // namespace
