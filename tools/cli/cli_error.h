#pragma once
// Failures of the command line, each with the exit code the process ends with.

#include <stdexcept>
#include <string>

namespace quorvik::cli {

enum ExitCode : int {
  kExitOk = 0,
  kExitUsage = 1,     // bad arguments
  kExitInput = 2,     // the recording or tracking output cannot be read or used
  kExitDataFile = 3,  // no data file, or one that cannot be loaded
  kExitTracking = 4,  // the library failed while tracking
  kExitOutput = 5,    // an output file or folder cannot be written
  kExitNoDevice = 6,  // no depth camera answered
};

class CliError : public std::runtime_error {
 public:
  CliError(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

}  // namespace quorvik::cli
