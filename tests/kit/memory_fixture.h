#pragma once

#include "end_broker.h"

#include <hxbase/hxmemory.h>
#include <hxcommon/hxbroker.h>

#include <cstdlib>
#include <memory>
#include <utility>

#include <gtest/gtest.h>

namespace kit {

/// A broker with a memory in it, for one test. Afterwards the broker is shut down, and the memory has to be gone, with
/// all that it had in the broker.
///
/// No map file of this machine is seen; tests that want one give its folder to `mw::path::prependDataDir` and call
/// `start` again.
class MemoryFixture : public testing::Test {
 protected:
  void SetUp() override { start(); }
  void TearDown() override { shutDown(); }

  /// Begins anew, with a fresh broker and memory.
  void start() {
    shutDown();
    ::setenv("XDG_DATA_HOME", "/dev/null", 1);
    ::setenv("XDG_DATA_DIRS", "/dev/null", 1);
    broker = HX::HXBroker::create("memory-fixture");
    memory = HX::HXModule::createModule<HX::HXMemory>(broker, "HXMemory");
    generic = broker->getProxy("HXMemory");
  }

  /// Ends the broker and expects the memory to go with it. May be called again.
  void shutDown() {
    const std::weak_ptr<HX::HXMemory> gone = memory;
    generic.reset();
    memory.reset();
    const auto ended = std::move(broker);
    if (!ended) return;
    endBroker(*ended);
    EXPECT_TRUE(gone.expired()) << "somebody still holds the memory";
    HX::STMValue::drainRetired();
  }

  std::shared_ptr<HX::HXBroker> broker;
  std::shared_ptr<HX::HXMemory> memory;
  std::shared_ptr<HX::HXProxy> generic;  ///< To the memory, by the names that it publishes.
};

}  // namespace kit
