#include "subscribers.h"

#include <gtest/gtest.h>

namespace telemetry {
namespace {

TEST(Subscribers, CountOneIdentifierOnceHoweverOftenItComes) {
  Subscribers subscribers;
  subscribers.add("LoggerHost/Load");
  subscribers.add("LoggerHost/Load");
  EXPECT_TRUE(subscribers.want("Host/Load"));
  subscribers.remove("LoggerHost/Load");
  EXPECT_FALSE(subscribers.want("Host/Load"));
  subscribers.remove("LoggerHost/Load");
}

TEST(Subscribers, WantAnEventUntilTheLastOfThemIsGone) {
  Subscribers subscribers;
  subscribers.add("LoggerHost/Load");
  subscribers.add("DisplayHost/Load");
  subscribers.remove("LoggerHost/Load");
  EXPECT_TRUE(subscribers.want("Host/Load"));
  subscribers.remove("DisplayHost/Load");
  EXPECT_FALSE(subscribers.want("Host/Load"));
}

TEST(Subscribers, WantOnlyTheEventsThatTheySubscribedTo) {
  Subscribers subscribers;
  subscribers.add("LoggerHost/Core1/Load");
  EXPECT_TRUE(subscribers.want("Host/Core1/Load"));
  EXPECT_FALSE(subscribers.want("Host/Load"));
  EXPECT_FALSE(subscribers.want("Host/Core0/Load"));
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
