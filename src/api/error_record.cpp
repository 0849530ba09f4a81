#include "api/error_record.h"

#include <cstring>
#include <mutex>
#include <string>

#include "quorvik/body_tracking.h"
#include "tracker/tracker_error.h"

namespace quorvik::api {
namespace {

struct LastError {
  uint8_t code = 0;
  char text[kErrorBufferSize] = "No error occurred.";
};

LastError record;
// Failures on several threads write the one shared record; the lock keeps each text whole.
std::mutex record_mutex;

void set_last_error(uint8_t code, const std::string& text) {
  std::lock_guard lock(record_mutex);
  record.code = code;
  record.text[kErrorBufferSize - 1] = '\0';
  std::strncpy(record.text, text.c_str(), kErrorBufferSize - 1);
}

}  // namespace

// The public header keeps its codes as the contract; the library's list must agree with it.
#define QBT_CHECK_PUBLIC_CODE(name, code, suffix, message)                                   \
  static_assert(static_cast<int>(skeleton::TrackerError::name) == QBT_RESULT_##suffix, \
                "TrackerError::" #name " differs from QBT_RESULT_" #suffix);
QBT_TRACKER_ERRORS(QBT_CHECK_PUBLIC_CODE)
QBT_CHECK_PUBLIC_CODE(Success, 0, SUCCESS, "")
#undef QBT_CHECK_PUBLIC_CODE

const char* error_message(uint8_t code) {
  switch (code) {
#define QBT_ERROR_MESSAGE_CASE(name, code, suffix, message) \
  case code:                                                \
    return message;
    QBT_TRACKER_ERRORS(QBT_ERROR_MESSAGE_CASE)
#undef QBT_ERROR_MESSAGE_CASE
    default:
      return nullptr;
  }
}

uint8_t report_error(std::string_view function, uint8_t code, std::string_view detail) {
  const char* message = error_message(code);
  if (message == nullptr) {
    code = static_cast<uint8_t>(skeleton::TrackerError::UnknownError);
    message = "An unidentified unknown error occurred. ";
  }
  std::string text;
  text.reserve(function.size() + 4 + std::strlen(message) + detail.size());
  text.append(function).append("(): ").append(message).append(detail);
  set_last_error(code, text);
  return code;
}

uint8_t last_error_code() {
  std::lock_guard lock(record_mutex);
  return record.code;
}

const char* last_error_text() { return record.text; }

}  // namespace quorvik::api
