#include "GlObject.h"

namespace Merivane {

GlObject::~GlObject() = default;

}  // namespace Merivane
