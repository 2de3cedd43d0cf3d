#pragma once
// A scratch folder per test and small helpers for the reader and writer tests.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace Merivane::TestKit {

class ScratchDir {
 public:
  ScratchDir() {
    const auto* info = testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(info->test_suite_name()) + "_" + info->name();
    for (char& c : name)
      if (c == '/') c = '_';
    path_ = std::filesystem::temp_directory_path() / ("merivane-test-" + std::to_string(::getpid()) + "-" + name);
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~ScratchDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  std::string file(const std::string& name) const { return (path_ / name).string(); }
  const std::filesystem::path& path() const { return path_; }
  // Every entry of the folder, hidden temporaries included.
  int entries() const {
    int n = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(path_)) ++n;
    return n;
  }

 private:
  std::filesystem::path path_;
};

inline void writeBytes(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary);
  out << bytes;
}

inline std::string readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace Merivane::TestKit
