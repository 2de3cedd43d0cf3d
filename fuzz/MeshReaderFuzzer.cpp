// One mesh reader per build of this file: FUZZ_EXTENSION is ".ply", ".stl" or ".obj". A mesh
// that comes back must refer only to vertices it has.
#include <cstdint>
#include <cstdlib>

#include "FuzzShim.h"
#include "Mesh.h"
#include "MeshIO.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = Merivane::Fuzz::inputFile(data, size, FUZZ_EXTENSION);
  std::string error;
  auto mesh = Merivane::IO::readMesh(path, &error);
  if (mesh && !mesh->isValid()) std::abort();
  if (!mesh && error.rfind("input", 0) != 0) std::abort();
  if (error.size() > 400) std::abort();
  return 0;
}
