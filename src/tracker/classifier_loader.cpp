#include "tracker/classifier_loader.h"

#include <cstdio>
#include <stdexcept>

#include "forest/forest_reader.h"

namespace quorvik::skeleton {

LoadResult load_classifier(const std::string& path) {
  using impl::ClassifierLoadError;
  // Only a test that the file is there; the reader opens it again with its own buffer.
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return op::Err(ClassifierLoadError::FileNotFound);
  std::fclose(file);

  auto loaded = load_forest(path);
  if (loaded.is_error()) {
    switch (loaded.unwrap_error()) {
      case ForestReadError::CannotOpen: return op::Err(ClassifierLoadError::FileNotFound);
      case ForestReadError::InvalidContents: return op::Err(ClassifierLoadError::InvalidFormat);
    }
    return op::Err(ClassifierLoadError::UnknownLoadError);
  }
  return op::Ok(loaded.unwrap());
}

ClassifierLoader::ClassifierLoader(const std::string& path) {
  future_ = pool_.submit(0, [path] { return load_classifier(path); }).unwrap();
}

void ClassifierLoader::fetch() {
  if (fetched_) return;
  future_.wait();
  LoadResult& result = future_.get();
  if (result.is_ok()) {
    forest_.emplace(result.unwrap());
    error_ = 0;
  } else {
    forest_.reset();
    error_ = static_cast<uint32_t>(result.unwrap_error());
  }
  fetched_ = true;
}

bool ClassifierLoader::is_error() {
  fetch();
  return error_ != 0;
}

impl::ClassifierLoadError ClassifierLoader::error() {
  fetch();
  return static_cast<impl::ClassifierLoadError>(error_);
}

bool ClassifierLoader::has_forest() {
  fetch();
  return forest_.has_value();
}

DecisionForest ClassifierLoader::take_classifier() {
  fetch();
  if (!forest_) throw std::logic_error("Cannot take_classifier() -- check is_error()/error() first.");
  DecisionForest forest = std::move(*forest_);
  forest_.reset();
  return forest;
}

}  // namespace quorvik::skeleton
