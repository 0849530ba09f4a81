#include "op/logging.h"

#include <mutex>

#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

namespace op {
namespace {

std::once_flag setup_once;
std::shared_ptr<spdlog::sinks::dist_sink_mt> shared_sink;
std::mutex create_mutex;

void setup() {
  spdlog::set_level(spdlog::level::info);
  shared_sink = std::make_shared<spdlog::sinks::dist_sink_mt>();
  shared_sink->add_sink(std::make_shared<spdlog::sinks::stdout_sink_mt>());
}

}  // namespace

std::shared_ptr<spdlog::logger> get_logger(const std::string& name) {
  std::call_once(setup_once, setup);
  // Two trackers built on two threads may ask for the same new name at once; the
  // registry would refuse the second registration.
  std::lock_guard lock(create_mutex);
  if (auto existing = spdlog::get(name)) return existing;
  auto logger = std::make_shared<spdlog::logger>(name, shared_sink);
  logger->set_level(spdlog::level::info);
  spdlog::register_logger(logger);
  return logger;
}

}  // namespace op
