#pragma once
// A matcher for the library's usage errors, whose texts are fixed.

#include <stdexcept>

#include <gmock/gmock.h>

namespace support {

// Matches a callable that throws std::logic_error with exactly `text`.
inline auto throws_logic_error(const char* text) {
  return ::testing::ThrowsMessage<std::logic_error>(::testing::StrEq(text));
}

}  // namespace support
