// The three exported entry points and the load-time announcement of the plug-in.
#include "Plugin.h"
#include "SegPlugin.h"

#define MERIVANE_EXPORT __attribute__((visibility("default")))

extern "C" {
MERIVANE_EXPORT Merivane::PluginBase* merivaneCreatePlugin();
MERIVANE_EXPORT const char* merivanePluginId();
MERIVANE_EXPORT extern const char* const merivanePluginDescriptor;
}

Merivane::PluginBase* merivaneCreatePlugin() { return new Merivane::SegPlugin(); }

const char* merivanePluginId() { return Merivane::SegPlugin::id(); }

const char* const merivanePluginDescriptor =
    "__MERIVANE_PLUGIN_V2_MAGIC_STRING__|hostversion=4.4.6|buildflags=GLIBCXX_DEBUG:_GLIBCXX_DEBUG|pluginversion=";

namespace {
Merivane::PluginAutoRegistrationGuard g_registrationGuard(&Merivane::SegPlugin::id);
}
