#pragma once
// The subcommands of `qbt`. Each adds itself to the application; `run` parses the command
// line, runs the chosen subcommand and turns failures into messages and exit codes.

namespace CLI {
class App;
}

namespace quorvik::cli {

void add_demo_command(CLI::App& app);
void add_track_command(CLI::App& app);
void add_render_command(CLI::App& app);
void add_info_command(CLI::App& app);
void add_live_command(CLI::App& app);
void add_view_command(CLI::App& app);

// Returns the process exit code (cli_error.h).
int run(CLI::App& app, int argc, char** argv);

}  // namespace quorvik::cli
