#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "Log.h"
#include "TestSupport.h"

using namespace Merivane;

// Written to a file, a log line loses its terminal codes; sinks still get the message as logged.
TEST(Log, LinesToAFileCarryNoTerminalCodes) {
  char path[] = "/tmp/merivane-log-XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  TestKit::LogCapture capture;
  const bool wasEnabled = Log::stderrEnabled();
  Log::setStderrEnabled(true);
  std::fflush(stderr);
  const int saved = dup(fileno(stderr));
  ASSERT_GE(dup2(fd, fileno(stderr)), 0);
  LOG_INFO("Seg.Test", "\033[0;11m| a | b |");
  LOG_WARN("", "plain \033[1;31mred\033[0m text\033");
  std::fflush(stderr);
  dup2(saved, fileno(stderr));
  close(saved);
  close(fd);
  Log::setStderrEnabled(wasEnabled);

  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  std::remove(path);
  EXPECT_EQ(text.str().find('\033'), std::string::npos) << text.str();
  EXPECT_NE(text.str().find("[INFO] Seg.Test: | a | b |\n"), std::string::npos) << text.str();
  EXPECT_NE(text.str().find("[WARNING] plain red text\n"), std::string::npos) << text.str();
  EXPECT_TRUE(capture.contains("\033[0;11m| a | b |"));
}
