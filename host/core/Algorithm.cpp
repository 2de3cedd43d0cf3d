#include "Algorithm.h"

#include "FactoryRegistry.h"
#include "Log.h"
#include "Parameter.h"
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

bool Algorithm::validateParameters(const char* category, std::initializer_list<const Configurable*> parts) {
  auto check = [&](const Configurable& c) {
    for (const ParameterBase* p : c.parameters()) {
      const std::string why = p->rangeError();
      if (why.empty()) continue;
      LOG_ERROR(category, p->name() << " " << why << ", not " << p->text());
      setStatus(statusInvalidInput);
      return false;
    }
    return true;
  };
  if (!check(*this)) return false;
  for (const Configurable* part : parts)
    if (part && !check(*part)) return false;
  return true;
}

}  // namespace Merivane
