#include <iostream>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "forest_info.h"

namespace quorvik::cli {

void add_info_command(CLI::App& app) {
  auto path = std::make_shared<std::string>();
  CLI::App* cmd = app.add_subcommand(
      "info", "Describe a data file: trees, their depth, node and leaf counts, the labels its leaves vote for and the "
              "feature kinds its splits use");
  cmd->add_option("DATAFILE", *path, "Forest data file")->required();
  cmd->callback([path] { print_forest_info(std::cout, *path, describe_data_file(*path)); });
}

}  // namespace quorvik::cli
