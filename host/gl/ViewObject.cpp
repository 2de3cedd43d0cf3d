#include "ViewObject.h"

namespace Merivane::GUI {

ViewObject::EventHandler::~EventHandler() = default;
ViewObject::~ViewObject() = default;

}  // namespace Merivane::GUI
