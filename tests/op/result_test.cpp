#include "op/result.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace op {
namespace {

// Counts live instances so double destruction or leaks show up.
struct Tracked {
  static inline int alive = 0;
  int value;
  explicit Tracked(int v) : value(v) { ++alive; }
  Tracked(Tracked&& other) noexcept : value(other.value) { ++alive; }
  ~Tracked() { --alive; }
};

enum class Failure : uint32_t { First = 1, Second = 2 };

TEST(Result, ErrorIsAnOptionalCopy) {
  Result<int, Failure> ok = Ok(5);
  EXPECT_TRUE(ok.is_ok());
  EXPECT_FALSE(ok.is_error());
  EXPECT_FALSE(ok.error().has_value());

  Result<int, Failure> err = Err(Failure::Second);
  EXPECT_TRUE(err.is_error());
  ASSERT_TRUE(err.error().has_value());
  EXPECT_EQ(*err.error(), Failure::Second);
  // Reading the error does not consume it.
  EXPECT_EQ(*err.error(), Failure::Second);
  EXPECT_EQ(err.unwrap_error(), Failure::Second);
}

TEST(Result, PayloadIsDestroyedExactlyOnce) {
  Tracked::alive = 0;
  {
    Result<Tracked, Failure> r = Ok(Tracked(3));
    EXPECT_EQ(Tracked::alive, 1);
    Tracked out = r.unwrap();
    EXPECT_EQ(out.value, 3);
    EXPECT_FALSE(r.engaged());
    EXPECT_EQ(Tracked::alive, 1);
  }
  EXPECT_EQ(Tracked::alive, 0);
  {
    Result<Tracked, Failure> a = Ok(Tracked(4));
    Result<Tracked, Failure> b(std::move(a));
    EXPECT_FALSE(a.engaged());
    EXPECT_TRUE(b.engaged());
    EXPECT_EQ(Tracked::alive, 1);
    Result<Tracked, Failure> c = Err(Failure::First);
    c = std::move(b);
    EXPECT_EQ(Tracked::alive, 1);
    EXPECT_EQ(c.unwrap().value, 4);
  }
  EXPECT_EQ(Tracked::alive, 0);
}

using IntResult = Result<int, Failure>;

void unwrap_an_error() {
  IntResult r = Err(Failure::First);
  (void)r.unwrap();
}

void unwrap_error_of_a_value() {
  IntResult r = Ok(1);
  (void)r.unwrap_error();
}

TEST(ResultDeathTest, UnwrappingTheWrongSidePanics) {
  EXPECT_DEATH(unwrap_an_error(), "^Panic caused by calling unwrap\\(\\) on Err Result\\.\n");
  EXPECT_DEATH(unwrap_error_of_a_value(), "^Panic caused by calling unwrap_error\\(\\) on Ok Result\\.\n");
}

}  // namespace
}  // namespace op
