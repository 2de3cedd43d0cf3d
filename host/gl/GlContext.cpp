#include "GlContext.h"
#include "GlPrimitives.h"

#include <epoxy/egl.h>
#include <epoxy/gl.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "Log.h"
#include "ThreadPool.h"

namespace Merivane::GL {

namespace {
constexpr const char* kCategory = "GL.Context";
std::atomic<bool> g_enabled{true};
// Set when the context is torn down at exit; later GL work is skipped.
std::atomic<bool> g_shutDown{false};
std::thread::id g_glThread;

EGLDisplay openDisplay() {
  // Surfaceless Mesa first: no GPU, no display server needed.
  if (epoxy_has_egl_extension(EGL_NO_DISPLAY, "EGL_MESA_platform_surfaceless")) {
    EGLDisplay d = eglGetPlatformDisplayEXT(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
    if (d != EGL_NO_DISPLAY) {
      EGLint major = 0, minor = 0;
      if (eglInitialize(d, &major, &minor)) return d;
    }
  }
  // A GPU driver that offers its devices directly (no Mesa surfaceless platform).
  if (epoxy_has_egl_extension(EGL_NO_DISPLAY, "EGL_EXT_platform_device")) {
    EGLDeviceEXT devices[8];
    EGLint count = 0;
    if (eglQueryDevicesEXT(8, devices, &count)) {
      for (EGLint i = 0; i < count; ++i) {
        EGLDisplay d = eglGetPlatformDisplayEXT(EGL_PLATFORM_DEVICE_EXT, devices[i], nullptr);
        EGLint major = 0, minor = 0;
        if (d != EGL_NO_DISPLAY && eglInitialize(d, &major, &minor)) return d;
      }
    }
  }
  return EGL_NO_DISPLAY;
}
}  // namespace

Context::Context() : pool_(std::make_unique<Threading::ThreadPool>(1)) {}

Context::~Context() {
  if (pool_) {
    pool_->enqueue([this] {
      for (auto& hook : shutdownHooks_) hook();
      shutdownHooks_.clear();
      destroy();
    }).wait();
    pool_->join();
  }
  g_shutDown.store(true);
}

void Context::addShutdownHook(std::function<void()> f) {
  run([this, &f] { shutdownHooks_.push_back(std::move(f)); });
}

bool Context::create() {
  g_glThread = std::this_thread::get_id();
  EGLDisplay display = openDisplay();
  if (display == EGL_NO_DISPLAY) return false;
  display_ = display;
  if (!eglBindAPI(EGL_OPENGL_API)) return false;

  EGLConfig config = EGL_NO_CONFIG_KHR;
  const bool noConfig = epoxy_has_egl_extension(display, "EGL_KHR_no_config_context");
  const bool surfaceless = epoxy_has_egl_extension(display, "EGL_KHR_surfaceless_context");
  if (!noConfig || !surfaceless) {
    const EGLint configAttribs[] = {EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_RENDERABLE_TYPE, EGL_OPENGL_BIT, EGL_NONE};
    EGLint n = 0;
    if (!eglChooseConfig(display, configAttribs, &config, 1, &n) || n < 1) return false;
  }
  const EGLint contextAttribs[] = {EGL_CONTEXT_MAJOR_VERSION, 4, EGL_CONTEXT_MINOR_VERSION, 5,
                                   EGL_CONTEXT_OPENGL_PROFILE_MASK, EGL_CONTEXT_OPENGL_CORE_PROFILE_BIT, EGL_NONE};
  EGLContext context = eglCreateContext(display, config, EGL_NO_CONTEXT, contextAttribs);
  if (context == EGL_NO_CONTEXT) return false;
  context_ = context;
  EGLSurface surface = EGL_NO_SURFACE;
  if (!surfaceless) {
    const EGLint pbufferAttribs[] = {EGL_WIDTH, 1, EGL_HEIGHT, 1, EGL_NONE};
    surface = eglCreatePbufferSurface(display, config, pbufferAttribs);
    if (surface == EGL_NO_SURFACE) return false;
    surface_ = surface;
  }
  if (!eglMakeCurrent(display, surface, surface, context)) return false;
  if (epoxy_gl_version() < 45) return false;
  renderer_ = reinterpret_cast<const char*>(glGetString(GL_RENDERER));
  version_ = reinterpret_cast<const char*>(glGetString(GL_VERSION));
  // Rows of images are tightly packed in memory.
  glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  return true;
}

void Context::destroy() {
  if (!display_) return;
  EGLDisplay display = static_cast<EGLDisplay>(display_);
  eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
  if (surface_) eglDestroySurface(display, static_cast<EGLSurface>(surface_));
  if (context_) eglDestroyContext(display, static_cast<EGLContext>(context_));
  // The display is not terminated: that unloads the driver at exit, and whatever the driver
  // keeps for the process then shows up as leaks without a name to suppress them by.
  eglReleaseThread();
  display_ = context_ = surface_ = nullptr;
}

Context* Context::instance() {
  if (!g_enabled.load(std::memory_order_relaxed) || g_shutDown.load(std::memory_order_acquire)) return nullptr;
  // Made once; a failure is remembered, so the log line appears once.
  static std::unique_ptr<Context> context = [] {
    std::unique_ptr<Context> c(new Context());
    bool ok = false;
    std::string why;
    try {
      ok = c->pool_->enqueue([&c] { return c->create(); }).get();
    } catch (const std::exception& e) {
      why = e.what();
    }
    if (!ok) {
      LOG_WARN(kCategory, "no OpenGL 4.5 context through EGL" << (why.empty() ? "" : ": " + why)
                                                              << "; GPU paths are off, CPU paths run");
      c.reset();
    } else {
      LOG_DEBUG(kCategory, "OpenGL " << c->version_ << " on " << c->renderer_);
      registerResources();
    }
    return c;
  }();
  return context.get();
}

void Context::setEnabled(bool enabled) { g_enabled.store(enabled, std::memory_order_relaxed); }
bool Context::enabled() { return g_enabled.load(std::memory_order_relaxed); }

bool Context::onGlThread() const { return std::this_thread::get_id() == g_glThread; }

void Context::run(const std::function<void()>& f) {
  if (onGlThread()) {
    f();
    return;
  }
  pool_->enqueue([&f] { f(); }).get();
}

void Context::finish() {
  run([] { glFinish(); });
}

bool runOnGlThread(const std::function<void()>& f) {
  Context* c = Context::instance();
  if (!c) return false;
  c->run(f);
  return true;
}

}  // namespace Merivane::GL
