#pragma once

#include <hxcommon/hxbroker.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kit {

/// Shuts a broker down, after which nothing may be left in it.
inline void endBroker(HX::HXBroker& broker) {
  broker.shutdown();
  EXPECT_THAT(broker.modules(), testing::IsEmpty());
  EXPECT_TRUE(broker.session()->services().empty());
  EXPECT_FALSE(broker.session()->serviceRegistered.hasSubscribers());
}

}  // namespace kit
