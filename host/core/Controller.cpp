#include "Controller.h"

namespace Merivane {
Controller::~Controller() = default;
AlgorithmController::~AlgorithmController() = default;
}  // namespace Merivane
