#pragma once
// A progress bar with an estimate of the time left: redrawn in place on a terminal, a line
// per tenth otherwise (logs of background runs stay short).

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

namespace quorvik::train {

class Progress {
 public:
  Progress(std::string label, double total, std::FILE* out = stderr);
  void update(double done);
  void finish();

 private:
  std::string label_;
  double total_;
  std::FILE* out_;
  bool terminal_;
  int lastTenth_ = -1;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point lastDraw_{};
};

std::string format_seconds(double seconds);

}  // namespace quorvik::train
