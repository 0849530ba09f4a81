#pragma once
// The library prints its log lines on standard output. Commands whose own output goes
// there (JSON Lines, the demo's lines) keep standard output for themselves and send the
// library's lines to standard error.

#include <cstdio>

namespace quorvik::cli {

// The first call moves descriptor 1 to standard error and returns a stream on the original
// standard output; later calls return the same stream.
std::FILE* program_stdout();

}  // namespace quorvik::cli
