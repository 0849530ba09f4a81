#include "op/image.h"

#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <new>
#include <string>

#include <gtest/gtest.h>

#include "support/proc_status.h"

namespace op {
namespace {

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// A size change whose buffer cannot be had must leave the image as it was: a new size over
// the old buffer would have the next frame of that size written far past its end.
void grow_beyond_the_limit() {
  Image<uint16_t> image(160, 120);
  const rlimit limit{rlim_t(status_kib("VmSize:")) * 1024 + (16u << 20), RLIM_INFINITY};
  setrlimit(RLIMIT_AS, &limit);
  try {
    image.resize(10240, 7680);
  } catch (const std::bad_alloc&) {
    _exit(image.width() == 160 && image.height() == 120 && image.data() != nullptr ? 0 : 2);
  }
  _exit(1);
}

TEST(ImageDeathTest, AFailedResizeKeepsTheOldSizeAndBuffer) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(grow_beyond_the_limit(), ::testing::ExitedWithCode(0), "");
}
#endif

}  // namespace
}  // namespace op
