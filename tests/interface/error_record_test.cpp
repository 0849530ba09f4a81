#include "api/error_record.h"

#include <string>

#include <gtest/gtest.h>

namespace quorvik::api {
namespace {

TEST(ReportError, CodesOutsideTheTableBecome127) {
  for (int code : {0, 9, 50, 99, 106, 126, 128, 200, 255}) {
    SCOPED_TRACE(code);
    EXPECT_EQ(report_error("f", static_cast<uint8_t>(code), "x"), 127);
    EXPECT_EQ(last_error_code(), 127);
    EXPECT_STREQ(last_error_text(), "f(): An unidentified unknown error occurred. x");
  }
  EXPECT_EQ(report_error("f", 127, ""), 127);
  EXPECT_STREQ(last_error_text(), "f(): An unknown error occurred. ");
}

TEST(ReportError, EveryTableCodeHasATextEndingInABlank) {
  for (int code = 0; code < 256; ++code) {
    const char* message = error_message(static_cast<uint8_t>(code));
    const bool known = (code >= 1 && code <= 8) || (code >= 100 && code <= 105) || code == 127;
    SCOPED_TRACE(code);
    ASSERT_EQ(message != nullptr, known);
    if (known) {
      EXPECT_EQ(std::string(message).back(), ' ');
    }
  }
}

TEST(ReportError, LongTextsAreCutAt1023Characters) {
  const std::string detail(2000, 'x');
  report_error("f", 7, detail);
  const std::string stored = last_error_text();
  ASSERT_EQ(stored.size(), 1023u);
  EXPECT_EQ(stored.substr(0, 24), "f(): Invalid parameter: ");
  EXPECT_EQ(stored.back(), 'x');
  // A shorter text afterwards leaves no tail of the long one.
  report_error("g", 3, "");
  EXPECT_STREQ(last_error_text(), "g(): Data file not found. ");
}

}  // namespace
}  // namespace quorvik::api
