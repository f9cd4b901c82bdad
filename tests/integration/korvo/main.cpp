#include "runtime_folder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  testing::AddGlobalTestEnvironment(new kit::RuntimeFolder);
  return RUN_ALL_TESTS();
}
