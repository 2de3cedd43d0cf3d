#include "Algorithm.h"

#include "FactoryRegistry.h"
#include "Properties.h"

namespace Merivane {

Algorithm::~Algorithm() = default;

OwningDataList Algorithm::takeOutput() { return {}; }

bool Algorithm::survivesDataDeletion(const Data* data) const {
  for (Data* d : factoryInfo_.input.items())
    if (d == data) return false;
  return true;
}

void Algorithm::loadDefaults() {
  if (const Properties* p = FactoryRegistry::get().savedDefaults(factoryInfo_.id)) configure(p);
}

}  // namespace Merivane
