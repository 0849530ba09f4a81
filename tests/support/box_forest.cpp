#include "support/box_forest.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "forest/forest_writer.h"

namespace box_forest {

void write(const std::string& path) {
  using quorvik::skeleton::leaf_record;
  using quorvik::skeleton::split_record;
  std::ofstream out(path, std::ios::binary);
  quorvik::skeleton::ForestFileWriter w(out);
  constexpr uint8_t kRelativeX = 2, kRelativeY = 3;
  w.signature();
  w.header();
  w.offsets({});
  w.tree(7, 4);
  w.nodes({split_record(1, kRelativeY, 0, 0.3f), leaf_record(0), split_record(3, kRelativeY, 0, 0.6f),
           leaf_record(1), split_record(5, kRelativeX, 0, 0.5f), leaf_record(2), leaf_record(3)});
  w.distributions({{{6}, {65535}}, {{17}, {65535}}, {{9}, {65535}}, {{12}, {65535}}});
  w.end();
}

const std::string& file() {
  static const std::string path = [] {
    const auto name = "qbt-box-forest-" + std::to_string(getpid()) + ".data";
    const std::string p = (std::filesystem::temp_directory_path() / name).string();
    write(p);
    return p;
  }();
  return path;
}

}  // namespace box_forest
