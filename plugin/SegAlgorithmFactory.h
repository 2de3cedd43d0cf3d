#pragma once
#include "AlgorithmFactory.h"

namespace Merivane {

// The plug-in's algorithm table, registered in one place in table order.
class SegAlgorithmFactory : public AlgorithmFactory {
 public:
  SegAlgorithmFactory();
};

}  // namespace Merivane
