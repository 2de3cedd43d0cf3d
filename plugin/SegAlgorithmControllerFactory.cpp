#include "SegAlgorithmControllerFactory.h"

namespace Merivane {

SegAlgorithmControllerFactory::SegAlgorithmControllerFactory() : AlgorithmControllerFactory("Seg", false) {}

AlgorithmController* SegAlgorithmControllerFactory::create(Algorithm* algorithm) const {
  if (!algorithm) return nullptr;
  // Rows arrive with the panels, in table order.
  return nullptr;
}

}  // namespace Merivane
