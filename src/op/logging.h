#pragma once
// Named loggers shared by every component. The first request in the process sets up one
// mutex-guarded distributing sink with a console sink on standard output; every logger
// writes to it at level info, with spdlog's default pattern.

#include <memory>
#include <string>

#include <spdlog/logger.h>

namespace op {

std::shared_ptr<spdlog::logger> get_logger(const std::string& name);

}  // namespace op
