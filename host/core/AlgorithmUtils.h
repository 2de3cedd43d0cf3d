#pragma once
// Runs an algorithm's whole life in one call, for calling host algorithms from plug-in code.
#include <memory>
#include <optional>
#include <vector>

#include "Algorithm.h"
#include "Log.h"
#include "Properties.h"

namespace Merivane::AlgorithmUtils {

template <typename T>
std::optional<OwningDataList> execute(const DataList& input, const Properties& configuration,
                                      Progress* progress = nullptr) {
  Algorithm* raw = nullptr;
  if (!T::createCompatible(input, &raw) || !raw) {
    delete raw;
    LOG_ERROR("AlgorithmUtils", "Called execute with incompatible input data list.");
    return std::nullopt;
  }
  std::unique_ptr<Algorithm> algorithm(raw);
  algorithm->configure(&configuration);
  if (progress) algorithm->setProgress(progress);
  algorithm->compute();
  const int status = algorithm->status();
  if (status != Algorithm::statusSuccess && status != Algorithm::statusUnknown) {
    LOG_ERROR("AlgorithmUtils", "Execution of algorithm failed, returned status code: " << status);
    return std::nullopt;
  }
  return algorithm->takeOutput();
}

}  // namespace Merivane::AlgorithmUtils

namespace Merivane {
class SharedImage;
class SharedImageSet;
}  // namespace Merivane

namespace Merivane::AlgorithmUtils {

namespace internal {
// Wraps frames that the caller keeps owning into sets, for the list of an execute call.
class FrameWrapper {
 public:
  explicit FrameWrapper(const std::vector<SharedImage*>& frames);
  ~FrameWrapper();
  const DataList& list() const { return list_; }

 private:
  std::vector<SharedImageSet*> sets_;
  DataList list_;
};
}  // namespace internal

template <typename T>
std::optional<OwningDataList> execute(const std::vector<SharedImage*>& frames, const Properties& configuration,
                                      Progress* progress = nullptr) {
  internal::FrameWrapper wrapper(frames);
  return execute<T>(wrapper.list(), configuration, progress);
}

}  // namespace Merivane::AlgorithmUtils
