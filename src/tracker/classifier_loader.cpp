#include "tracker/classifier_loader.h"

#include <sys/stat.h>

#include <cstdio>
#include <exception>
#include <stdexcept>

#include "forest/forest_reader.h"

namespace quorvik::skeleton {

LoadResult load_classifier(const std::string& path) {
  using impl::ClassifierLoadError;
  // Only a test that the file is there; the reader opens it again with its own buffer.
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return op::Err(ClassifierLoadError::FileNotFound);
  // On this platform a directory opens too; it is no more a data file than a missing one.
  struct stat info {};
  const bool isDirectory = fstat(fileno(file), &info) == 0 && S_ISDIR(info.st_mode);
  std::fclose(file);
  if (isDirectory) return op::Err(ClassifierLoadError::FileNotFound);

  std::optional<op::Result<DecisionForest, ForestReadError>> read;
  try {
    read.emplace(load_forest(path));
  } catch (const std::exception&) {
    // The stream raises on read errors of the device; that is neither "missing" nor "bad".
    return op::Err(ClassifierLoadError::UnknownLoadError);
  }
  auto& loaded = *read;
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
