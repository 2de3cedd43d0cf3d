#pragma once
#include <string>
#include <vector>

#include "MerivaneLibPlugin.h"

namespace Merivane {

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
};

}  // namespace Merivane
