#include "commands.h"

#include <csignal>
#include <cstdio>
#include <exception>

#include <CLI/CLI.hpp>

#include "cli_error.h"

namespace quorvik::cli {

int run(CLI::App& app, int argc, char** argv) {
  // A video encoder that stops reading must not end the whole run.
  std::signal(SIGPIPE, SIG_IGN);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kExitUsage;
  } catch (const CliError& e) {
    std::fflush(stdout);
    std::fprintf(stderr, "qbt: %s\n", e.what());
    return e.code();
  } catch (const std::exception& e) {
    std::fflush(stdout);
    std::fprintf(stderr, "qbt: unexpected failure: %s\n", e.what());
    return kExitTracking;
  }
  return kExitOk;
}

}  // namespace quorvik::cli
