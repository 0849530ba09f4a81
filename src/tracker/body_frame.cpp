#include "tracker/body_frame.h"

#include "op/logging.h"

namespace quorvik::skeleton::_ {

BodyFrame::BodyFrame() : logger(op::get_logger("BodyFrame")) {}

void BodyFrame::add_ref() {
  logger->trace("BodyFrame add_ref {} -> {}", refCount, refCount + 1);
  ++refCount;
}

void BodyFrame::remove_ref() {
  if (refCount == 0) {
    logger->trace("BodyFrame remove_ref {} -> {}", refCount, refCount);
    logger->warn("BodyFrame reference count is already 0. Cannot remove_ref().");
    return;
  }
  logger->trace("BodyFrame remove_ref {} -> {}", refCount, refCount - 1);
  --refCount;
}

}  // namespace quorvik::skeleton::_
