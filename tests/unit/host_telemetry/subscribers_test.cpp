#include "subscribers.h"

#include <gtest/gtest.h>

namespace telemetry {
namespace {

TEST(Subscribers, WantAnEventUntilTheLastOfThemIsGoneHoweverOftenEachCame) {
  Subscribers subscribers;
  for (const char* id : {"LoggerHost/Load", "LoggerHost/Load", "DisplayHost/Load", "LoggerHost/Core1/Load"}) {
    subscribers.add(id);
  }
  EXPECT_TRUE(subscribers.want("Host/Core1/Load"));
  EXPECT_FALSE(subscribers.want("Host/Core0/Load"));
  subscribers.remove("LoggerHost/Load");
  EXPECT_TRUE(subscribers.want("Host/Load"));
  subscribers.remove("DisplayHost/Load");
  EXPECT_FALSE(subscribers.want("Host/Load")) << "another event that ends like it does not count";
  subscribers.remove("LoggerHost/Load");
}

TEST(Subscribers, LoseAModuleWithAllItsEventsAndNoOther) {
  Subscribers subscribers;
  subscribers.add("LogHost/Load");
  subscribers.add("LogHost/Memory");
  subscribers.add("LoggerHost/Load");
  subscribers.removeModule("Log", "Host/");
  EXPECT_TRUE(subscribers.want("Host/Load"));
  EXPECT_FALSE(subscribers.want("Host/Memory"));
}

}  // namespace
}  // namespace telemetry
