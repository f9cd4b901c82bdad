#include "names.h"

#include "expect_error.h"
#include "patterns.h"
#include "print_value.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace HX::fleet {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

TEST(Names, AreKeysOfABucketAndGoThereAndBack) {
  const std::pair<std::string, std::string> cases[] = {
      {"Battery/Level", "Battery.Level"},
      {"Left arm/\xc3\xa4", "Left=20arm.=C3=A4"},
      {"", "="},
      {"/", "=.="},
      {"a//b/", "a.=.b.="},
      {"a.b>*$=", "a=2Eb=3E=2A=24=3D"},
      {std::string("\0\xff", 2), "=00=FF"},
  };
  for (const auto& [key, subject] : cases) {
    EXPECT_EQ(toSubject(key), subject);
    EXPECT_EQ(toKey(subject), key);
    EXPECT_THAT(subject, MatchesRegex("[-_=a-zA-Z0-9]+([.][-_=a-zA-Z0-9]+)*"));
  }
  EXPECT_EQ(toToken("robot3/Arm"), "robot3=2FArm");
}

TEST(Names, OfNoKeyAreRefused) {
  for (const char* subject : {"a..b", ".a", "a.", "=4", "=zz", "=c3", "a=", "=41", "=2F", "a b", "*", "", "=="}) {
    EXPECT_THAT(errorOf([&] { toKey(subject); }), HasSubstr("no key")) << subject;
  }
}

TEST(Names, OfRobotsAreShortAndPlain) {
  for (const std::string& name : {std::string("robot7"), std::string("a_b-C"), std::string(64, 'x')})
    EXPECT_TRUE(isName(name));
  for (const std::string& name : {std::string(), std::string("a.b"), std::string("a b"), std::string("*"),
                                  std::string("\xc3\xa4"), std::string(65, 'x')}) {
    EXPECT_FALSE(isName(name)) << name;
  }
  EXPECT_THAT(errorOf([] { FleetSubjects("a.b"); }), HasSubstr("a.b"));
}

TEST(Names, OfAFleetStandInItsSubjects) {
  const FleetSubjects fleet("fleet");
  EXPECT_EQ(fleet.event("robot7", "Battery.Level"), "fleet.robot7.event.Battery.Level");
  EXPECT_EQ(fleet.put(fleet.valueBucket(), "robot7.A"), "$JS.hub.API.$KV.fleet.robot7.A");
  EXPECT_EQ(fleet.lastOf(fleet.desiredBucket(), "robot7"),
            "$JS.hub.API.DIRECT.GET.KV_fleet_desired.$KV.fleet_desired.robot7");
  EXPECT_EQ(fleet.eventStream(), "FLEET_EVENTS");
}

TEST(Patterns, ChooseByParts) {
  struct Case {
    const char* pattern;
    const char* filter;
    std::vector<std::string> matching;
    std::vector<std::string> others;
  };
  const Case cases[] = {
      {"Battery/Level", "Battery.Level", {"Battery/Level"}, {"Battery", "Battery/Level/Cell", "Battery/level"}},
      {"Battery/*", "Battery.*", {"Battery/Level", "Battery/"}, {"Battery", "Battery/Cell/1"}},
      {"robot*/Battery/**", "*.Battery.>", {"robot7/Battery/Cell/1"}, {"robot7/Battery", "arm/Battery/Level"}},
      {"**", ">", {"", "a", "a/b"}, {}},
      {"*a*b", "*", {"ab", "xaxbxb"}, {"a/b", "aba"}},
      {"a b", "a=20b", {"a b"}, {"ab"}},
  };
  for (const Case& each : cases) {
    const Pattern pattern(each.pattern);
    EXPECT_EQ(pattern.filter(), each.filter);
    for (const auto& key : each.matching) EXPECT_TRUE(pattern.matches(key)) << each.pattern << " and " << key;
    for (const auto& key : each.others) EXPECT_FALSE(pattern.matches(key)) << each.pattern << " and " << key;
  }
  EXPECT_THAT(errorOf([] { Pattern("a/**/b"); }), HasSubstr("a/**/b"));
  EXPECT_TRUE(Patterns({"a", "b/*"}).match("b/c"));
  EXPECT_FALSE(Patterns().match(""));
}

}  // namespace
}  // namespace HX::fleet
