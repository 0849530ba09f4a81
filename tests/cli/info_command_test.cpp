// `qbt info` on a forest whose shape is known.

#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "cli_util.h"

namespace {

// Whether some line of `text` holds exactly these words (however they are spaced).
bool has_row(const std::string& text, const std::string& words) {
  for (const std::string& line : cli_test::lines_of(text)) {
    std::istringstream in(line);
    std::string word, joined;
    while (in >> word) joined += (joined.empty() ? "" : " ") + word;
    if (joined == words) return true;
  }
  return false;
}

TEST(InfoCommand, CountsTreesLeavesLabelsAndFeatureKinds) {
  cli_test::ScratchDir dir("info");
  cli_test::write_box_forest(dir / "box.data");
  const cli_test::RunResult r = cli_test::run_qbt("info " + (dir / "box.data"));
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("1 trees, 7 nodes, 4 leaves"), std::string::npos) << r.out;
  // Tree 0: the deepest leaf sits under three splits. Each leaf votes for one label.
  for (const char* row : {"0 3 7 4", "6 head 1 25.0%", "9 left upper leg 1 25.0%", "12 right upper leg 1 25.0%",
                          "17 left torso 1 25.0%", "2 RelativeX 1 33.3%", "3 RelativeY 2 66.7%"})
    EXPECT_TRUE(has_row(r.out, row)) << row << "\n" << r.out;
  EXPECT_EQ(r.out.find("Offset"), std::string::npos) << "kinds no split uses are left out";
}

}  // namespace
