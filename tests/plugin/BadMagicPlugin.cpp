// A library with the plug-in entry points but a wrong magic: the loader must refuse it.
#include "Plugin.h"

namespace {
class NeverCreated : public Merivane::PluginBase {
 public:
  std::string author() const override { return "test"; }
  std::string description() const override { return "must never be created"; }
  int init() override { return 0; }
};
}  // namespace

extern "C" {
__attribute__((visibility("default"))) Merivane::PluginBase* merivaneCreatePlugin() { return new NeverCreated(); }
__attribute__((visibility("default"))) const char* merivanePluginId() { return "Test.BadMagic"; }
__attribute__((visibility("default"))) extern const char* const merivanePluginDescriptor;
}
const char* const merivanePluginDescriptor = "__MERIVANE_PLUGIN_V1_MAGIC_STRING__|hostversion=4.4.6|pluginversion=";
