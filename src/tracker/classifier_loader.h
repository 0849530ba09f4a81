#pragma once
// Reads the data file on a pool thread of its own while the host goes on; the first update
// waits for it.

#include <cstdint>
#include <optional>
#include <string>

#include "forest/decision_forest.h"
#include "op/result.h"
#include "op/thread_pool.h"

namespace quorvik::skeleton {

namespace impl {
enum class ClassifierLoadError : uint32_t {
  FileNotFound = 1,      // cannot be opened, or holds no tree
  InvalidFormat = 2,     // the reader refused the contents
  UnknownLoadError = 3,  // any other failure
};
}  // namespace impl

using LoadResult = op::Result<DecisionForest, impl::ClassifierLoadError>;

// The load itself, as the pool runs it: an existence test, then the reader.
LoadResult load_classifier(const std::string& path);

class ClassifierLoader {
 public:
  explicit ClassifierLoader(const std::string& path);

  // The three queries wait for the load the first time.
  bool is_error();
  impl::ClassifierLoadError error();
  bool has_forest();
  // Throws std::logic_error when no forest is held.
  DecisionForest take_classifier();

 private:
  void fetch();

  uint32_t error_ = 0;
  std::optional<DecisionForest> forest_;
  bool fetched_ = false;
  op::ThreadPool pool_;
  op::ActionFuture<LoadResult> future_;
};

}  // namespace quorvik::skeleton
