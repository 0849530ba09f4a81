#include "console.h"

#include <unistd.h>

namespace quorvik::cli {

std::FILE* program_stdout() {
  static std::FILE* out = [] {
    std::fflush(stdout);
    const int saved = ::dup(STDOUT_FILENO);
    if (saved < 0) return stdout;
    std::FILE* f = ::fdopen(saved, "w");
    if (f == nullptr) {
      ::close(saved);
      return stdout;
    }
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    return f;
  }();
  return out;
}

}  // namespace quorvik::cli
