#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace kit {

/// A folder for the sockets of this test's brokers alone: other tests, and a broker that somebody works with, are
/// neither seen nor met. Programs that the test starts inherit it.
class RuntimeFolder : public testing::Environment {
 public:
  void SetUp() override {
    std::string pattern = std::filesystem::temp_directory_path() / "korvo-test-XXXXXX";
    if (!mkdtemp(pattern.data())) throw std::runtime_error("no folder " + pattern);
    folder_ = pattern;
    setenv("XDG_RUNTIME_DIR", folder_.c_str(), 1);
    // A map file of this machine would add events of its own.
    setenv("XDG_DATA_HOME", "/nonexistent", 1);
    setenv("XDG_DATA_DIRS", "/nonexistent", 1);
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

 private:
  std::filesystem::path folder_;
};

}  // namespace kit
