#pragma once
#include "AlgorithmFactory.h"

namespace Merivane {

// Picks the panel of an algorithm by dynamic cast in a fixed order; null for algorithms of
// other plug-ins, so that the host asks the next factory.
class SegAlgorithmControllerFactory : public AlgorithmControllerFactory {
 public:
  SegAlgorithmControllerFactory();
  AlgorithmController* create(Algorithm* algorithm) const override;
};

}  // namespace Merivane
