#pragma once
// The non-GUI side of panels. Concrete panels are QWidgets as well.
#include <string>

#include "Configurable.h"
#include "Data.h"
#include "Signal.h"

namespace Merivane {

class Algorithm;

class Controller {
 public:
  enum Location : int { LocationNone = 0, LocationSidebar = 1, LocationFloating = 2 };
  virtual ~Controller();
  virtual void onSelectedDataChanged(const DataList&) {}
  virtual void onVisibleDataChanged(const DataList&) {}
  virtual int supportedLocations() const { return LocationSidebar; }
  virtual Location preferredLocation() const { return LocationSidebar; }
  virtual void onLocationChanged(Location) {}
  void* getDecorator() const { return nullptr; }
};

class AlgorithmController : public Controller, public SignalReceiver, public Configurable {
 public:
  explicit AlgorithmController(Algorithm* algorithm) : algorithm_(algorithm) {}
  ~AlgorithmController() override;

  virtual std::string title() const { return {}; }
  virtual int init() { return 0; }
  virtual void closeAlgorithm(bool) {}
  virtual void onAlgorithmParametersChanged() {}
  virtual void onAlgorithmOutputChanged() {}
  virtual void duplicateAlgorithmOnSelectedData() {}

  Algorithm* algorithm() const { return algorithm_; }

 protected:
  Algorithm* algorithm_;
};

}  // namespace Merivane
