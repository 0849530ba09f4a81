#pragma once
// Fields of /proc/self/status, for tests that watch or limit the process's own memory.

#include <fstream>
#include <string>

// The value of a kB field such as "VmSize:" or "VmRSS:"; 0 when it is not there.
inline long status_kib(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string key;
  while (status >> key) {
    if (key == field) {
      long kib = 0;
      status >> kib;
      return kib;
    }
    status.ignore(1 << 12, '\n');
  }
  return 0;
}
