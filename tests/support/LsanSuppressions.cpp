// Read by LeakSanitizer at start-up in sanitizer builds (unused otherwise). Compiled into every
// test program itself: from a static library the linker would drop it, as nothing calls it.
// What is listed lives until exit on purpose: fontconfig's cache, made once when Qt first
// looks for fonts (any test that creates a widget), and, in the test that runs a real window
// under Xvfb, the X client libraries' and D-Bus's connections; and the screens of Qt's offscreen
// platform, which hang off the application object that each test program keeps for its run.
extern "C" __attribute__((visibility("default"), used)) const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\nleak:libxcb.so\nleak:libX11.so\nleak:libQt5XcbQpa.so\nleak:libdbus-1.so\n"
         "leak:libqoffscreen.so\nleak:QScreen::QScreen\nleak:QWindowSystemInterface::handleScreenAdded\n"
         "leak:QtSharedPointer::ExternalRefCountData::getAndRef\nleak:QObject::QObject\n";
}
