#include "api/error_record.h"

#include <cstring>
#include <mutex>
#include <string>

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

const char* error_message(uint8_t code) {
  switch (code) {
    case 1: return "BodyFrame not released before calling update() or update_async(). ";
    case 2: return "Data file not loaded: invalid format. ";
    case 3: return "Data file not found. ";
    case 4: return "AsyncBodyFrame does not match expected value. ";
    case 5: return "AsyncBodyFrame is not available or frame was already taken. ";
    case 6: return "Input depth map has an invalid size. Depth map size must be a multiple of 160x120. ";
    case 7: return "Invalid parameter: ";
    case 8: return "Result data already taken. ";
    case 100: return "Internal error converting joint type. ";
    case 101: return "Internal error converting joint status. ";
    case 102: return "Internal error converting body status. ";
    case 103: return "Internal unhandled exception: ";
    case 104: return "Internal error resulted in a null body frame. ";
    case 105: return "Internal error resulted in a full worker queue. ";
    case 127: return "An unknown error occurred. ";
    default: return nullptr;
  }
}

uint8_t report_error(std::string_view function, uint8_t code, std::string_view detail) {
  const char* message = error_message(code);
  if (message == nullptr) {
    code = 127;
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
