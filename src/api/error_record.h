#pragma once
// The process-wide last-error record that qbt_error_info reads back.

#include <cstdint>
#include <string_view>

namespace quorvik::api {

inline constexpr size_t kErrorBufferSize = 1024;

// Message text of a code, or null for codes outside the table (0 included).
const char* error_message(uint8_t code);

// Stores "<function>(): <message><detail>" and the code, and returns the stored code: codes
// outside the table become 127 with a text of their own.
uint8_t report_error(std::string_view function, uint8_t code, std::string_view detail);

uint8_t last_error_code();
const char* last_error_text();

}  // namespace quorvik::api
