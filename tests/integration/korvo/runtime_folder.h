#pragma once

#include "temporary_folder.h"

#include <cstdlib>

#include <gtest/gtest.h>

namespace kit {

/// A folder for the sockets of this test's brokers alone: other tests, and a broker that somebody works with, are
/// neither seen nor met. Programs that the test starts inherit it.
class RuntimeFolder : public testing::Environment {
 public:
  void SetUp() override {
    setenv("XDG_RUNTIME_DIR", folder_.path().c_str(), 1);
    // A map file of this machine would add events of its own.
    setenv("XDG_DATA_HOME", "/nonexistent", 1);
    setenv("XDG_DATA_DIRS", "/nonexistent", 1);
  }

 private:
  const TemporaryFolder folder_;
};

}  // namespace kit
