#pragma once
#include <memory>
#include <string>
#include <vector>

#include "MerivaneLibPlugin.h"

namespace Merivane {

class Repository_MerivaneSeg;

// The plug-in object: creates the algorithm and controller factories on init().
class SegPlugin : public MerivaneLibPlugin {
 public:
  SegPlugin();
  ~SegPlugin() override;

  std::string author() const override;
  std::string description() const override;
  std::vector<std::string> dependencies() const override;
  int init() override;

  static const char* id();
  // The shader repository added by init(); null before.
  const Repository_MerivaneSeg* repository() const { return repository_.get(); }

 private:
  std::unique_ptr<Repository_MerivaneSeg> repository_;
};

}  // namespace Merivane
