#pragma once
// The one OpenGL 4.5 core context of the process, made through EGL without a display or a
// window: Mesa's surfaceless platform (llvmpipe where there is no GPU), else an EGL device.
// The context lives on a dedicated thread; run() hands work to that thread and waits, so
// any thread (test bodies, OpenMP workers) may transfer images. Work already on the GL
// thread runs directly, so nested calls do not deadlock.
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Merivane::Threading {
class ThreadPool;
}

namespace Merivane::GL {

class Context {
 public:
  ~Context();
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  // The context, made on first use; null when none can be made (logged once) or when GL is
  // switched off.
  static Context* instance();
  static bool available() { return instance() != nullptr; }
  // Switches the GPU paths off and on for the whole process (the CPU paths then run).
  static void setEnabled(bool enabled);
  static bool enabled();

  // Runs f on the GL thread and waits; exceptions of f reach the caller.
  void run(const std::function<void()>& f);
  bool onGlThread() const;
  // Waits until the GPU has finished all submitted work (for timings).
  void finish();
  std::unique_ptr<Threading::ThreadPool>& threadPool() { return pool_; }
  // f runs on the GL thread just before the context goes away at exit, so that owners of
  // long-lived GL objects (program caches) can free them while the context is current.
  void addShutdownHook(std::function<void()> f);

  const std::string& renderer() const { return renderer_; }
  const std::string& version() const { return version_; }

 private:
  Context();
  bool create();
  void destroy();

  std::unique_ptr<Threading::ThreadPool> pool_;
  std::vector<std::function<void()>> shutdownHooks_;
  void* display_ = nullptr;
  void* context_ = nullptr;
  void* surface_ = nullptr;
  std::string renderer_;
  std::string version_;
};

// Runs f on the context's thread when there is a context; returns false (and runs nothing)
// when there is none.
bool runOnGlThread(const std::function<void()>& f);

}  // namespace Merivane::GL
