#pragma once
#include "AlgorithmFactory.h"

namespace Merivane {

// The plug-in's algorithm table, registered in one place in table order.
class SegAlgorithmFactory : public AlgorithmFactory {
 public:
  SegAlgorithmFactory();
  // Takes back the data component it registered: its creator's code leaves with the plug-in.
  ~SegAlgorithmFactory() override;

 private:
  bool registeredContours_ = false;
};

}  // namespace Merivane
