#include "GlContext.h"
#include "TestSupport.h"

namespace Merivane::TestKit {

bool glContextAvailable() { return GL::Context::available(); }

}  // namespace Merivane::TestKit
