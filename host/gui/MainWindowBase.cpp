#include "MainWindowBase.h"

namespace Merivane {

namespace {
MainWindowBase* g_instance = nullptr;
}

MainWindowBase::MainWindowBase() {
  if (!g_instance) g_instance = this;
}

MainWindowBase::~MainWindowBase() {
  if (g_instance == this) g_instance = nullptr;
}

MainWindowBase* MainWindowBase::instance() { return g_instance; }

}  // namespace Merivane
